// `hxagent demo`: the whole story on the built-in emulator. Starts it, backs up an instance
// with several disks, restores it under a new name, compares every restored disk byte for
// byte with its source (through the emulator's disk files), checks that no snapshot, image
// or temporary disk is left and that the cleaner store is empty, and prints a summary.
// Exit 0 only when all of that holds.
#pragma once

#include <string>

#include "Session.h"

namespace hxagent {

struct DemoOptions {
    std::string instance = "app-01";
    std::string restoreName;  // default: <instance>-restored
    std::string destination;  // default: <state>/backups
    std::string repository;   // default: <state>/repository
};

int RunDemo(const GlobalOptions& options, const DemoOptions& demo);

}  // namespace hxagent
