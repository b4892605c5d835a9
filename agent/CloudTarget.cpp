#include "CloudTarget.h"

#include <algorithm>
#include <cstdlib>

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
    hxsim::Options options;
    options.timeScale = request.timeScale.value_or(kEmbeddedTimeScale);
    options.stateDir = request.emulatorStateDir;
    options.scenarioFile = request.scenarioFile;
    auto emulator = std::make_unique<hxsim::Emulator>(options);
    auto started = emulator->Start();
    if (!started.ok()) {
        error = "the built-in emulator did not start: " + started.error;
        return false;
    }
    out.kind = CloudKind::Embedded;
    out.endpoint = started.endpoint;
    out.timeScale = options.timeScale;
    out.devRoot = (emulator->DeviceRoot() / "dev").string();
    out.sysRoot = (emulator->DeviceRoot() / "sys").string();
    auto demo = emulator->DemoCredentials();
    out.credentials = {demo.accessKeyId, demo.accessKeySecret, demo.securityToken, "", "the built-in emulator"};
    // Before the plug-in connects: the bridge reads these when it is connected.
    SetEnv("ALIBABA_CLOUD_ECS_ENDPOINT", started.endpoint);
    SetEnv("ALIBABA_CLOUD_METADATA_ENDPOINT", emulator->MetadataEndpoint());
    SetEnv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", ScaleText(out.timeScale));
    ::unsetenv("ALIBABA_CLOUD_SECURITY_TOKEN");
    ::unsetenv("ALIBABA_CLOUD_REGION_ID");
    out.emulator = std::move(emulator);
    return true;
}

}  // namespace

std::string CloudTarget::Describe() const {
    switch (kind) {
        case CloudKind::Embedded:
            return "the built-in ECS emulator at " + endpoint + " (no cloud endpoint or credentials configured)";
        case CloudKind::Emulator:
            return "the ECS emulator at " + endpoint + " with AccessKey " + MaskKeyId(credentials.accessKeyId);
        case CloudKind::Cloud:
            return "Alibaba Cloud ECS" + (endpoint.empty() ? std::string() : " at " + endpoint) + " with AccessKey " +
                   MaskKeyId(credentials.accessKeyId) + " from " + credentials.source;
    }
    return {};
}

bool PrepareCloudTarget(const CloudRequest& request, const EnvLookup& env, CloudTarget& out, std::string& error) {
    if (request.forceEmbedded) return StartEmbedded(request, out, error);

    const std::string endpoint = env("ALIBABA_CLOUD_ECS_ENDPOINT");
    CredentialLookup creds = ResolveCredentials(env, request.profile);
    if (!creds.error.empty()) {
        error = creds.error;
        return false;
    }
    if (endpoint.empty() && !creds.credentials) return StartEmbedded(request, out, error);
    if (!creds.credentials) {
        error = "ALIBABA_CLOUD_ECS_ENDPOINT is set but no credentials are: set ALIBABA_CLOUD_ACCESS_KEY_ID and "
                "ALIBABA_CLOUD_ACCESS_KEY_SECRET, or configure a profile in ~/.aliyun/config.json";
        return false;
    }
    out.credentials = *creds.credentials;
    out.endpoint = endpoint;
    out.kind = CloudKind::Cloud;
    out.timeScale = request.timeScale.value_or(1.0);

    // A loopback endpoint may be an emulator: ask it (never a remote address).
    std::string host;
    int port = 0;
    nlohmann::json info;
    std::string ignored;
    if (ParseLoopbackEndpoint(endpoint, host, port) && SimRequest(endpoint, "GET", "/_sim/info", "", info, ignored) &&
        info.contains("deviceRoot")) {
        out.kind = CloudKind::Emulator;
        out.devRoot = info.value("deviceRoot", "") + "/dev";
        out.sysRoot = info.value("deviceRoot", "") + "/sys";
        if (!request.timeScale) out.timeScale = info.value("timeScale", 1.0);
        if (env("ALIBABA_CLOUD_METADATA_ENDPOINT").empty())
            SetEnv("ALIBABA_CLOUD_METADATA_ENDPOINT", info.value("metadataEndpoint", endpoint));
        if (env("ALIBABA_CLOUD_BRIDGE_TIME_SCALE").empty())
            SetEnv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", ScaleText(out.timeScale));
    }
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
