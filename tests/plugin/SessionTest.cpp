// The plug-in object's life: factory, Init, Connect/Disconnect and the unsupported calls.
#include <gtest/gtest.h>

#include <memory>

#include "AliCloudInfo.h"
#include "FakeCloud.h"
#include "FakeFramework.h"
#include "ExpectedTags.h"
#include "PluginFixture.h"

using namespace expected_tags;

extern "C" int CreateAliCloudInfoObject(VirtualServerInstanceType type, IVMInfo** out);

namespace {

class SessionTest : public PluginFixture {};

TEST_F(SessionTest, FactoryHandsOutAPluginObjectAndLogsItsCreation) {
    IVMInfo* object = nullptr;
    ASSERT_EQ(1, CreateAliCloudInfoObject(VSI_TYPE_ALIBABA_CLOUD_ECS, &object));
    ASSERT_NE(nullptr, object);
    std::unique_ptr<IVMInfo> owned(object);
    auto* vm = dynamic_cast<CAliCloudInfo*>(object);
    ASSERT_NE(nullptr, vm);
    EXPECT_EQ(VSI_TYPE_ALIBABA_CLOUD_ECS, vm->GetInstanceType());
    auto lines = fakefw::LinesWithText("Creating AliCloudInfo object");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kCreateAliCloudInfoObject, lines[0].tag);
    EXPECT_EQ(2, lines[0].level);
}

TEST_F(SessionTest, InitReplacesOnlyTheNoJobSentinelWithZero) {
    struct Case { long long given; long long expected; bool sentinelLine; };
    for (const Case& c : {Case{-123456, 0, true}, Case{-123455, -123455, false}, Case{0, 0, false}, Case{42, 42, false}}) {
        fakefw::Reset();
        fakefw::SetJobId(c.given);
        fakefw::SetFocus("focus-x");
        fakefw::SetApplicationName("app-y");
        TestPlugin plugin;
        plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH, "old");
        EXPECT_EQ(1, plugin.Init());
        EXPECT_EQ(c.expected, plugin.JobId()) << c.given;
        EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
        EXPECT_TRUE(fakefw::HasLine(kInit, "AliCloudInfo Focus: [focus-x] App: [app-y] JobId: [" + std::to_string(c.given) + "]"));
        EXPECT_EQ(c.sentinelLine, fakefw::HasLine(kInit, "AliCloudInfo Focus: Job ID is -123456 setting it to Zero."));
    }
}

TEST_F(SessionTest, ConnectHandsTheKeysToTheBridgeAndNeverLogsTheSecret) {
    TestPlugin plugin;
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    for (const std::string server : {"", "wrong.example", "ecs.cn-hangzhou.aliyuncs.com"}) {
        fakecloud::TheCloud().calls.clear();
        ASSERT_EQ(1, plugin.Connect(server, "AKID", "s3cr3t"));
        auto calls = fakecloud::TheCloud().CallsTo("Connect");
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ("AKID", calls[0].Arg(0));
        EXPECT_EQ("s3cr3t", calls[0].Arg(1));
    }
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kConnect, "Connecting with user name [AKID]."));
    EXPECT_TRUE(fakefw::HasLine(kConnect, "Connection successful."));
    EXPECT_EQ(std::string::npos, fakefw::Dump().find("s3cr3t"));
}

TEST_F(SessionTest, FailedConnectLogsAnErrorButSetsNoCode) {
    TestPlugin plugin;
    fakecloud::TheCloud().FailNext("Connect", "InvalidAccessKeyId.NotFound: Specified access key is not found.");
    EXPECT_EQ(0, plugin.Connect("", "AKID", "secret"));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    auto errors = fakefw::ErrorTexts();
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ("Connect failed.", errors[0]);
    EXPECT_FALSE(fakefw::HasLine("Connection successful."));
}

TEST_F(SessionTest, DisconnectReportsTheBridgeAndAllowsAReconnect) {
    TestPlugin plugin;
    ASSERT_EQ(1, plugin.Connect("", "a", "b"));
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    EXPECT_EQ(1, plugin.Disconnect());
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    fakecloud::TheCloud().FailNext("Disconnect");
    EXPECT_EQ(0, plugin.Disconnect());
    EXPECT_EQ(1, plugin.Connect("", "a", "b"));
    EXPECT_EQ(1, plugin.DeInit());
}

TEST_F(SessionTest, FileMountAndMetadataAreUnsupportedAndTouchNothing) {
    TestPlugin plugin;
    MountCtx ctx;
    std::vector<SMountInfoFile> files(2);
    files[0].filePath = "keep";
    EXPECT_EQ(0, plugin.GetFileMountInfo(ctx, files));
    EXPECT_EQ(2u, files.size());
    EXPECT_EQ("keep", files[0].filePath);
    EXPECT_EQ(0, plugin.CollectMetadata(ctx));
    EXPECT_TRUE(fakecloud::TheCloud().calls.empty());
}

}  // namespace
