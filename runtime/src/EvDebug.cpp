// The framework's logging entry points over the runtime's log sink (format in LogSink.h).
#include "EvDebug.h"

#include "LogSink.h"
#include "hxruntime/HostApi.h"

EvEvent::EvEvent() = default;
EvEvent::~EvEvent() = default;

long long EvEvent::getJobId() const { return hxruntime::GetJobId(); }

std::string EvDebug::getApplicationName() { return hxruntime::GetApplicationName(); }

// Error lines (level 0) pass at every verbosity; DebugLvl(n) passes when n <= verbosity.
bool EvDebug::IsLevelEnabled(int level) { return level <= hxruntime::GetLogVerbosity(); }

void EvDebug::Write(EvLogKind kind, int level, const char* tag, const std::string& text) {
    bool error = kind == EvLogKind::Error;
    // Debug() calls Write without asking IsLevelEnabled first, so the filter lives here too.
    if (!error && !IsLevelEnabled(level)) return;
    hxruntime::detail::EmitLogLine(error, level, tag, text);
}
