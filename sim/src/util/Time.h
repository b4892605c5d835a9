// Wall-clock timestamps as the API writes them (UTC ISO 8601).
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace hxsim::timefmt {

using WallTime = std::chrono::system_clock::time_point;

// "2024-05-01T10:22:32Z" (withSeconds) or "2024-05-01T10:22Z" (the minute precision
// that instance listings use).
std::string Iso8601(WallTime t, bool withSeconds = true);

// Accepts "YYYY-MM-DDTHH:MM:SSZ", optionally with fractional seconds, and
// "YYYY-MM-DDTHH:MMZ". Returns nullopt for anything else.
std::optional<WallTime> ParseIso8601(std::string_view s);

}  // namespace hxsim::timefmt
