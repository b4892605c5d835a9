// The host's settings: one process-wide record. Hot values (verbosity, job id, cancel flag,
// time scale, waits) are lock-free atomics; strings sit behind one mutex. The record is
// never destroyed, so a log line written from a static destructor still finds it.
#include "Settings.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <mutex>

#include "FsUtil.h"
#include "hxruntime/HostApi.h"

namespace hxruntime {

namespace {

using detail::kNoJobId;

std::atomic<int> g_verbosity{2};
std::atomic<long long> g_jobId{kNoJobId};
std::atomic<bool> g_cancel{false};
std::atomic<double> g_timeScale{1.0};
std::atomic<std::uint32_t> g_attachWaitMs{60000};
std::atomic<std::uint32_t> g_detachWaitMs{10000};
std::atomic<bool> g_echo{false};
static_assert(std::atomic<bool>::is_always_lock_free, "RaiseCancel must be async-signal-safe");

constexpr std::uint32_t kMaxWaitMs = 3600000;

struct Strings {
    std::mutex mu;
    std::string logDir;
    std::string stateDir;  // "" = default
    std::string cleanerDb;  // "" = <state>/cleaner.db
    std::string devRoot = "/dev";
    std::string sysRoot = "/sys";
    std::string application = "hxagent";
    std::string focus = "hxagent";
    std::uint64_t rotateBytes = 16ull << 20;
    int keepFiles = 4;
};

Strings& S() {
    static Strings* s = new Strings;  // intentionally never destroyed
    return *s;
}

std::string DefaultStateDirectory() {
    if (const char* x = std::getenv("XDG_STATE_HOME"); x && *x == '/') return std::string(x) + "/hxagent";
    if (const char* h = std::getenv("HOME"); h && *h == '/') return std::string(h) + "/.local/state/hxagent";
    return "/var/lib/hxagent";
}

bool ValidApplicationName(const std::string& n) {
    if (n.empty() || n.size() > 64) return false;
    for (char c : n) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                  c == '_' || c == '-';
        if (!ok) return false;
    }
    return n != "." && n != "..";
}

}  // namespace

// ---- Logging ----
bool SetLogDirectory(const std::string& folder) {
    try {
        if (!folder.empty() && !detail::MakeDirectories(folder, 0700)) return false;
        std::lock_guard lock(S().mu);
        S().logDir = folder;
        return true;
    } catch (...) {
        return false;
    }
}

std::string GetLogDirectory() {
    try {
        std::lock_guard lock(S().mu);
        return S().logDir;
    } catch (...) {
        return {};
    }
}

void SetLogVerbosity(int level) { g_verbosity.store(level < 0 ? 0 : level > 9 ? 9 : level); }
int GetLogVerbosity() { return g_verbosity.load(); }
void SetLogEcho(bool on) { g_echo.store(on); }

bool SetLogRotation(std::uint64_t maxBytes, int keepFiles) {
    if (maxBytes < 4096 || keepFiles < 0 || keepFiles > 100) return false;
    try {
        std::lock_guard lock(S().mu);
        S().rotateBytes = maxBytes;
        S().keepFiles = keepFiles;
        return true;
    } catch (...) {
        return false;
    }
}

std::string GetLogFilePath() {
    try {
        return detail::LogFilePathFor(detail::CurrentLogSettings());
    } catch (...) {
        return {};
    }
}

// ---- Job ----
bool SetJobId(long long jobId) {
    if (jobId < 0 && jobId != kNoJobId) return false;
    g_jobId.store(jobId);
    return true;
}
void ClearJobId() { g_jobId.store(kNoJobId); }
long long GetJobId() { return g_jobId.load(); }

bool SetApplicationName(const std::string& name) {
    if (!ValidApplicationName(name)) return false;
    try {
        std::lock_guard lock(S().mu);
        S().application = name;
        return true;
    } catch (...) {
        return false;
    }
}

std::string GetApplicationName() {
    try {
        std::lock_guard lock(S().mu);
        return S().application;
    } catch (...) {
        return {};
    }
}

std::string GetFocusName() {
    try {
        std::lock_guard lock(S().mu);
        return S().focus;
    } catch (...) {
        return {};
    }
}

bool SetFocusName(const std::string& name) {
    if (name.empty() || name.size() > 256) return false;
    try {
        std::lock_guard lock(S().mu);
        S().focus = name;
        return true;
    } catch (...) {
        return false;
    }
}

// ---- Cancellation ----
void RaiseCancel() { g_cancel.store(true); }
void ClearCancel() { g_cancel.store(false); }
bool IsCancelRaised() { return g_cancel.load(); }

// ---- Time ----
bool SetTimeScale(double scale) {
    if (!(scale >= 0.0 && scale <= 1000.0)) return false;  // also refuses NaN
    g_timeScale.store(scale);
    return true;
}
double GetTimeScale() { return g_timeScale.load(); }

// ---- State ----
bool SetStateDirectory(const std::string& folder) {
    try {
        std::lock_guard lock(S().mu);
        S().stateDir = folder;
        return true;
    } catch (...) {
        return false;
    }
}

std::string GetStateDirectory() {
    try {
        std::string dir;
        {
            std::lock_guard lock(S().mu);
            dir = S().stateDir;
        }
        return dir.empty() ? DefaultStateDirectory() : dir;
    } catch (...) {
        return {};
    }
}

void SetCleanerDatabasePath(const std::string& path) {
    try {
        std::lock_guard lock(S().mu);
        S().cleanerDb = path;
    } catch (...) {
    }
}

std::string GetCleanerDatabasePath() {
    try {
        std::string db;
        {
            std::lock_guard lock(S().mu);
            db = S().cleanerDb;
        }
        return db.empty() ? GetStateDirectory() + "/cleaner.db" : db;
    } catch (...) {
        return {};
    }
}

// ---- Disk mapper ----
void SetDeviceRoots(const std::string& devRoot, const std::string& sysRoot) {
    try {
        std::lock_guard lock(S().mu);
        S().devRoot = devRoot.empty() ? "/dev" : devRoot;
        S().sysRoot = sysRoot.empty() ? "/sys" : sysRoot;
    } catch (...) {
    }
}

std::string GetDeviceRoot() {
    try {
        std::lock_guard lock(S().mu);
        return S().devRoot;
    } catch (...) {
        return {};
    }
}

std::string GetSysRoot() {
    try {
        std::lock_guard lock(S().mu);
        return S().sysRoot;
    } catch (...) {
        return {};
    }
}

void SetAttachWaitMs(std::uint32_t ms) { g_attachWaitMs.store(ms > kMaxWaitMs ? kMaxWaitMs : ms); }
void SetDetachWaitMs(std::uint32_t ms) { g_detachWaitMs.store(ms > kMaxWaitMs ? kMaxWaitMs : ms); }
std::uint32_t GetAttachWaitMs() { return g_attachWaitMs.load(); }
std::uint32_t GetDetachWaitMs() { return g_detachWaitMs.load(); }

namespace detail {

LogSettings CurrentLogSettings() {
    LogSettings s;
    {
        std::lock_guard lock(S().mu);
        s.directory = S().logDir;
        s.application = S().application;
        s.maxBytes = S().rotateBytes;
        s.keepFiles = S().keepFiles;
    }
    s.jobId = g_jobId.load();
    s.echo = g_echo.load();
    return s;
}

std::string LogFilePathFor(const LogSettings& s) {
    if (s.directory.empty()) return {};
    std::string base = s.directory;
    if (base.back() != '/') base += '/';
    if (s.jobId == kNoJobId) return base + s.application + ".log";
    return base + s.application + "-job-" + std::to_string(s.jobId) + ".log";
}

}  // namespace detail

}  // namespace hxruntime
