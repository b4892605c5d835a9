// Where EvDebug lines go: the per-job log file in the host's log folder, and stderr.
//
// Line format (one record per line, terminated by '\n'):
//
//   <timestamp> <pid> <tid> <job> <level> [<tag>] <text>
//   2025-11-21T19:30:01.123+0800 4711 4713 42 DEBUG2 [virtual int CAliCloudInfo::Init()] Focus [hxagent].
//
//   timestamp  local time, ISO 8601 with milliseconds and the numeric UTC offset
//   pid, tid   process id and kernel thread id of the writer
//   job        the job id set by the host, "-" when none is set
//   level      ERROR for Error lines, DEBUG<n> for Debug (n = 1) and DebugLvl(n) lines
//   tag        the writer's tag (a function signature); it ends at the first "] "
//   text       the formatted message
// A record never spans lines: in tag and text a line feed is written as the two characters
// "\n", a carriage return as "\r", other control bytes as '?'; line breaks at the end of
// the text are dropped.
//
// File: <log folder>/<application>-job-<job id>.log (or <application>.log without a job),
// created with mode 0600 on the first line. Each line is one write() on an O_APPEND file
// under an exclusive flock, so several threads and processes can share a file. When a line
// would take the file past the rotation size, the file becomes <file>.1 (older rotations
// shift up to <file>.<keep>, the oldest is removed) and a new file is started.
// Without a log folder (or when the file cannot be written) Error lines go to stderr and
// the other lines are dropped; with echo on, every written line is also copied to stderr. Write failures are swallowed: logging never fails
// the caller and never throws.
#pragma once

#include <ctime>
#include <string>

namespace hxruntime::detail {

// Formats one record as described above, including the final '\n'.
std::string FormatLogLine(const timespec& when, long pid, long tid, long long jobId, bool error, int level,
                          const char* tag, const std::string& text);

// Writes one record with the current time, process, thread and settings.
void EmitLogLine(bool error, int level, const char* tag, const std::string& text);

}  // namespace hxruntime::detail
