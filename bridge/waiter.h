// Bounded polling for ECS's asynchronous operations.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace hxbridge {

// Time as the waiters see it; tests inject a fake that advances on sleep.
struct TimeSource {
    std::function<std::chrono::steady_clock::time_point()> now;
    std::function<void(std::chrono::milliseconds)> sleep;
    static TimeSource Real();
};

// Poll intervals start at `initial` and grow by `factor` up to `maxInterval` (ECS asks for
// 1-2 s between polls once settled). `timeout` bounds the whole wait.
struct PollSchedule {
    std::chrono::milliseconds initial{250};
    double factor = 1.6;
    std::chrono::milliseconds maxInterval{2000};
    std::chrono::milliseconds timeout{std::chrono::minutes(5)};
    // Pause before the first probe. An operation the caller has just started is never
    // finished when its request returns, so probing at once only costs a call; zero probes
    // at once (state that may already hold, a deletion ECS applies at once).
    std::chrono::milliseconds firstProbe{0};

    // Every duration multiplied by `scale` (> 0; a time-scaled emulator runs faster), each
    // kept at 1 ms or more.
    PollSchedule Scaled(double scale) const;
};

// `schedule` with its first probe at once (for a wait on state that may already hold).
inline PollSchedule ProbeAtOnce(PollSchedule schedule) {
    schedule.firstProbe = std::chrono::milliseconds(0);
    return schedule;
}

// Calls `probe` until it returns true: after `firstProbe` (at once when zero), then after
// each interval. An exception of
// `probe` ends the wait and propagates. When `timeout` runs out first, throws
// ApiError(Timeout, "WaitTimeout", "<what> did not happen within N s").
void WaitUntil(const PollSchedule& schedule, const TimeSource& time, const std::function<bool()>& probe,
               const std::string& what);

}  // namespace hxbridge
