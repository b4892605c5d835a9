// The bridge's API client against the emulator's refusals that real ECS gives and that
// must not fail a job: the per-minute throttle (a throttled caller waits into the next
// minute), LastTokenProcessing (a retried create whose first attempt still runs, retried
// with the same ClientToken) and Operation.Conflict ("retry later").
#include <gtest/gtest.h>

#include <httplib.h>

#include "api_client.h"
#include "hxsim/Emulator.h"

namespace hxbridge {
namespace {

class RetryOnEmulator : public ::testing::Test {
protected:
    static constexpr double kScale = 0.01;  // an emulated minute is 0.6 s

    void SetUp() override {
        hxsim::Options o;
        o.timeScale = kScale;
        sim_ = std::make_unique<hxsim::Emulator>(o);
        ASSERT_TRUE(sim_->Start().ok());
        const auto keys = sim_->DemoCredentials();
        ApiClientOptions options;
        options.retry = RetryPolicy().Scaled(kScale);
        options.trace = [this](const std::string& line) {
            if (line.find("outcome=ok") == std::string::npos) refusals_.push_back(line);
        };
        client_ = std::make_unique<ApiClient>(std::make_shared<CurlTransport>(), RequestSigner(),
                                              Credentials{keys.accessKeyId, keys.accessKeySecret, ""},
                                              EndpointResolver{sim_->Endpoint(), false}, options);
    }
    void Control(const std::string& path, const std::string& body) {
        httplib::Client c(sim_->Endpoint());
        auto r = c.Post(path, body, "application/json");
        ASSERT_TRUE(r && r->status == 200) << path << " " << body;
    }

    std::unique_ptr<hxsim::Emulator> sim_;
    std::unique_ptr<ApiClient> client_;
    std::vector<std::string> refusals_;
};

TEST_F(RetryOnEmulator, ThrottlingThatLastsTheMinuteIsWaitedOut) {
    Control("/_sim/throttle", R"({"perMinute": 2, "actions": ["DescribeRegions"]})");
    // Six calls at a quota of two per minute span three minutes: most attempts are
    // refused, every call still succeeds.
    for (int i = 0; i < 6; ++i) EXPECT_NO_THROW(client_->Call("DescribeRegions", "cn-hangzhou", {})) << i;
    ASSERT_FALSE(refusals_.empty());
    EXPECT_NE(refusals_.front().find("Throttling.User"), std::string::npos) << refusals_.front();

    // A throttle that never clears ends with the throttling code
    // once the budget (150 s scaled) is spent, not after a handful of attempts.
    Control("/_sim/faults", R"({"rules": [{"action": "DescribeZones", "forMs": 100000, "code": "Throttling.User"}]})");
    const auto started = std::chrono::steady_clock::now();
    try {
        client_->Call("DescribeZones", "cn-hangzhou", {});
        ADD_FAILURE() << "a permanent throttle let the call through";
    } catch (const ApiError& e) {
        EXPECT_EQ(e.code(), "Throttling.User");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1500));
}

TEST_F(RetryOnEmulator, CodesThatMeanRetryLaterAreRetried) {
    for (const char* code : {"LastTokenProcessing", "Operation.Conflict"}) {
        SCOPED_TRACE(code);
        refusals_.clear();
        Control("/_sim/faults", std::string(R"({"rules": [{"action": "DescribeRegions", "failNext": 2, "code": ")") + code + "\"}]}");
        EXPECT_NO_THROW(client_->Call("DescribeRegions", "cn-hangzhou", {}));
        EXPECT_EQ(refusals_.size(), 2u);
    }
    // Not every refusal is worth a repetition.
    refusals_.clear();
    Control("/_sim/faults", R"({"rules": [{"action": "DescribeRegions", "failNext": 1, "code": "InvalidParameter"}]})");
    EXPECT_THROW(client_->Call("DescribeRegions", "cn-hangzhou", {}), ApiError);
    EXPECT_EQ(refusals_.size(), 1u);
}

}  // namespace
}  // namespace hxbridge
