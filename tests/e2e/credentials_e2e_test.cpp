// hxagent without an AccessKey: backup and restore through the proxy's RAM role (the
// emulator's metadata service, credentials short-lived enough to be refreshed during the
// job) and through a RamRoleArn profile (the emulator's STS); and a command with nothing
// configured, which must fail instead of quietly using the built-in emulator.
#include <algorithm>

#include "AgentFixture.h"

namespace {

using namespace hxe2e;

RunResult RunAgent(const std::vector<std::string>& args, const std::vector<std::string>& env, const std::string& dir) {
    return Child(args, env, dir).Wait();
}

class KeylessE2E : public ::testing::Test {
protected:
    // Credentials of the RAM role live 150 s at scale 1 (1.5 s here); the bridge renews
    // them 5 minutes (3 s) ahead, i.e. on every call once they are issued: short enough
    // that any job outlives several of them.
    void StartEmulator(double roleSeconds) {
        dir_ = (fs::temp_directory_path() / ("hxagent-keyless-" + std::to_string(::getpid()) + "-" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name()))
                   .string();
        fs::remove_all(dir_);
        fs::create_directories(dir_ + "/home");
        hxsim::Options o;
        o.stateDir = dir_ + "/sim";
        o.timeScale = 0.01;
        o.roleCredentialSeconds = roleSeconds;
        sim_ = std::make_unique<hxsim::Emulator>(o);
        ASSERT_TRUE(sim_->Start().ok());
        for (char** e = environ; *e; ++e)
            if (std::string(*e).rfind("ALIBABA_CLOUD_", 0) != 0 && std::string(*e).rfind("HOME=", 0) != 0)
                env_.push_back(*e);
        env_.push_back("HOME=" + dir_ + "/home");
        env_.push_back("ALIBABA_CLOUD_ECS_ENDPOINT=" + sim_->Endpoint());
        env_.push_back("ALIBABA_CLOUD_METADATA_ENDPOINT=" + sim_->MetadataEndpoint());
    }
    void TearDown() override {
        if (sim_) sim_->Stop();
        if (!HasFailure()) fs::remove_all(dir_);
    }
    json State() {
        json s;
        std::string error;
        EXPECT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "GET", "/_sim/state", "", s, error)) << error;
        return s;
    }
    RunResult Run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--state-dir", dir_ + "/state", "--json"});
        return RunAgent(args, env_, dir_);
    }

    // Backs up app-01 and restores it; nothing but the restored instance is left.
    void RoundTrip(const std::string& restoredName) {
        const json before = State();
        const int issuedBefore = sim_->CredentialsIssued();
        const auto started = std::chrono::steady_clock::now();
        RunResult b = Run({"backup", "app-01", "--to", dir_ + "/backups"});
        backupTook_ = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
        ASSERT_EQ(b.exitCode, 0) << b.out << b.err;
        backupIssued_ = sim_->CredentialsIssued() - issuedBefore;

        RunResult r = Run({"restore", b.doc.value("folder", ""), "--name", restoredName});
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        const json after = State();
        hxagent::SimLeftovers left = hxagent::FindLeftovers(before, after);
        EXPECT_TRUE(left.empty()) << left.Describe();
        int restored = 0;
        for (const auto& i : after["instances"]) restored += i.value("InstanceName", "") == restoredName;
        EXPECT_EQ(restored, 1);
    }

    std::string dir_;
    std::unique_ptr<hxsim::Emulator> sim_;
    std::vector<std::string> env_;
    int backupIssued_ = 0;
    std::chrono::milliseconds backupTook_{0};
};

TEST_F(KeylessE2E, BackupAndRestoreThroughTheProxysRamRole) {
    StartEmulator(/*roleSeconds=*/400);  // 4 s of real time, renewed 3 s ahead
    // Every call answers 100 ms late, as a distant endpoint would: a backup of app-01 then
    // lasts long enough for its credentials to be renewed twice.
    json ignored;
    std::string error;
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "POST", "/_sim/faults",
                                    R"({"rules": [{"action": "*", "latencyMs": 100}]})", ignored, error))
        << error;
    RoundTrip("app-01-keyless");
    // The job outlived its first credentials: they were renewed at least twice, and no
    // request was refused for an expired token (the job would have failed).
    EXPECT_GE(backupIssued_, 3);
    EXPECT_GT(backupTook_, 2s) << "the job is too short to show a refresh";
}

TEST_F(KeylessE2E, BackupAndRestoreThroughARamRoleArnProfile) {
    StartEmulator(3600);
    const auto keys = sim_->DemoCredentials();
    fs::create_directories(dir_ + "/home/.aliyun");
    std::ofstream(dir_ + "/home/.aliyun/config.json")
        << json{{"current", "backup"},
                {"profiles",
                 {{{"name", "backup"},
                   {"mode", "RamRoleArn"},
                   {"access_key_id", keys.accessKeyId},
                   {"access_key_secret", keys.accessKeySecret},
                   {"ram_role_arn", "acs:ram::1234567890123456:role/hx-backup"},
                   {"ram_session_name", "hxagent-e2e"}}}}}
               .dump();
    env_.push_back("ALIBABA_CLOUD_STS_ENDPOINT=" + sim_->Endpoint());
    env_.push_back("ALIBABA_CLOUD_ECS_METADATA_DISABLED=true");  // not the instance's role
    RoundTrip("app-01-role");
    json calls;
    std::string error;
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "GET", "/_sim/calls", "", calls, error)) << error;
    EXPECT_GE(calls["actions"]["AssumeRole"].value("calls", 0), 2) << calls.dump();
}

TEST(NoSilentEmulator, NothingConfiguredFailsWithOneLineAndDemoStillWorks) {
    const std::string home = (fs::temp_directory_path() / ("hxagent-nocloud-" + std::to_string(::getpid()))).string();
    fs::create_directories(home);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind("ALIBABA_CLOUD_", 0) != 0 && std::string(*e).rfind("HOME=", 0) != 0)
            env.push_back(*e);
    env.push_back("HOME=" + home);
    env.push_back("ALIBABA_CLOUD_METADATA_ENDPOINT=http://127.0.0.1:9");  // no metadata service here
    RunResult list = RunAgent({"list"}, env, home);
    EXPECT_EQ(list.exitCode, 2) << list.out << list.err;
    EXPECT_TRUE(list.out.empty()) << list.out;
    EXPECT_EQ(std::count(list.err.begin(), list.err.end(), '\n'), 1) << list.err;
    EXPECT_NE(list.err.find("ALIBABA_CLOUD_ACCESS_KEY_ID"), std::string::npos) << list.err;
    EXPECT_NE(list.err.find("--embedded"), std::string::npos) << list.err;

    RunResult embedded = RunAgent({"--embedded", "list", "--name", "web-*"}, env, home);
    EXPECT_EQ(embedded.exitCode, 0) << embedded.err;
    EXPECT_NE(embedded.err.find("built-in ECS emulator"), std::string::npos) << embedded.err;

    RunResult demo = RunAgent({"demo", "--json", "--instance", "db-01"}, env, home);
    EXPECT_EQ(demo.exitCode, 0) << demo.out << demo.err;
    fs::remove_all(home);
}

}  // namespace
