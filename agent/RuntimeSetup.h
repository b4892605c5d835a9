// Settings hxagent gives the framework runtime (libhxframework.so) before the plug-in runs.
#pragma once

#include <string>

namespace hxagent {

struct RuntimeConfig {
    std::string stateDir;   // cleaner database lives here (cleaner.db)
    std::string logDir;     // per-job log files
    int verbosity = 2;      // 0..9
    bool echo = false;      // copy log lines to stderr
    double timeScale = 1.0; // runtime sleeps
    long long jobId = 0;    // > 0
    std::string devRoot;    // "" = /dev
    std::string sysRoot;    // "" = /sys
};

// Applies every setting; false with `error` naming the refused one.
bool ApplyRuntimeConfig(const RuntimeConfig& config, std::string& error);

}  // namespace hxagent
