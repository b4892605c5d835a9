// `hxagent sim`: the emulator in the foreground until Ctrl-C, for use by other hxagent runs
// (or any ECS client) through the environment variables it prints.
#pragma once

#include <cstdint>
#include <string>

namespace hxagent {

struct SimRequestOptions {
    std::uint16_t port = 0;
    std::string stateDir;
    std::string scenario;
    double timeScale = 0.01;
    bool json = false;
};

int RunSim(const SimRequestOptions& options);

}  // namespace hxagent
