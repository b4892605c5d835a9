// ISO-8601 time text, one formatter for every component.
#pragma once

#include <chrono>
#include <string>

namespace hxutil {

enum class IsoPrecision { Minutes, Seconds, Millis };

// UTC: "2026-11-22T18:40Z", "2026-11-22T18:40:05Z" or "2026-11-22T18:40:05.123Z".
std::string IsoUtc(std::chrono::system_clock::time_point t, IsoPrecision precision = IsoPrecision::Seconds);
// Local time with milliseconds and the UTC offset: "2026-11-22T19:40:05.123+0100" (log lines,
// read by a person on this machine).
std::string IsoLocalMillis(std::chrono::system_clock::time_point t);
// The compact UTC form used in folder names: "20261122T184005Z".
std::string CompactUtc(std::chrono::system_clock::time_point t);

}  // namespace hxutil
