// Which cloud hxagent talks to, decided once per command before any plug-in is loaded:
//
//   embedded   --embedded (and the demo and sim commands): hxagent starts the built-in
//              emulator on loopback and points the bridge at it. Never a silent default:
//              a command that finds no credentials anywhere fails with one line naming
//              what to set, so nobody mistakes the emulator's answers for their cloud's.
//   emulator   ALIBABA_CLOUD_ECS_ENDPOINT is a loopback URL whose /_sim/info answers (an
//              `hxagent sim` or ecs-sim started elsewhere): its device root, time scale and
//              metadata service are taken from there.
//   cloud      credentials (and maybe an endpoint) configured: the real ECS API.
//
// Credentials: static keys (environment, profile modes AK and StsToken) go to the plug-in's
// Connect as before. Every other source, the instance's RAM role found through the
// metadata service included, is resolved by the bridge's own credentials chain, which
// refreshes temporary credentials before they expire: hxagent then sets
// ALIBABA_CLOUD_BRIDGE_CREDENTIALS=chain and passes kChainUserName and a fixed non-secret
// placeholder as user name and password (the plug-in requires both to be non-empty).
//
// The bridge reads its settings from the environment when the plug-in connects, so this
// sets ALIBABA_CLOUD_ECS_ENDPOINT, ALIBABA_CLOUD_METADATA_ENDPOINT,
// ALIBABA_CLOUD_BRIDGE_TIME_SCALE, ALIBABA_CLOUD_SECURITY_TOKEN and
// ALIBABA_CLOUD_BRIDGE_CREDENTIALS as needed before that.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "BuiltInEmulator.h"
#include "Credentials.h"

namespace hxagent {

enum class CloudKind { Embedded, Emulator, Cloud };

struct CloudRequest {
    bool forceEmbedded = false;
    std::string profile;             // --profile
    std::optional<double> timeScale; // --time-scale
    std::string emulatorStateDir;    // for the embedded emulator's files
    std::string scenarioFile;        // embedded emulator's world; empty = built-in
    std::string deviceRoot;          // --device-root: where attached disks appear ("" = derived)
};

inline constexpr const char* kChainUserName = "credentials-chain";
inline constexpr const char* kChainPassword = "refreshed-by-the-bridge";

struct CloudTarget {
    CloudKind kind = CloudKind::Embedded;
    CloudCredentials credentials;
    std::string endpoint;        // ECS API base URL; empty = the bridge's regional default
    std::string region;          // the configured or the proxy's region; empty = not known yet
    std::string devRoot, sysRoot;// for the runtime's disk mapper; empty = /dev, /sys
    double timeScale = 1.0;
    EmulatorHandle emulator;                    // the embedded one, when running
    std::string Describe() const;               // one line, no secret
    // {"kind": "built-in emulator"|"emulator"|"cloud", "endpoint", "region", "credentials"}:
    // the same facts for JSON output; no secret.
    nlohmann::json DescribeJson() const;

private:
    std::string EndpointText() const;
    std::string CredentialText() const;
};

// Embedded default time scale: a 20 s poll takes 0.2 s.
inline constexpr double kEmbeddedTimeScale = 0.01;

bool PrepareCloudTarget(const CloudRequest& request, const EnvLookup& env, CloudTarget& out, std::string& error);

}  // namespace hxagent
