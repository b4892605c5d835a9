#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <unistd.h>

#include "Credentials.h"

namespace hxagent {
namespace {

EnvLookup Env(std::map<std::string, std::string> vars) {
    return [vars](const char* name) {
        auto it = vars.find(name);
        return it == vars.end() ? std::string() : it->second;
    };
}

const char* kConfig = R"({
  "current": "work",
  "profiles": [
    {"name": "default", "mode": "AK", "access_key_id": "LTAIdefault0001", "access_key_secret": "s-default", "region_id": "cn-hangzhou"},
    {"name": "work", "mode": "AK", "access_key_id": "LTAIwork00000002", "access_key_secret": "s-work", "region_id": "cn-shanghai"},
    {"name": "sts", "mode": "StsToken", "access_key_id": "STS.abc123456", "access_key_secret": "s-sts", "sts_token": "tok"},
    {"name": "sts-broken", "mode": "StsToken", "access_key_id": "STS.x", "access_key_secret": "y"},
    {"name": "role", "mode": "EcsRamRole", "ram_role_name": "backup"},
    {"name": "odd", "mode": "Bearer"},
    {"name": "nokey", "mode": "AK", "access_key_id": "", "access_key_secret": ""}
  ]})";

TEST(Credentials, ProfileSelection) {
    struct Case {
        std::string wanted;
        std::string expectId;   // empty: expect an error containing expectError
        std::string expectError;
    } cases[] = {
        {"", "LTAIwork00000002", ""},           // "current" of the file
        {"default", "LTAIdefault0001", ""},
        {"sts", "STS.abc123456", ""},
        {"sts-broken", "", "no sts_token"},
        {"odd", "", "mode Bearer"},
        {"nokey", "", "lacks access_key_id"},
        {"missing", "", "no profile 'missing'"},
    };
    for (const auto& c : cases) {
        auto r = ParseAliyunConfig(kConfig, c.wanted, "config.json");
        if (c.expectId.empty()) {
            EXPECT_FALSE(r.credentials) << c.wanted;
            EXPECT_NE(r.error.find(c.expectError), std::string::npos) << c.wanted << ": " << r.error;
        } else {
            ASSERT_TRUE(r.credentials) << c.wanted << ": " << r.error;
            EXPECT_EQ(r.credentials->accessKeyId, c.expectId);
        }
    }
    auto sts = ParseAliyunConfig(kConfig, "sts", "config.json");
    ASSERT_TRUE(sts.credentials);
    EXPECT_EQ(sts.credentials->securityToken, "tok");
    // Modes with temporary credentials are left to the bridge's chain: no key is read here.
    auto role = ParseAliyunConfig(kConfig, "role", "config.json");
    ASSERT_TRUE(role.credentials) << role.error;
    EXPECT_TRUE(role.credentials->chain);
    EXPECT_TRUE(role.credentials->accessKeyId.empty());
    auto work = ParseAliyunConfig(kConfig, "", "config.json");
    EXPECT_EQ(work.credentials->regionId, "cn-shanghai");
    EXPECT_TRUE(work.credentials->securityToken.empty());
}

TEST(Credentials, DefaultProfileWithoutCurrentAndBrokenFiles) {
    auto r = ParseAliyunConfig(R"({"profiles":[{"name":"default","mode":"AK","access_key_id":"a1234567890","access_key_secret":"b"}]})",
                               "", "c.json");
    ASSERT_TRUE(r.credentials);
    EXPECT_EQ(r.credentials->accessKeyId, "a1234567890");
    EXPECT_FALSE(ParseAliyunConfig("not json", "", "c.json").error.empty());
    EXPECT_FALSE(ParseAliyunConfig(R"({"current":"x"})", "", "c.json").error.empty());
}

class CredentialFiles : public ::testing::Test {
protected:
    void SetUp() override {
        home_ = std::filesystem::temp_directory_path() / ("hxagent-cred-" + std::to_string(::getpid()));
        std::filesystem::create_directories(home_ / ".aliyun");
        std::ofstream(home_ / ".aliyun/config.json") << kConfig;
    }
    void TearDown() override { std::filesystem::remove_all(home_); }
    std::filesystem::path home_;
};

TEST_F(CredentialFiles, EnvironmentBeatsFileUnlessAProfileIsNamed) {
    const std::string home = home_.string();
    auto env = Env({{"HOME", home},
                    {"ALIBABA_CLOUD_ACCESS_KEY_ID", "LTAIenv000000003"},
                    {"ALIBABA_CLOUD_ACCESS_KEY_SECRET", "s-env"},
                    {"ALIBABA_CLOUD_SECURITY_TOKEN", "envtok"}});
    auto fromEnv = ResolveCredentials(env, "");
    ASSERT_TRUE(fromEnv.credentials);
    EXPECT_EQ(fromEnv.credentials->accessKeyId, "LTAIenv000000003");
    EXPECT_EQ(fromEnv.credentials->securityToken, "envtok");
    EXPECT_EQ(fromEnv.credentials->source, "environment");

    auto named = ResolveCredentials(env, "default");
    ASSERT_TRUE(named.credentials);
    EXPECT_EQ(named.credentials->accessKeyId, "LTAIdefault0001");

    // ALIBABA_CLOUD_PROFILE picks the profile when no option does.
    auto byEnvProfile = ResolveCredentials(Env({{"HOME", home}, {"ALIBABA_CLOUD_PROFILE", "default"}}), "");
    ASSERT_TRUE(byEnvProfile.credentials);
    EXPECT_EQ(byEnvProfile.credentials->accessKeyId, "LTAIdefault0001");
}

TEST_F(CredentialFiles, NothingConfiguredAndHalfConfigured) {
    // No file, no variables: nothing configured here, which is not an error yet (the
    // metadata service may still offer the instance's role).
    auto none = ResolveCredentials(Env({{"HOME", "/nonexistent-home"}}), "");
    EXPECT_FALSE(none.credentials);
    EXPECT_TRUE(none.error.empty());
    // A named profile without a file is an error.
    EXPECT_FALSE(ResolveCredentials(Env({{"HOME", "/nonexistent-home"}}), "work").error.empty());
    // Only one half of the AccessKey in the environment is an error, not a silent fallback.
    auto half = ResolveCredentials(Env({{"HOME", home_.string()}, {"ALIBABA_CLOUD_ACCESS_KEY_ID", "x"}}), "");
    EXPECT_FALSE(half.credentials);
    EXPECT_NE(half.error.find("only one"), std::string::npos);
}

TEST(Credentials, SourcesOnlyTheBridgeCanResolveComeInChainOrder) {
    const std::map<std::string, std::string> oidc{{"ALIBABA_CLOUD_ROLE_ARN", "acs:ram::1:role/r"},
                                                  {"ALIBABA_CLOUD_OIDC_PROVIDER_ARN", "acs:ram::1:oidc-provider/p"},
                                                  {"ALIBABA_CLOUD_OIDC_TOKEN_FILE", "/var/run/token"}};
    struct Case {
        std::map<std::string, std::string> env;
        std::string source;  // empty: nothing configured
    } cases[] = {
        {oidc, "OIDC role"},
        {{{"ALIBABA_CLOUD_ECS_METADATA", "backup"}}, "RAM role 'backup'"},
        {{{"ALIBABA_CLOUD_ECS_METADATA", "backup"}, {"ALIBABA_CLOUD_ECS_METADATA_DISABLED", "true"}}, ""},
        {{{"ALIBABA_CLOUD_CREDENTIALS_URI", "http://127.0.0.1:1/creds"}}, "credentials URI"},
        {{{"ALIBABA_CLOUD_ROLE_ARN", "acs:ram::1:role/r"}}, ""},  // OIDC needs all three
    };
    for (auto& c : cases) {
        c.env.emplace("HOME", "/nonexistent-home");
        auto r = ResolveCredentials(Env(c.env), "");
        EXPECT_TRUE(r.error.empty()) << r.error;
        if (c.source.empty()) {
            EXPECT_FALSE(r.credentials) << r.credentials->source;
            continue;
        }
        ASSERT_TRUE(r.credentials) << c.source;
        EXPECT_TRUE(r.credentials->chain);
        EXPECT_NE(r.credentials->source.find(c.source), std::string::npos) << r.credentials->source;
    }
}

TEST(Credentials, MaskNeverShowsTheMiddle) {
    EXPECT_EQ(MaskKeyId("LTAI5tHxSimDemoAccessKey"), "LTAI****sKey");
    EXPECT_EQ(MaskKeyId("short"), "*****");
}

}  // namespace
}  // namespace hxagent
