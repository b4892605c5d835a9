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

    // Every duration multiplied by `scale` (> 0; a time-scaled emulator runs faster), each
    // kept at 1 ms or more.
    PollSchedule Scaled(double scale) const;
};

// Calls `probe` until it returns true: at once, then after each interval. An exception of
// `probe` ends the wait and propagates. When `timeout` runs out first, throws
// ApiError(Timeout, "WaitTimeout", "<what> did not happen within N s").
void WaitUntil(const PollSchedule& schedule, const TimeSource& time, const std::function<bool()>& probe,
               const std::string& what);

}  // namespace hxbridge
