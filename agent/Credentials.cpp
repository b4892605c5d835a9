#include "Credentials.h"

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace hxagent {

using nlohmann::json;

EnvLookup ProcessEnvironment() {
    return [](const char* name) {
        const char* v = std::getenv(name);
        return v == nullptr ? std::string() : std::string(v);
    };
}

namespace {
std::string Str(const json& j, const char* key) {
    auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}
}  // namespace

CredentialLookup ParseAliyunConfig(const std::string& text, const std::string& wanted, const std::string& fileName) {
    CredentialLookup r;
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        r.error = fileName + " is not valid JSON";
        return r;
    }
    std::string name = wanted;
    if (name.empty()) name = Str(doc, "current");
    if (name.empty()) name = "default";
    auto profiles = doc.find("profiles");
    if (profiles == doc.end() || !profiles->is_array()) {
        r.error = fileName + " has no \"profiles\" list";
        return r;
    }
    for (const auto& p : *profiles) {
        if (!p.is_object() || Str(p, "name") != name) continue;
        const std::string mode = Str(p, "mode");
        CloudCredentials c;
        c.accessKeyId = Str(p, "access_key_id");
        c.accessKeySecret = Str(p, "access_key_secret");
        c.regionId = Str(p, "region_id");
        c.source = "profile '" + name + "' of " + fileName;
        if (mode == "RamRoleArn" || mode == "ChainableRamRoleArn" || mode == "EcsRamRole" ||
            mode == "CredentialsURI" || mode == "OIDC") {
            c = CloudCredentials{};
            c.regionId = Str(p, "region_id");
            c.source = "profile '" + name + "' of " + fileName + " (mode " + mode + ")";
            c.chain = true;
            r.credentials = c;
            return r;
        }
        if (mode == "StsToken") {
            c.securityToken = Str(p, "sts_token");
            if (c.securityToken.empty()) {
                r.error = c.source + " has mode StsToken but no sts_token";
                return r;
            }
        } else if (mode != "AK" && !mode.empty()) {
            r.error = c.source + " has mode " + mode +
                      ", which is not one of AK, StsToken, RamRoleArn, ChainableRamRoleArn, "
                      "EcsRamRole, CredentialsURI, OIDC";
            return r;
        }
        if (c.accessKeyId.empty() || c.accessKeySecret.empty()) {
            r.error = c.source + " lacks access_key_id or access_key_secret";
            return r;
        }
        r.credentials = c;
        return r;
    }
    r.error = "no profile '" + name + "' in " + fileName;
    return r;
}

CredentialLookup ResolveCredentials(const EnvLookup& env, const std::string& profile, std::string configPath) {
    CredentialLookup r;
    const std::string id = env("ALIBABA_CLOUD_ACCESS_KEY_ID");
    const std::string secret = env("ALIBABA_CLOUD_ACCESS_KEY_SECRET");
    // An explicit --profile wins over the environment; otherwise the environment wins.
    if (profile.empty() && (!id.empty() || !secret.empty())) {
        if (id.empty() || secret.empty()) {
            r.error = "only one of ALIBABA_CLOUD_ACCESS_KEY_ID and ALIBABA_CLOUD_ACCESS_KEY_SECRET is set";
            return r;
        }
        CloudCredentials c;
        c.accessKeyId = id;
        c.accessKeySecret = secret;
        c.securityToken = env("ALIBABA_CLOUD_SECURITY_TOKEN");
        c.source = "environment";
        r.credentials = c;
        return r;
    }
    if (profile.empty() && !env("ALIBABA_CLOUD_ROLE_ARN").empty() && !env("ALIBABA_CLOUD_OIDC_PROVIDER_ARN").empty() &&
        !env("ALIBABA_CLOUD_OIDC_TOKEN_FILE").empty()) {
        r.credentials = CloudCredentials{};
        r.credentials->source = "OIDC role " + env("ALIBABA_CLOUD_ROLE_ARN");
        r.credentials->chain = true;
        return r;
    }
    if (configPath.empty()) configPath = env("ALIBABA_CLOUD_CONFIG_FILE");
    if (configPath.empty() && !env("HOME").empty()) configPath = env("HOME") + "/.aliyun/config.json";
    std::ifstream in(configPath);
    if (in) {
        std::ostringstream text;
        text << in.rdbuf();
        std::string wanted = profile.empty() ? env("ALIBABA_CLOUD_PROFILE") : profile;
        return ParseAliyunConfig(text.str(), wanted, configPath);
    }
    if (!profile.empty()) {
        r.error = "profile '" + profile + "' asked for, but " + (configPath.empty() ? "HOME is not set" : configPath + " cannot be read");
        return r;
    }
    auto chained = [&](const std::string& source) {
        r.credentials = CloudCredentials{};
        r.credentials->source = source;
        r.credentials->chain = true;
        return r;
    };
    const bool metadataOff = env("ALIBABA_CLOUD_ECS_METADATA_DISABLED") == "true";
    if (!metadataOff && !env("ALIBABA_CLOUD_ECS_METADATA").empty())
        return chained("the RAM role '" + env("ALIBABA_CLOUD_ECS_METADATA") + "' of this instance");
    if (!env("ALIBABA_CLOUD_CREDENTIALS_URI").empty()) return chained("the credentials URI");
    return r;
}

std::string MaskKeyId(const std::string& id) {
    if (id.size() <= 8) return std::string(id.size(), '*');
    return id.substr(0, 4) + "****" + id.substr(id.size() - 4);
}

}  // namespace hxagent
