// Fault rules: counters are consumed exactly, rates follow the seed, windows expire,
// malformed rules are refused whole.
#include <gtest/gtest.h>

#include <thread>

#include "faults/Faults.h"

namespace hxsim {
namespace {

using nlohmann::json;

TEST(Faults, FailNextAffectsExactlyNCallsOfThatAction) {
  faults::Faults f(1);
  ASSERT_EQ(f.Add({{"rules", {{{"action", "AttachDisk"}, {"failNext", 2}, {"code", "Throttling.User"}}}}}), "");
  EXPECT_FALSE(f.Decide("DetachDisk").error);
  auto first = f.Decide("AttachDisk");
  ASSERT_TRUE(first.error);
  EXPECT_EQ(first.error->code, "Throttling.User");
  EXPECT_EQ(first.error->status, 400);
  EXPECT_EQ(first.error->message, "Request was denied due to user flow control.");
  EXPECT_TRUE(f.Decide("AttachDisk").error);
  EXPECT_FALSE(f.Decide("AttachDisk").error);
  EXPECT_TRUE(f.Describe()["rules"].empty());
}

// One failed status poll inside every wait: each trigger call arms one failure, and the
// rule stays for the next trigger.
TEST(Faults, FailAfterFailsTheNextCallOnceAfterEachTrigger) {
  faults::Faults f(1);
  ASSERT_EQ(f.Add({{"rules", {{{"action", "DescribeDisks"}, {"failAfter", "CreateDisk"}, {"code", "Forbidden.RAM"}}}}}),
            "");
  EXPECT_FALSE(f.Decide("DescribeDisks").error) << "not armed before a trigger";
  EXPECT_FALSE(f.Decide("CreateDisk").error);
  auto failed = f.Decide("DescribeDisks");
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->code, "Forbidden.RAM");
  EXPECT_FALSE(f.Decide("DescribeDisks").error);
  f.Decide("CreateDisk");
  EXPECT_TRUE(f.Decide("DescribeDisks").error);
  EXPECT_NE(f.Add({{"rules", {{{"action", "*"}, {"failAfter", "CreateDisk"}}}}}), "") << "needs a named action";
}

TEST(Faults, StatusFollowsTheCodeUnlessGiven) {
  faults::Faults f(1);
  ASSERT_EQ(f.Add({{"rules",
                    {{{"action", "*"}, {"failNext", 1}, {"code", "ServiceUnavailable"}},
                     {{"action", "*"}, {"failNext", 1}, {"code", "InternalError"}},
                     {{"action", "*"}, {"failNext", 1}, {"code", "Custom"}, {"status", 409}}}}}),
            "");
  EXPECT_EQ(f.Decide("A").error->status, 503);
  EXPECT_EQ(f.Decide("A").error->status, 500);
  EXPECT_EQ(f.Decide("A").error->status, 409);
}

TEST(Faults, RatesAreSeededAndBounded) {
  auto count = [](uint64_t seed, double rate) {
    faults::Faults f(seed);
    EXPECT_EQ(f.Add({{"rules", {{{"action", "X"}, {"rate", rate}, {"code", "InternalError"}}}}}), "");
    int failures = 0;
    for (int i = 0; i < 1000; ++i) failures += f.Decide("X").error ? 1 : 0;
    return failures;
  };
  EXPECT_EQ(count(1, 0.0), 0);
  EXPECT_EQ(count(1, 1.0), 1000);
  int a = count(7, 0.3);
  EXPECT_EQ(a, count(7, 0.3)) << "same seed, same failures";
  EXPECT_GT(a, 200);
  EXPECT_LT(a, 400);
}

TEST(Faults, DropLatencyAndWindows) {
  faults::Faults f(1);
  ASSERT_EQ(f.Add({{"rules",
                    {{{"action", "CreateDisk"}, {"dropNext", 1}},
                     {{"action", "*"}, {"latencyMs", 30}},
                     {{"action", "DescribeDisks"}, {"forMs", 40}, {"code", "Throttling.User"}}}}}),
            "");
  auto d = f.Decide("CreateDisk");
  EXPECT_TRUE(d.drop);
  EXPECT_FALSE(d.error);
  EXPECT_EQ(d.latency.count(), 30);
  EXPECT_FALSE(f.Decide("CreateDisk").drop);
  EXPECT_TRUE(f.Decide("DescribeDisks").error);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_FALSE(f.Decide("DescribeDisks").error);
}

TEST(Faults, MalformedRulesAddNothing) {
  faults::Faults f(1);
  for (const json& body : {json::array(),
                           json{{"rules", {{{"action", "X"}}}}},
                           json{{"rules", {{{"action", "X"}, {"failNext", 1}, {"rate", 0.5}}}}},
                           json{{"rules", {{{"action", "X"}, {"rate", 2}}}}},
                           json{{"rules", {{{"action", "X"}, {"failNext", "many"}}}}}}) {
    EXPECT_NE(f.Add(body), "") << body.dump();
  }
  EXPECT_TRUE(f.Describe()["rules"].empty());
  EXPECT_FALSE(f.Decide("X").error);
}

TEST(Faults, StalledSnapshotsAreCounted) {
  faults::Faults f(1);
  ASSERT_EQ(f.Add({{"stallSnapshots", 1}}), "");
  EXPECT_TRUE(f.TakeSnapshotStall());
  EXPECT_FALSE(f.TakeSnapshotStall());
}

}  // namespace
}  // namespace hxsim
