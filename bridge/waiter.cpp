#include "waiter.h"

#include <algorithm>
#include <thread>

#include "api_error.h"

namespace hxbridge {

TimeSource TimeSource::Real() {
    return {[] { return std::chrono::steady_clock::now(); },
            [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); }};
}

PollSchedule PollSchedule::Scaled(double scale) const {
    auto s = [scale](std::chrono::milliseconds d) {
        return std::chrono::milliseconds(std::max<long long>(1, static_cast<long long>(d.count() * scale)));
    };
    PollSchedule out = *this;
    out.initial = s(initial);
    out.maxInterval = s(maxInterval);
    out.timeout = s(timeout);
    if (firstProbe.count() > 0) out.firstProbe = s(firstProbe);
    return out;
}

void WaitUntil(const PollSchedule& schedule, const TimeSource& time, const std::function<bool()>& probe,
               const std::string& what) {
    const auto deadline = time.now() + schedule.timeout;
    auto interval = schedule.initial;
    if (schedule.firstProbe.count() > 0) time.sleep(std::min(schedule.firstProbe, schedule.timeout));
    for (;;) {
        if (probe()) return;
        const auto now = time.now();
        if (now >= deadline) break;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
        time.sleep(std::min(interval, std::max(left, std::chrono::milliseconds(1))));
        interval = std::min(schedule.maxInterval,
                            std::chrono::milliseconds(static_cast<long long>(interval.count() * schedule.factor)));
    }
    const auto secs = std::chrono::duration_cast<std::chrono::duration<double>>(schedule.timeout).count();
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", secs);
    throw ApiError(ApiError::Kind::Timeout, "WaitTimeout", what + " did not happen within " + buf + " s");
}

}  // namespace hxbridge
