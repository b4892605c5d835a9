#include "CloudTarget.h"

#include <algorithm>
#include <cstdlib>

#include <httplib.h>

#include "SimControl.h"

namespace hxagent {

namespace {

void SetEnv(const char* name, const std::string& value) { ::setenv(name, value.c_str(), 1); }

std::string ScaleText(double scale) {
    // The bridge takes (0, 1]; a zero scale (no waiting at all) becomes the smallest step.
    scale = std::clamp(scale, 1e-6, 1.0);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.6g", scale);
    return buf;
}

bool StartEmbedded(const CloudRequest& request, CloudTarget& out, std::string& error) {
    const double scale = request.timeScale.value_or(kEmbeddedTimeScale);
    EmbeddedWorld world;
    if (!StartBuiltInEmulator(scale, request.emulatorStateDir, request.scenarioFile, out.emulator, world, error))
        return false;
    out.kind = CloudKind::Embedded;
    out.endpoint = world.endpoint;
    out.timeScale = scale;
    out.devRoot = world.devRoot;
    out.sysRoot = world.sysRoot;
    out.credentials = world.credentials;
    out.region = world.region;
    // Before the plug-in connects: the bridge reads these when it is connected.
    SetEnv("ALIBABA_CLOUD_ECS_ENDPOINT", world.endpoint);
    SetEnv("ALIBABA_CLOUD_METADATA_ENDPOINT", world.metadataEndpoint);
    SetEnv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", ScaleText(out.timeScale));
    ::unsetenv("ALIBABA_CLOUD_SECURITY_TOKEN");
    ::unsetenv("ALIBABA_CLOUD_REGION_ID");
    ::unsetenv("ALIBABA_CLOUD_BRIDGE_CREDENTIALS");
    return true;
}

}  // namespace

std::string CloudTarget::Describe() const {
    const std::string where = " (region " + (region.empty() ? std::string("of this instance") : region) + ")";
    switch (kind) {
        case CloudKind::Embedded:
            return "the built-in ECS emulator at " + endpoint + where;
        case CloudKind::Emulator:
            return "the ECS emulator at " + endpoint + where + " with " + CredentialText();
        case CloudKind::Cloud:
            return "Alibaba Cloud ECS at " + EndpointText() + where + " with " + CredentialText();
    }
    return {};
}

std::string CloudTarget::EndpointText() const {
    if (!endpoint.empty()) return endpoint;
    return region.empty() ? std::string("the regional endpoint") : "https://ecs." + region + ".aliyuncs.com";
}

std::string CloudTarget::CredentialText() const {
    if (credentials.chain) return "credentials from " + credentials.source + ", refreshed by the bridge";
    return "AccessKey " + MaskKeyId(credentials.accessKeyId) + " from " + credentials.source;
}

nlohmann::json CloudTarget::DescribeJson() const {
    const char* kinds[] = {"built-in emulator", "emulator", "cloud"};
    nlohmann::json j = {{"kind", kinds[static_cast<int>(kind)]},
                        {"endpoint", kind == CloudKind::Cloud ? EndpointText() : endpoint},
                        {"region", region}};
    if (kind != CloudKind::Embedded) j["credentials"] = CredentialText();
    return j;
}

namespace {

bool Truthy(const std::string& v) { return v == "true" || v == "1"; }

// Whether the metadata service at `base` lists a RAM role for this instance: hardened
// mode first, a plain GET only when the service issues no token and IMDSv1 is allowed.
// One second per step at most, so a machine that is not an ECS instance is told quickly.
bool MetadataHasRole(const std::string& base, bool imdsV1Disabled) {
    httplib::Client client(base);
    client.set_connection_timeout(1, 0);
    client.set_read_timeout(2, 0);
    httplib::Headers headers;
    auto token = client.Put("/latest/api/token", {{"X-aliyun-ecs-metadata-token-ttl-seconds", "60"}}, "",
                            "text/plain");
    if (!token) return false;  // unreachable
    if (token->status == 200 && !token->body.empty()) {
        headers.emplace("X-aliyun-ecs-metadata-token", token->body);
    } else if (imdsV1Disabled) {
        return false;
    }
    auto role = client.Get("/latest/meta-data/ram/security-credentials/", headers);
    return role && role->status == 200 && role->body.find_first_not_of(" \r\n\t") != std::string::npos;
}

// Takes the emulator's settings when the endpoint is an emulator on this machine.
void AdoptEmulator(const CloudRequest& request, const EnvLookup& env, CloudTarget& out) {
    std::string host;
    int port = 0;
    nlohmann::json info;
    std::string ignored;
    if (!ParseLoopbackEndpoint(out.endpoint, host, port) ||
        !SimRequest(out.endpoint, "GET", "/_sim/info", "", info, ignored) || !info.contains("deviceRoot"))
        return;
    out.kind = CloudKind::Emulator;
    out.devRoot = info.value("deviceRoot", "") + "/dev";
    out.sysRoot = info.value("deviceRoot", "") + "/sys";
    if (out.region.empty()) out.region = info.value("proxyRegionId", "");
    if (!request.timeScale) out.timeScale = info.value("timeScale", 1.0);
    if (env("ALIBABA_CLOUD_METADATA_ENDPOINT").empty())
        SetEnv("ALIBABA_CLOUD_METADATA_ENDPOINT", info.value("metadataEndpoint", out.endpoint));
    if (env("ALIBABA_CLOUD_BRIDGE_TIME_SCALE").empty())
        SetEnv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", ScaleText(out.timeScale));
}

// Hands the chain to the bridge: placeholders for Connect, the switch in the environment,
// and a --profile carried over so that the bridge picks the same profile.
void UseBridgeChain(const CloudRequest& request, CloudTarget& out) {
    SetEnv("ALIBABA_CLOUD_BRIDGE_CREDENTIALS", "chain");
    out.credentials.accessKeyId = kChainUserName;
    out.credentials.accessKeySecret = kChainPassword;
    if (!request.profile.empty()) {
        SetEnv("ALIBABA_CLOUD_PROFILE", request.profile);
        for (const char* v : {"ALIBABA_CLOUD_ACCESS_KEY_ID", "ALIBABA_CLOUD_ACCESS_KEY_SECRET",
                              "ALIBABA_CLOUD_SECURITY_TOKEN", "ALIBABA_CLOUD_ROLE_ARN"})
            ::unsetenv(v);
    }
}

}  // namespace

bool PrepareCloudTarget(const CloudRequest& request, const EnvLookup& env, CloudTarget& out, std::string& error) {
    if (request.forceEmbedded) return StartEmbedded(request, out, error);
    ::unsetenv("ALIBABA_CLOUD_BRIDGE_CREDENTIALS");

    CredentialLookup creds = ResolveCredentials(env, request.profile);
    if (!creds.error.empty()) {
        error = creds.error;
        return false;
    }
    out.endpoint = env("ALIBABA_CLOUD_ECS_ENDPOINT");
    out.kind = CloudKind::Cloud;
    out.timeScale = request.timeScale.value_or(1.0);
    out.region = env("ALIBABA_CLOUD_REGION_ID");
    if (out.region.empty() && creds.credentials) out.region = creds.credentials->regionId;
    AdoptEmulator(request, env, out);

    if (!creds.credentials && !Truthy(env("ALIBABA_CLOUD_ECS_METADATA_DISABLED"))) {
        const char* set = std::getenv("ALIBABA_CLOUD_METADATA_ENDPOINT");
        std::string base = set != nullptr && *set != '\0' ? set : "http://100.100.100.200";
        if (base.rfind("http://", 0) != 0 && base.rfind("https://", 0) != 0) base = "http://" + base;
        if (MetadataHasRole(base, Truthy(env("ALIBABA_CLOUD_IMDSV1_DISABLED")))) {
            creds.credentials = CloudCredentials{};
            creds.credentials->source = "the RAM role of this instance";
            creds.credentials->chain = true;
        }
    }
    if (!creds.credentials) {
        error = "no cloud credentials found: set ALIBABA_CLOUD_ACCESS_KEY_ID and ALIBABA_CLOUD_ACCESS_KEY_SECRET, "
                "configure a profile in ~/.aliyun/config.json, or run on an ECS instance with a RAM role "
                "(to try hxagent on the built-in emulator, add --embedded)";
        return false;
    }
    out.credentials = *creds.credentials;
    if (out.credentials.chain) UseBridgeChain(request, out);
    if (!request.deviceRoot.empty()) {
        out.devRoot = request.deviceRoot;
        out.sysRoot = "";
    }
    if (!out.credentials.securityToken.empty()) SetEnv("ALIBABA_CLOUD_SECURITY_TOKEN", out.credentials.securityToken);
    if (!out.credentials.regionId.empty() && env("ALIBABA_CLOUD_REGION_ID").empty())
        SetEnv("ALIBABA_CLOUD_REGION_ID", out.credentials.regionId);
    return true;
}

}  // namespace hxagent
