// The built-in ECS emulator (sim/), which hxagent starts for `demo`, `sim` and --embedded.
//
// A production build (-DHX_SKIP_COMPONENTS=sim) leaves the emulator out: then NoEmulator.cpp
// is linked instead of BuiltInEmulator.cpp and SimCommand.cpp, HasBuiltInEmulator() is
// false and every way into the emulator refuses with kNoEmulatorMessage (exit status 2).
// Nothing else in hxagent names the emulator's types, so both builds share every other file.
#pragma once

#include <memory>
#include <string>

#include "Credentials.h"

namespace hxsim {
class Emulator;
}

namespace hxagent {

bool HasBuiltInEmulator();

inline constexpr const char* kNoEmulatorMessage =
    "demo, sim and --embedded are not available in this build (it was built without the ECS emulator)";

// Stops and deletes an emulator that StartBuiltInEmulator started.
struct EmulatorStop {
    void operator()(hxsim::Emulator* emulator) const;
};
using EmulatorHandle = std::unique_ptr<hxsim::Emulator, EmulatorStop>;

// Where a started emulator answers and what it offers the host.
struct EmbeddedWorld {
    std::string endpoint;          // ECS API base URL (loopback)
    std::string metadataEndpoint;  // its instance metadata service
    std::string devRoot, sysRoot;  // for the runtime's disk mapper
    std::string region;            // the proxy's region
    CloudCredentials credentials;  // the world's demo AccessKey
};

// Starts an emulator with the given world (`scenarioFile` empty: the built-in demo world),
// disk files in `stateDir` and waits scaled by `timeScale`. On success `emulator` owns it
// and `world` says how to reach it; false with `error` otherwise (always, in a build
// without the emulator, with kNoEmulatorMessage).
bool StartBuiltInEmulator(double timeScale, const std::string& stateDir, const std::string& scenarioFile,
                          EmulatorHandle& emulator, EmbeddedWorld& world, std::string& error);

}  // namespace hxagent
