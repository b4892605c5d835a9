#include "credentials_chain.h"

#include <fstream>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "credentials_sources.h"

namespace hxbridge {

namespace {

using nlohmann::json;
using ProviderPtr = std::shared_ptr<CredentialsProvider>;

std::string Str(const json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end()) return {};
    if (it->is_string()) return it->get<std::string>();
    if (it->is_number_integer()) return std::to_string(it->get<long long>());
    return {};
}

bool IsTrue(const std::string& v) { return v == "true" || v == "TRUE" || v == "True" || v == "1"; }

class Chain {
public:
    explicit Chain(const ChainDependencies& deps) : deps_(deps) {}

    ProviderPtr Resolve() {
        if (auto p = FromEnvironmentKeys()) return p;
        if (auto p = FromOidcEnvironment()) return p;
        if (auto p = FromConfigFile()) return p;
        if (!MetadataDisabled()) {
            if (const std::string role = Env("ALIBABA_CLOUD_ECS_METADATA"); !role.empty()) return EcsRamRole(role);
        }
        if (const std::string uri = Env("ALIBABA_CLOUD_CREDENTIALS_URI"); !uri.empty()) return CredentialsUri(uri);
        if (!MetadataDisabled()) {
            auto role = DiscoverEcsRamRole(*deps_.metadataHttp, deps_.metadataEndpoint, ImdsV1Disabled());
            if (role) return EcsRamRole(*role);
        }
        throw CredentialsUnavailable(
            "no credentials: set ALIBABA_CLOUD_ACCESS_KEY_ID and ALIBABA_CLOUD_ACCESS_KEY_SECRET, configure a "
            "profile in ~/.aliyun/config.json, or run on an ECS instance with a RAM role");
    }

private:
    std::string Env(const char* name) const { return deps_.env(name); }
    bool MetadataDisabled() const { return IsTrue(Env("ALIBABA_CLOUD_ECS_METADATA_DISABLED")); }
    bool ImdsV1Disabled() const { return IsTrue(Env("ALIBABA_CLOUD_IMDSV1_DISABLED")); }

    std::string StsEndpoint(const std::string& region) const {
        if (const std::string e = Env("ALIBABA_CLOUD_STS_ENDPOINT"); !e.empty()) return e;
        const std::string r = region.empty() ? Env("ALIBABA_CLOUD_STS_REGION") : region;
        const bool vpc = IsTrue(Env("ALIBABA_CLOUD_VPC_ENDPOINT_ENABLED"));
        if (r.empty()) return "https://sts.aliyuncs.com";
        return std::string("https://") + (vpc ? "sts-vpc." : "sts.") + r + ".aliyuncs.com";
    }

    ProviderPtr Refreshing(RefreshingCredentialsProvider::Fetch fetch, const std::string& source) const {
        return std::make_shared<RefreshingCredentialsProvider>(std::move(fetch), source, deps_.refreshMargin);
    }

    ProviderPtr FromEnvironmentKeys() const {
        const std::string id = Env("ALIBABA_CLOUD_ACCESS_KEY_ID");
        const std::string secret = Env("ALIBABA_CLOUD_ACCESS_KEY_SECRET");
        if (id.empty() && secret.empty()) return nullptr;
        if (id.empty() || secret.empty())
            throw CredentialsUnavailable("only one of ALIBABA_CLOUD_ACCESS_KEY_ID and ALIBABA_CLOUD_ACCESS_KEY_SECRET "
                                         "is set");
        return std::make_shared<StaticCredentialsProvider>(
            Credentials{id, secret, Env("ALIBABA_CLOUD_SECURITY_TOKEN")}, "the environment");
    }

    ProviderPtr Oidc(const std::string& providerArn, const std::string& tokenFile, RoleRequest role,
                     const std::string& region) const {
        auto http = deps_.http;
        const std::string sts = StsEndpoint(region);
        const std::string source = "OIDC role " + role.roleArn;
        return Refreshing([=] { return AssumeRoleWithOidc(*http, sts, providerArn, tokenFile, role); }, source);
    }

    ProviderPtr FromOidcEnvironment() const {
        const std::string roleArn = Env("ALIBABA_CLOUD_ROLE_ARN");
        const std::string providerArn = Env("ALIBABA_CLOUD_OIDC_PROVIDER_ARN");
        const std::string tokenFile = Env("ALIBABA_CLOUD_OIDC_TOKEN_FILE");
        if (roleArn.empty() || providerArn.empty() || tokenFile.empty()) return nullptr;
        RoleRequest role;
        role.roleArn = roleArn;
        role.sessionName = Env("ALIBABA_CLOUD_ROLE_SESSION_NAME");
        return Oidc(providerArn, tokenFile, role, "");
    }

    ProviderPtr EcsRamRole(const std::string& roleName) const {
        auto http = deps_.metadataHttp;
        const std::string base = deps_.metadataEndpoint;
        const bool v1Disabled = ImdsV1Disabled();
        const std::string source = "the RAM role '" + roleName + "' of this instance";
        return Refreshing([=] { return FetchEcsRamRole(*http, base, roleName, v1Disabled); }, source);
    }

    ProviderPtr CredentialsUri(const std::string& uri) const {
        auto http = deps_.http;
        return Refreshing([=] { return FetchCredentialsUri(*http, uri); }, "the credentials URI");
    }

    ProviderPtr RoleArn(ProviderPtr base, const json& p, const std::string& source) const {
        RoleRequest role;
        role.roleArn = Str(p, "ram_role_arn");
        if (role.roleArn.empty()) throw CredentialsUnavailable(source + " has no ram_role_arn");
        role.sessionName = Str(p, "ram_session_name");
        role.externalId = Str(p, "external_id");
        if (const std::string s = Str(p, "expired_seconds"); !s.empty() && std::atoi(s.c_str()) > 0)
            role.durationSeconds = std::atoi(s.c_str());
        auto http = deps_.http;
        const std::string sts = StsEndpoint(Str(p, "sts_region"));
        return Refreshing([=] { return AssumeRole(http, base, sts, role); }, "role " + role.roleArn);
    }

    ProviderPtr FromConfigFile() const {
        std::string path = Env("ALIBABA_CLOUD_CONFIG_FILE");
        if (path.empty()) {
            const std::string home = Env("HOME");
            if (home.empty()) return nullptr;
            path = home + "/.aliyun/config.json";
        }
        std::ifstream in(path);
        if (!in) return nullptr;
        std::ostringstream text;
        text << in.rdbuf();
        json doc = json::parse(text.str(), nullptr, false);
        if (!doc.is_object() || !doc.contains("profiles") || !doc["profiles"].is_array())
            throw CredentialsUnavailable(path + " is not an aliyun CLI configuration (no \"profiles\" list)");
        std::string name = Env("ALIBABA_CLOUD_PROFILE");
        if (name.empty()) name = Str(doc, "current");
        if (name.empty()) name = "default";
        std::set<std::string> seen;
        return Profile(doc, name, path, seen);
    }

    ProviderPtr Profile(const json& doc, const std::string& name, const std::string& path,
                        std::set<std::string>& seen) const {
        const std::string source = "profile '" + name + "' of " + path;
        if (!seen.insert(name).second) throw CredentialsUnavailable(source + " is its own source_profile");
        const json* profile = nullptr;
        for (const auto& p : doc["profiles"])
            if (p.is_object() && Str(p, "name") == name) profile = &p;
        if (!profile) throw CredentialsUnavailable("no profile '" + name + "' in " + path);
        const json& p = *profile;
        const std::string mode = Str(p, "mode");
        if (mode == "AK" || mode == "StsToken" || mode == "RamRoleArn" || mode.empty()) {
            Credentials keys{Str(p, "access_key_id"), Str(p, "access_key_secret"),
                             mode == "StsToken" ? Str(p, "sts_token") : std::string()};
            if (keys.accessKeyId.empty() || keys.accessKeySecret.empty())
                throw CredentialsUnavailable(source + " lacks access_key_id or access_key_secret");
            if (mode == "StsToken" && keys.securityToken.empty())
                throw CredentialsUnavailable(source + " has mode StsToken but no sts_token");
            auto fixed = std::make_shared<StaticCredentialsProvider>(keys, source);
            return mode == "RamRoleArn" ? RoleArn(fixed, p, source) : fixed;
        }
        if (mode == "ChainableRamRoleArn") {
            const std::string from = Str(p, "source_profile");
            if (from.empty()) throw CredentialsUnavailable(source + " has no source_profile");
            return RoleArn(Profile(doc, from, path, seen), p, source);
        }
        if (mode == "EcsRamRole") {
            if (MetadataDisabled())
                throw CredentialsUnavailable(source + " needs the metadata service, which "
                                                      "ALIBABA_CLOUD_ECS_METADATA_DISABLED turns off");
            std::string role = Str(p, "ram_role_name");
            if (role.empty()) {
                auto found = DiscoverEcsRamRole(*deps_.metadataHttp, deps_.metadataEndpoint, ImdsV1Disabled());
                if (!found) throw CredentialsUnavailable(source + ": the metadata service lists no RAM role");
                role = *found;
            }
            return EcsRamRole(role);
        }
        if (mode == "CredentialsURI") {
            const std::string uri = Str(p, "credentials_uri");
            if (uri.empty()) throw CredentialsUnavailable(source + " has no credentials_uri");
            return CredentialsUri(uri);
        }
        if (mode == "OIDC") {
            RoleRequest role;
            role.roleArn = Str(p, "ram_role_arn");
            role.sessionName = Str(p, "ram_session_name");
            const std::string providerArn = Str(p, "oidc_provider_arn");
            const std::string tokenFile = Str(p, "oidc_token_file");
            if (role.roleArn.empty() || providerArn.empty() || tokenFile.empty())
                throw CredentialsUnavailable(source + " lacks ram_role_arn, oidc_provider_arn or oidc_token_file");
            return Oidc(providerArn, tokenFile, role, Str(p, "sts_region"));
        }
        throw CredentialsUnavailable(source + " has mode " + mode + ", which is not supported");
    }

    const ChainDependencies& deps_;
};

}  // namespace

std::shared_ptr<CredentialsProvider> ResolveCredentialChain(const ChainDependencies& deps) {
    return Chain(deps).Resolve();
}

}  // namespace hxbridge
