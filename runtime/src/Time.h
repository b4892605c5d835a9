// Sleeping under the host's time scale and cancel flag.
#pragma once

#include <cstdint>

namespace hxruntime::detail {

// Real-time granularity of cancellable waits: a raised cancel flag ends a wait within this.
constexpr std::uint32_t kCancelPollMs = 50;

// Sleeps `milliseconds` of real time, in slices of at most kCancelPollMs. Returns false when
// the cancel flag was raised before or during the wait (the wait then ends early), true
// when the whole time elapsed.
bool SleepRealMs(double milliseconds);

// SleepRealMs(milliseconds * time scale).
bool SleepScaledMs(double milliseconds);

}  // namespace hxruntime::detail
