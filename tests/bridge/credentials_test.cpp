// The credentials provider: refresh timing with a fake clock, the chain's order of
// sources, and every fetching source against the emulator's metadata service and STS,
// including the refusal of expired credentials.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "api_client.h"
#include "credentials_chain.h"
#include "credentials_sources.h"
#include "hxsim/Emulator.h"

namespace hxbridge {
namespace {

namespace fs = std::filesystem;
using std::chrono::system_clock;
using namespace std::chrono_literals;

TEST(RefreshingCredentials, RefreshesInsideTheMarginAndRidesOutFailuresWhileValid) {
    system_clock::time_point now = system_clock::from_time_t(1'700'000'000);
    int calls = 0;
    bool fail = false;
    auto fetch = [&] {
        ++calls;
        if (fail) throw CredentialsUnavailable("source down");
        return TimedCredentials{{"id" + std::to_string(calls), "secret", "token"}, now + 60min};
    };
    RefreshingCredentialsProvider p(fetch, "test", 5min, [&] { return now; }, 10s);
    EXPECT_EQ(p.Get().accessKeyId, "id1");
    now += 54min;  // 6 minutes left: still fresh
    EXPECT_EQ(p.Get().accessKeyId, "id1");
    now += 2min;  // 4 minutes left: inside the margin
    EXPECT_EQ(p.Get().accessKeyId, "id2");
    EXPECT_EQ(p.Fetches(), 2);

    now += 56min;  // id2 has 4 minutes left, and the source is down
    fail = true;
    EXPECT_EQ(p.Get().accessKeyId, "id2");
    const int afterFailure = calls;
    now += 5s;  // not retried before retryAfter
    EXPECT_EQ(p.Get().accessKeyId, "id2");
    EXPECT_EQ(calls, afterFailure);
    now += 5min;  // expired: the failure is the answer now
    EXPECT_THROW(p.Get(), ApiError);
    fail = false;
    const std::string renewed = p.Get().accessKeyId;
    EXPECT_EQ(renewed, "id" + std::to_string(calls));
}

TEST(Credentials, TimestampsOfEverySource) {
    EXPECT_EQ(ParseUtcTimestamp("2024-05-01T10:20:30Z"), system_clock::from_time_t(1714558830));
    EXPECT_EQ(ParseUtcTimestamp("2024-05-01T10:20:30.123Z"), system_clock::from_time_t(1714558830));
    EXPECT_EQ(ParseUtcTimestamp("2024-05-01T10:20Z"), system_clock::from_time_t(1714558800));
    for (const char* bad : {"", "2024-05-01 10:20:30", "2024-05-01T10:20:30", "2024-13-01T10:20:30Z", "soon"})
        EXPECT_FALSE(ParseUtcTimestamp(bad)) << bad;
}

class ChainOnEmulator : public ::testing::Test {
protected:
    static constexpr double kScale = 0.01;

    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("hx-cred-" + std::to_string(::getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
        hxsim::Options o;
        o.timeScale = kScale;
        o.roleCredentialSeconds = 500;  // 5 s of real time
        sim_ = std::make_unique<hxsim::Emulator>(o);
        ASSERT_TRUE(sim_->Start().ok());
        http_ = std::make_shared<CurlTransport>();
    }
    void TearDown() override {
        sim_.reset();
        fs::remove_all(dir_);
    }

    ChainDependencies Deps(std::map<std::string, std::string> vars) {
        vars.emplace("HOME", dir_.string());
        vars.emplace("ALIBABA_CLOUD_STS_ENDPOINT", sim_->Endpoint());
        ChainDependencies d;
        d.env = [vars](const char* name) {
            auto it = vars.find(name);
            return it == vars.end() ? std::string() : it->second;
        };
        d.http = http_;
        d.metadataHttp = http_;
        d.metadataEndpoint = sim_->MetadataEndpoint();
        d.refreshMargin = std::chrono::milliseconds(3000);  // 5 minutes at the emulator's scale
        return d;
    }
    void WriteConfig(const std::string& text) {
        fs::create_directories(dir_ / ".aliyun");
        std::ofstream(dir_ / ".aliyun/config.json") << text;
    }
    // An ECS call signed by `provider`: the credentials are accepted by the API.
    std::string Call(std::shared_ptr<CredentialsProvider> provider) {
        ApiClient client(http_, RequestSigner(), std::move(provider), EndpointResolver{sim_->Endpoint(), false});
        try {
            client.Call("DescribeRegions", "cn-hangzhou", {});
            return "ok";
        } catch (const ApiError& e) {
            return e.code();
        }
    }

    fs::path dir_;
    std::unique_ptr<hxsim::Emulator> sim_;
    std::shared_ptr<HttpTransport> http_;
};

TEST_F(ChainOnEmulator, SourcesInTheOrderOfTheOfficialChain) {
    const auto demo = sim_->DemoCredentials();
    WriteConfig(R"({"current": "ak", "profiles": [
        {"name": "ak", "mode": "AK", "access_key_id": ")" + demo.accessKeyId + R"(", "access_key_secret": ")" +
                demo.accessKeySecret + R"("},
        {"name": "role", "mode": "RamRoleArn", "access_key_id": ")" + demo.accessKeyId + R"(", "access_key_secret": ")" +
                demo.accessKeySecret + R"(", "ram_role_arn": "acs:ram::1234567890123456:role/backup"},
        {"name": "chained", "mode": "ChainableRamRoleArn", "source_profile": "role",
         "ram_role_arn": "acs:ram::1234567890123456:role/second"},
        {"name": "ecs", "mode": "EcsRamRole", "ram_role_name": ""},
        {"name": "loop", "mode": "ChainableRamRoleArn", "source_profile": "loop", "ram_role_arn": "acs:ram::1:role/x"},
        {"name": "odd", "mode": "Bearer"}]})");
    std::ofstream(dir_ / "oidc.jwt") << "eyJhbGciOiJSUzI1NiJ9.eyJzdWIiOiJ4In0.c2ln\n";
    const std::string oidcFile = (dir_ / "oidc.jwt").string();
    const std::map<std::string, std::string> oidc{{"ALIBABA_CLOUD_ROLE_ARN", "acs:ram::1234567890123456:role/oidc"},
                                                  {"ALIBABA_CLOUD_OIDC_PROVIDER_ARN",
                                                   "acs:ram::1234567890123456:oidc-provider/ack"},
                                                  {"ALIBABA_CLOUD_OIDC_TOKEN_FILE", oidcFile}};
    struct Case {
        const char* name;
        std::map<std::string, std::string> env;
        std::string source;  // expected in Describe(); empty = resolution fails
    } cases[] = {
        {"environment first", {{"ALIBABA_CLOUD_ACCESS_KEY_ID", demo.accessKeyId},
                               {"ALIBABA_CLOUD_ACCESS_KEY_SECRET", demo.accessKeySecret}}, "environment"},
        {"half a key is an error, not a fall-through", {{"ALIBABA_CLOUD_ACCESS_KEY_ID", "x"}}, ""},
        {"OIDC before the profile", oidc, "OIDC role"},
        {"the file's current profile", {}, "profile 'ak'"},
        {"RamRoleArn", {{"ALIBABA_CLOUD_PROFILE", "role"}}, "role acs:ram::1234567890123456:role/backup"},
        {"ChainableRamRoleArn", {{"ALIBABA_CLOUD_PROFILE", "chained"}}, "role/second"},
        {"EcsRamRole discovers the role", {{"ALIBABA_CLOUD_PROFILE", "ecs"}}, "RAM role 'hxagent-proxy'"},
        {"a profile that is its own source", {{"ALIBABA_CLOUD_PROFILE", "loop"}}, ""},
        {"an unknown mode", {{"ALIBABA_CLOUD_PROFILE", "odd"}}, ""},
        {"a missing profile", {{"ALIBABA_CLOUD_PROFILE", "nobody"}}, ""},
        {"ECS_METADATA without a file", {{"HOME", "/nonexistent"}, {"ALIBABA_CLOUD_ECS_METADATA", "hxagent-proxy"}},
         "RAM role 'hxagent-proxy'"},
        {"the instance's role, last", {{"HOME", "/nonexistent"}}, "RAM role 'hxagent-proxy'"},
        {"metadata disabled: nothing left",
         {{"HOME", "/nonexistent"}, {"ALIBABA_CLOUD_ECS_METADATA_DISABLED", "true"}}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::shared_ptr<CredentialsProvider> p;
        try {
            p = ResolveCredentialChain(Deps(c.env));
        } catch (const ApiError& e) {
            EXPECT_TRUE(c.source.empty()) << e.Describe();
            EXPECT_EQ(e.Describe().find(demo.accessKeySecret), std::string::npos);
            continue;
        }
        ASSERT_FALSE(c.source.empty()) << p->Describe();
        EXPECT_NE(p->Describe().find(c.source), std::string::npos) << p->Describe();
        EXPECT_EQ(Call(p), "ok");
    }
}

TEST_F(ChainOnEmulator, RamRoleCredentialsAreRefreshedBeforeTheyExpire) {
    auto p = ResolveCredentialChain(Deps({{"HOME", "/nonexistent"}}));
    const Credentials first = p->Get();
    EXPECT_EQ(first.accessKeyId.rfind("STS.", 0), 0u);
    EXPECT_EQ(Call(p), "ok");
    std::this_thread::sleep_for(2500ms);  // 5 s life, 3 s margin: due for a refresh
    EXPECT_EQ(Call(p), "ok");
    EXPECT_NE(p->Get().accessKeyId, first.accessKeyId);

    // The first credentials, used after their expiry, are refused the way ECS refuses them.
    std::this_thread::sleep_for(3000ms);
    EXPECT_EQ(Call(std::make_shared<StaticCredentialsProvider>(first, "old")), "InvalidSecurityToken.Expired");
    Credentials forged = first;
    forged.securityToken = "CAISforged";
    EXPECT_EQ(Call(std::make_shared<StaticCredentialsProvider>(forged, "forged")),
              "InvalidSecurityToken.MismatchWithAccessKey");
}

TEST_F(ChainOnEmulator, StsRefusalsCarryTheirCodes) {
    const auto demo = sim_->DemoCredentials();
    auto base = std::make_shared<StaticCredentialsProvider>(Credentials{demo.accessKeyId, demo.accessKeySecret, ""},
                                                            "demo");
    auto refusal = [&](RoleRequest role) {
        try {
            AssumeRole(http_, base, sim_->Endpoint(), role);
            return std::string("ok");
        } catch (const ApiError& e) {
            return e.code();
        }
    };
    EXPECT_EQ(refusal({"acs:ram::1234567890123456:role/backup", "s1", 3600, "", ""}), "ok");
    EXPECT_EQ(refusal({"acs:ram::1234567890123456:role/missing-role", "s1", 3600, "", ""}), "EntityNotExist.Role");
    EXPECT_EQ(refusal({"role/backup", "s1", 3600, "", ""}), "InvalidParameter.RoleArn");
    EXPECT_EQ(refusal({"acs:ram::1234567890123456:role/backup", "s1", 60, "", ""}),
              "InvalidParameter.DurationSeconds");

    std::ofstream(dir_ / "bad.jwt") << "not-a-jwt";
    try {
        AssumeRoleWithOidc(*http_, sim_->Endpoint(), "acs:ram::1:oidc-provider/ack", (dir_ / "bad.jwt").string(),
                           {"acs:ram::1:role/oidc", "s1", 3600, "", ""});
        ADD_FAILURE() << "an invalid OIDC token was accepted";
    } catch (const ApiError& e) {
        EXPECT_EQ(e.code(), "AuthenticationFail.OIDCToken.Invalid");
        EXPECT_EQ(e.Describe().find("not-a-jwt"), std::string::npos);
    }
}

TEST_F(ChainOnEmulator, HardenedMetadataModeIsHonoured) {
    // A service that insists on session tokens still serves the role; one that issues none
    // is refused when plain requests are disabled.
    std::string base = sim_->MetadataEndpoint();
    auto creds = FetchEcsRamRole(*http_, base, "", /*imdsV1Disabled=*/true);
    EXPECT_FALSE(creds.credentials.securityToken.empty());
    ASSERT_TRUE(creds.expiration);
    EXPECT_GT(*creds.expiration, system_clock::now());
    EXPECT_THROW(FetchEcsRamRole(*http_, base, "someone-else", false), ApiError);
}

}  // namespace
}  // namespace hxbridge
