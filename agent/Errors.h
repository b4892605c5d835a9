// Exit statuses and the one-line error a person can act on.
#pragma once

#include <string>

#include "VMInfo.h"

namespace hxagent {

enum ExitStatus : int {
    kExitOk = 0,
    kExitPluginFailed = 1,  // a plug-in operation failed; its code is printed
    kExitUsage = 2,         // bad command line or configuration
    kExitLocal = 3,         // local failure: files, checksums, loading the plug-in
    kExitCancelled = 130,   // stopped by Ctrl-C / SIGTERM
};

struct JobFailure {
    ExitStatus status = kExitLocal;
    std::string operation;  // plug-in operation that failed, e.g. "MountVM"; empty for local failures
    std::uint32_t code = 0; // EVMInfoError
    std::string message;    // what failed, in words
    std::string details;    // the plug-in's details or the system's reason
};

// Captures the plug-in's last error after `operation` failed.
JobFailure PluginFailure(CVMInfo& vm, const std::string& operation, const std::string& message);
JobFailure LocalFailure(const std::string& message, ExitStatus status = kExitLocal);

// "backup of i-x failed in MountVM: error 178 (zone mismatch text): details. Hint." in one line.
std::string FormatFailure(const JobFailure& f);
// What to do about a code, when there is something to say; may be empty.
std::string HintFor(std::uint32_t code);

}  // namespace hxagent
