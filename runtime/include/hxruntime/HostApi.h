// The host's handle on libhxframework.so: the settings a host program (hxagent, a test, a
// demo) gives the framework runtime before and while it drives a plug-in.
//
// Every function is thread-safe, never throws and may be called at any time; a setting
// takes effect for the next operation that reads it (the next log line, the next sleep, the
// next VMCleaner::Init, the next disk-mapper call). Functions that validate their input
// return false and keep the previous value when it is refused.
//
// Defaults (nothing configured):
//   log folder        none: no log file; Error lines still go to stderr
//   verbosity         2 (DebugLvl(n) lines with n <= 2; Debug lines count as level 1)
//   stderr echo       off
//   log rotation      a file is rotated at 16 MiB, 4 rotated files kept (<file>.1 .. <file>.4)
//   state folder      $XDG_STATE_HOME/hxagent, else $HOME/.local/state/hxagent, else /var/lib/hxagent
//   cleaner database  <state folder>/cleaner.db
//   device roots      "/dev" and "/sys"
//   attach wait       60000 ms of real time (not scaled); detach wait 10000 ms (not scaled)
//   time scale        1.0
//   job id            none (EvEvent::getJobId() gives -123456)
//   application/focus "hxagent" / "hxagent"
//   cancel flag       clear
#pragma once

#include <cstdint>
#include <string>

namespace hxruntime {

// ---- Logging ----
// One line per EvDebug record (details in runtime/src/LogSink.h):
//   2025-11-21T19:30:01.123+0800 <pid> <tid> <job id or -> <ERROR|DEBUGn> [<tag>] <text>
// in <log folder>/<application>-job-<job id>.log (<application>.log without a job).
// Folder of the log files; created (with parents, mode 0700) when missing. An empty path
// turns file logging off. False when the folder cannot be created.
bool SetLogDirectory(const std::string& folder);
std::string GetLogDirectory();
// Highest DebugLvl level written; clamped to 0..9. Error lines are written at any verbosity.
void SetLogVerbosity(int level);
int GetLogVerbosity();
// Whether every written line is also copied to stderr.
void SetLogEcho(bool on);
// Rotation bounds: a file that would exceed `maxBytes` is renamed to <file>.1 (older ones
// shift up, the oldest beyond `keepFiles` is removed). False (unchanged) when maxBytes <
// 4096 or keepFiles is outside 0..100.
bool SetLogRotation(std::uint64_t maxBytes, int keepFiles);
// Full path of the file the next line would go to ("" when file logging is off). The file
// itself is created by the first line written to it.
std::string GetLogFilePath();
// Closes the open log file (the next line reopens it). Lets a host hand the file over.
void CloseLog();

// ---- Job ----
// Job id reported by EvEvent::getJobId() and written in every line; also selects the log
// file. A negative id other than -123456 is refused (false).
bool SetJobId(long long jobId);
// Back to "no job" (-123456).
void ClearJobId();
long long GetJobId();
// Name reported by EvDebug::getApplicationName() and used in the log file name. Letters,
// digits, '.', '_' and '-' only, 1..64 characters; false otherwise.
bool SetApplicationName(const std::string& name);
std::string GetApplicationName();
// Name reported by HXPI_Focus::getFocus(). Any non-empty text up to 256 bytes.
bool SetFocusName(const std::string& name);
std::string GetFocusName();

// ---- Cancellation ----
// Raises / clears the cancel flag that CVMInfo::IsJobCancelled() reports. RaiseCancel is
// one atomic store and is async-signal-safe, so a SIGINT handler may call it directly.
// A raised flag also cuts short the runtime's sleeps and the disk mapper's waits.
void RaiseCancel();
void ClearCancel();
bool IsCancelRaised();

// ---- Process identity ----
// A text naming the calling process for as long as it runs, "<pid>.<start ticks>.<boot id>"
// (a pid alone is reused; see ProcessIdentity.h). Hosts tag what a job creates with it.
std::string CurrentProcessTag();
// Whether the process a tag of CurrentProcessTag names is still running on this machine.
// False for a malformed tag, a finished process, a reused pid or a tag of an earlier boot.
bool IsProcessTagRunning(const std::string& tag);

// ---- Time ----
// Factor applied to FXThread::Sleep and ZUSLEEP: 1 = real time, 0.001 = a 20 s wait takes
// 20 ms, 0 = sleeps return at once. False (unchanged) outside 0..1000 or for NaN.
bool SetTimeScale(double scale);
double GetTimeScale();

// ---- State ----
// Folder for the runtime's persistent files (the default cleaner database lives here).
bool SetStateDirectory(const std::string& folder);
std::string GetStateDirectory();
// Explicit path of the cleaner's SQLite database; "" returns to <state folder>/cleaner.db.
void SetCleanerDatabasePath(const std::string& path);
std::string GetCleanerDatabasePath();

// ---- Disk mapper ----
// Roots under which the disk mapper looks for attached disks: <devRoot>/disk/by-id/... and
// <sysRoot>/block/... Empty strings restore "/dev" and "/sys".
void SetDeviceRoots(const std::string& devRoot, const std::string& sysRoot);
std::string GetDeviceRoot();
std::string GetSysRoot();
// Longest real-time waits of the disk mapper, in milliseconds (not scaled by the time scale:
// devices appear at the kernel's pace). Clamped to 0..3600000.
void SetAttachWaitMs(std::uint32_t ms);
void SetDetachWaitMs(std::uint32_t ms);
std::uint32_t GetAttachWaitMs();
std::uint32_t GetDetachWaitMs();

}  // namespace hxruntime
