// Bounded polling with a fake clock that advances only when the waiter sleeps.
#include <gtest/gtest.h>

#include "api_error.h"
#include "waiter.h"

using namespace hxbridge;
using std::chrono::milliseconds;

namespace {

struct FakeTime {
    std::chrono::steady_clock::time_point now{};
    std::vector<milliseconds> sleeps;
    TimeSource Source() {
        return {[this] { return now; }, [this](milliseconds d) {
                    sleeps.push_back(d);
                    now += d;
                }};
    }
};

TEST(Waiter, PollsFastFirstThenBacksOffToTheCap) {
    FakeTime t;
    int calls = 0;
    PollSchedule s{milliseconds(250), 2.0, milliseconds(2000), std::chrono::minutes(1)};
    WaitUntil(s, t.Source(), [&] { return ++calls == 6; }, "x");
    EXPECT_EQ(calls, 6);
    EXPECT_EQ(t.sleeps, (std::vector<milliseconds>{milliseconds(250), milliseconds(500), milliseconds(1000),
                                                     milliseconds(2000), milliseconds(2000)}));
}

TEST(Waiter, TimesOutAfterTheBoundWithADescriptiveError) {
    FakeTime t;
    int calls = 0;
    PollSchedule s{milliseconds(100), 1.5, milliseconds(1000), milliseconds(5000)};
    try {
        WaitUntil(s, t.Source(), [&] { ++calls; return false; }, "disk d-1 becoming Available");
        FAIL();
    } catch (const ApiError& e) {
        EXPECT_EQ(e.kind(), ApiError::Kind::Timeout);
        EXPECT_EQ(e.Describe(), "WaitTimeout: disk d-1 becoming Available did not happen within 5.0 s");
    }
    // Never sleeps past the deadline, and probes once more at it.
    EXPECT_EQ(t.now - std::chrono::steady_clock::time_point{}, milliseconds(5000));
    EXPECT_GT(calls, 5);
}

TEST(Waiter, AProbeFailureEndsTheWait) {
    FakeTime t;
    PollSchedule s;
    EXPECT_THROW(WaitUntil(s, t.Source(), []() -> bool { throw ApiError(ApiError::Kind::Service, "X", "y"); }, "x"),
                 ApiError);
    EXPECT_TRUE(t.sleeps.empty());
}

}  // namespace
