// The framework's logging facility.
//
// Every line carries a tag (by convention the full signature of the writing function), a
// level and a printf-style text (see LogArg.h for the safe formatting rules). Levels:
// Error lines are always written; Debug lines are level 1; DebugLvl(n) lines are written
// when n is at most the configured verbosity. Where the lines go (a per-job file, stderr)
// is the framework's deployment choice. Thread-safe; never throws.
#pragma once

#include <cstdint>
#include <string>

#include "LogArg.h"

enum class EvLogKind { Debug, Error };

// The logging context of a plug-in object; the source of the job id.
class EvEvent {
public:
    EvEvent();
    virtual ~EvEvent();
    // Job id of the running job as the framework knows it; -123456 when none is set.
    long long getJobId() const;
};

class EvDebug : public EvEvent {
public:
    template <class... A>
    void Debug(const char* tag, const char* fmt, const A&... args) {
        Write(EvLogKind::Debug, 1, tag, FormatWithArgs(fmt, {LogArg(args)...}));
    }
    template <class... A>
    void DebugLvl(const char* tag, int level, const char* fmt, const A&... args) {
        if (IsLevelEnabled(level)) Write(EvLogKind::Debug, level, tag, FormatWithArgs(fmt, {LogArg(args)...}));
    }
    template <class... A>
    void Error(const char* tag, const char* fmt, const A&... args) {
        Write(EvLogKind::Error, 0, tag, FormatWithArgs(fmt, {LogArg(args)...}));
    }

    // Name of the application the framework runs in (e.g. "hxagent").
    static std::string getApplicationName();
    // Whether lines of `level` would be written; lets callers skip expensive formatting.
    static bool IsLevelEnabled(int level);
    // Writes one formatted line.
    static void Write(EvLogKind kind, int level, const char* tag, const std::string& text);
};
