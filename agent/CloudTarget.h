// Which cloud hxagent talks to, decided once per command before any plug-in is loaded:
//
//   embedded   nothing configured (no ALIBABA_CLOUD_ECS_ENDPOINT, no credentials), or
//              --embedded: hxagent starts the built-in emulator on loopback and points the
//              bridge at it. This is the default.
//   emulator   ALIBABA_CLOUD_ECS_ENDPOINT is a loopback URL whose /_sim/info answers (an
//              `hxagent sim` or ecs-sim started elsewhere): its device root and time scale
//              are taken from there.
//   cloud      credentials (and maybe an endpoint) configured: the real ECS API.
//
// The bridge reads its settings from the environment when the plug-in connects, so this
// sets ALIBABA_CLOUD_ECS_ENDPOINT, ALIBABA_CLOUD_METADATA_ENDPOINT,
// ALIBABA_CLOUD_BRIDGE_TIME_SCALE and ALIBABA_CLOUD_SECURITY_TOKEN as needed before that.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Credentials.h"
#include "hxsim/Emulator.h"

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

struct CloudTarget {
    CloudKind kind = CloudKind::Embedded;
    CloudCredentials credentials;
    std::string endpoint;        // ECS API base URL; empty = the bridge's regional default
    std::string devRoot, sysRoot;// for the runtime's disk mapper; empty = /dev, /sys
    double timeScale = 1.0;
    std::unique_ptr<hxsim::Emulator> emulator;  // the embedded one, when running
    std::string Describe() const;               // one line, no secret
};

// Embedded default time scale: a 20 s poll takes 0.2 s.
inline constexpr double kEmbeddedTimeScale = 0.01;

bool PrepareCloudTarget(const CloudRequest& request, const EnvLookup& env, CloudTarget& out, std::string& error);

}  // namespace hxagent
