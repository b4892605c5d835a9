// Linked instead of BuiltInEmulator.cpp and SimCommand.cpp in a build without the emulator.
#include <iostream>

#include "BuiltInEmulator.h"
#include "Errors.h"
#include "SimCommand.h"

namespace hxagent {

bool HasBuiltInEmulator() { return false; }

// Never called with an emulator: this build cannot make one.
void EmulatorStop::operator()(hxsim::Emulator*) const {}

bool StartBuiltInEmulator(double, const std::string&, const std::string&, EmulatorHandle&, EmbeddedWorld&,
                          std::string& error) {
    error = kNoEmulatorMessage;
    return false;
}

int RunSim(const SimRequestOptions&) {
    std::cerr << "hxagent: error: " << kNoEmulatorMessage << std::endl;
    return kExitUsage;
}

}  // namespace hxagent
