#include "settings.h"

#include <cstdlib>

#include "metadata_client.h"

namespace hxbridge {

std::string ReadEnvironment(const char* name) {
    const char* v = std::getenv(name);
    return v == nullptr ? std::string() : std::string(v);
}

namespace {
std::string Env(const char* name) { return ReadEnvironment(name); }
}  // namespace

BridgeSettings BridgeSettings::FromEnvironment() {
    BridgeSettings s;
    s.ecsEndpoint = Env("ALIBABA_CLOUD_ECS_ENDPOINT");
    s.vpcNetwork = Env("ALIBABA_CLOUD_ECS_NETWORK") == "vpc";
    s.metadataEndpoint = Env("ALIBABA_CLOUD_METADATA_ENDPOINT");
    if (s.metadataEndpoint.empty()) s.metadataEndpoint = kDefaultMetadataEndpoint;
    if (s.metadataEndpoint.rfind("http://", 0) != 0 && s.metadataEndpoint.rfind("https://", 0) != 0) {
        s.metadataEndpoint = "http://" + s.metadataEndpoint;
    }
    s.defaultRegion = Env("ALIBABA_CLOUD_REGION_ID");
    s.securityToken = Env("ALIBABA_CLOUD_SECURITY_TOKEN");
    s.debug = Env("ALIBABA_CLOUD_BRIDGE_DEBUG") == "1";
    s.credentialChain = Env("ALIBABA_CLOUD_BRIDGE_CREDENTIALS") == "chain";
    const std::string scale = Env("ALIBABA_CLOUD_BRIDGE_TIME_SCALE");
    if (!scale.empty()) {
        char* end = nullptr;
        const double v = std::strtod(scale.c_str(), &end);
        if (end != scale.c_str() && v > 0 && v <= 1) s.timeScale = v;
    }
    return s;
}

}  // namespace hxbridge
