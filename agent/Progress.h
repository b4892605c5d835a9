// What a person (or a script) sees while a job runs.
//
// Three styles: a redrawn bar with rate and ETA when stderr is a terminal, plain lines
// otherwise (one per step and at most one every few seconds per copy), and in --json mode
// one JSON object per line (NDJSON) per event, so a script can follow a job while stdout
// keeps the single result document printed at the end. Every NDJSON line has "event"
// (step | note | begin | progress | end) and "time" (UTC, ISO-8601 with milliseconds);
// step and note carry "message"; begin, progress and end carry "label", "done" and
// "total" (bytes); end carries "ok". A copy reports progress at most once a second.
// Progress goes to stderr; results go to stdout. Thread-safe: a copy may report from a
// worker thread while the job's thread writes steps.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace hxagent {

enum class OutputStyle { Terminal, Plain, Json };

// Picks Terminal or Plain from stderr, unless json is set.
OutputStyle DetectOutputStyle(bool json);

// "1.5 GiB", "512 KiB", "17 B" (binary units, one decimal).
std::string FormatBytes(std::uint64_t bytes);
// "0:07", "12:03", "1:02:03".
std::string FormatDuration(double seconds);
// One progress line: "<label> [#####     ]  50%  1.0 GiB/2.0 GiB  250.0 MiB/s  ETA 0:04".
// The bar is `barWidth` characters; rate and ETA are left out while elapsed is under 0.1 s.
std::string FormatProgressLine(const std::string& label, std::uint64_t done, std::uint64_t total, double elapsed,
                               int barWidth);

class Progress {
public:
    explicit Progress(OutputStyle style) : style_(style) {}
    OutputStyle style() const { return style_; }
    // A step of the job ("Snapshotting and preparing disks of i-..."), one line.
    void Step(const std::string& text);
    // A copy of `total` bytes starts / advances / ends.
    void Begin(const std::string& label, std::uint64_t total);
    void Update(std::uint64_t done);
    void End(bool ok);
    // A warning or note that must be seen in every style except json (stderr).
    void Note(const std::string& text);

private:
    // One NDJSON line on stderr (json style only).
    void Emit(const char* event, nlohmann::json fields);

    OutputStyle style_;
    std::mutex mutex_;
    std::string label_;
    std::uint64_t total_ = 0, done_ = 0;
    std::chrono::steady_clock::time_point started_{}, lastDraw_{};
};

}  // namespace hxagent
