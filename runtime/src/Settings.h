// Internal view of the host's settings (see hxruntime/HostApi.h for the public side).
#pragma once

#include <cstdint>
#include <string>

namespace hxruntime::detail {

// Job id reported while the host has set none.
constexpr long long kNoJobId = -123456;

// A consistent copy of everything the log sink needs for one line.
struct LogSettings {
    std::string directory;    // "" = no log file
    std::string application;  // file-name prefix
    long long jobId = kNoJobId;
    bool echo = false;
    std::uint64_t maxBytes = 0;
    int keepFiles = 0;
};
LogSettings CurrentLogSettings();

// <directory>/<application>-job-<jobId>.log, or <directory>/<application>.log without a
// job; "" when there is no directory.
std::string LogFilePathFor(const LogSettings& s);

}  // namespace hxruntime::detail
