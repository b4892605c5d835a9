// Whole restore jobs as the framework drives them: InitRestoreVM, (the agent writes the
// disks), PreRestoreVM, RestoreVM, PostRestoreVM, or CleanupRestoreVM after a failure.
#include <gtest/gtest.h>

#include <algorithm>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;

namespace {

class RestoreJobTest : public RestoreFixture {
protected:
    void SetUp() override {
        RestoreFixture::SetUp();
        folder.File("i-web_InstanceConfig.json", restoreworld::kConfigText);
        ctx = restoreworld::Request(folder.path());
        ctx.powerOnAfterRestore = true;
    }
    // The disks the job made that still exist (the new instance's own system disk is made
    // by the cloud from the image, not by the job).
    std::vector<std::string> MadeDisks() { return cloud().CreatedDisks(); }
    void ExpectNoTemporaryObjects(const std::string& why) {
        EXPECT_TRUE(cloud().snapshots.empty()) << why;
        EXPECT_TRUE(cloud().images.empty()) << why;
        EXPECT_TRUE(store().Empty()) << why << "\n" << fakefw::Dump();
        EXPECT_EQ(std::vector<std::string>{"d-proxy-os"}, cloud().DisksAttachedTo(restoreworld::kProxyId)) << why;
    }

    restoreworld::TempDir folder;
    RestoreCtx ctx;
};

TEST_F(RestoreJobTest, ASuccessfulJobLeavesOnlyTheRunningInstanceWithItsDataDisk) {
    ASSERT_EQ(1, plugin.InitRestoreVM(ctx));
    const std::string writtenOS = ctx.disks[0].diskId;
    const std::string writtenData = ctx.disks[1].diskId;
    EXPECT_EQ((std::vector<std::string>{"d-proxy-os", writtenOS, writtenData}),
              cloud().DisksAttachedTo(restoreworld::kProxyId));
    ASSERT_EQ(1, plugin.PreRestoreVM(ctx));
    ASSERT_EQ(1, plugin.RestoreVM(ctx));
    const std::string instance = ctx.vmInfo.guid;
    ASSERT_EQ(std::vector<std::string>{instance}, cloud().CreatedInstances());
    ASSERT_EQ(1, plugin.PostRestoreVM(ctx));
    EXPECT_EQ(1, plugin.CloseRestoreVM(ctx));

    EXPECT_EQ("Running", cloud().instances.at(instance).status);
    EXPECT_EQ("web-restored", cloud().instances.at(instance).info.name);
    // The instance boots from the image; the written OS disk was only its source.
    EXPECT_EQ(std::vector<std::string>{writtenData}, MadeDisks());
    const auto attached = cloud().DisksAttachedTo(instance);
    ASSERT_EQ(2u, attached.size());
    EXPECT_EQ(writtenData, attached[1]);
    ExpectNoTemporaryObjects("success");
    EXPECT_TRUE(fakefw::ErrorTexts().empty()) << fakefw::Dump();

    // The phases in order, as the cloud saw them.
    auto names = cloud().CallNames();
    auto at = [&](const std::string& op) { return std::find(names.begin(), names.end(), op) - names.begin(); };
    EXPECT_LT(at("CreateDisk"), at("AttachDisk"));
    EXPECT_LT(at("AttachDisk"), at("DetachDisk"));
    EXPECT_LT(at("DetachDisk"), at("CreateSnapshot"));
    EXPECT_LT(at("CreateSnapshot"), at("CreateImageFromDiskSnapshots"));
    EXPECT_LT(at("CreateImageFromDiskSnapshots"), at("CreateInstance"));
    EXPECT_LT(at("CreateInstance"), at("PowerOnInstance"));
    EXPECT_LT(at("PowerOnInstance"), at("DeleteImage"));
    EXPECT_LT(at("DeleteImage"), at("DeleteSnapshot"));
}

TEST_F(RestoreJobTest, AFailedRestoreIsCleanedUpCompletely) {
    struct Case {
        const char* name;
        std::string failingOp;
        int failAt;  // which call of the operation fails
        int initResult;
        int restoreResult;
    };
    const Case cases[] = {
        {"second disk cannot be made", "CreateDisk", 2, 0, -1},
        {"second disk cannot be attached to the proxy", "AttachDisk", 2, 0, -1},
        {"image refused", "CreateImageFromDiskSnapshots", 1, 1, 0},
        {"instance refused", "CreateInstance", 1, 1, 0},
    };
    for (const Case& c : cases) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        cloud().FailCall(c.failingOp, c.failAt, {"OperationDenied: " + std::string(c.name), false});
        RestoreCtx job = restoreworld::Request(folder.path());
        TestPlugin fresh;

        EXPECT_EQ(c.initResult, fresh.InitRestoreVM(job)) << c.name;
        if (c.initResult == 1) {
            EXPECT_EQ(1, fresh.PreRestoreVM(job)) << c.name;
            EXPECT_EQ(c.restoreResult, fresh.RestoreVM(job)) << c.name;
            EXPECT_EQ("OperationDenied: " + std::string(c.name), fresh.GetLastVMErrorDetails()) << c.name;
        }
        EXPECT_FALSE(store().Empty()) << c.name;
        EXPECT_EQ(1, fresh.CleanupRestoreVM(job)) << c.name;

        EXPECT_TRUE(MadeDisks().empty()) << c.name;
        EXPECT_TRUE(cloud().CreatedInstances().empty()) << c.name;
        ExpectNoTemporaryObjects(c.name);
    }
}

TEST_F(RestoreJobTest, CleanupKeepsAnInstanceThatWasMade) {
    // The framework may clean up after any failure it sees, also once the instance exists.
    ASSERT_EQ(1, plugin.InitRestoreVM(ctx));
    ASSERT_EQ(1, plugin.PreRestoreVM(ctx));
    ASSERT_EQ(1, plugin.RestoreVM(ctx));
    ASSERT_EQ(1, plugin.CleanupRestoreVM(ctx));
    EXPECT_EQ(std::vector<std::string>{ctx.vmInfo.guid}, cloud().CreatedInstances());
    EXPECT_EQ(std::vector<std::string>{ctx.disks[1].diskId}, MadeDisks());
    ExpectNoTemporaryObjects("clean-up after the instance");
}

TEST_F(RestoreJobTest, ARetriedJobReusesItsTemporaryIdAndTheDisksItAlreadyMade) {
    fakefw::Cleaner().SetRootRegistrationIdempotent(true);
    cloud().FailCall("CreateDisk", 2, {"Throttling: try again", false});
    ASSERT_EQ(0, plugin.InitRestoreVM(ctx));
    const std::string tempId = ctx.tempVMId;
    const std::string firstOS = ctx.disks[0].diskId;
    ASSERT_EQ(1u, MadeDisks().size());

    ASSERT_EQ(1, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(tempId, ctx.tempVMId);
    EXPECT_EQ(firstOS, ctx.disks[0].diskId);
    EXPECT_EQ(3, cloud().Count("CreateDisk"));  // the OS disk once, the data disk twice (once refused)
    EXPECT_TRUE(fakefw::HasLine(k_CreateEmptyDisks, "Found the disk [" + firstOS + "], will be reusing it."));
    EXPECT_EQ((std::vector<std::string>{firstOS, ctx.disks[1].diskId}),
              store().ChildrenOf(tempId, VM_CLEANER_ENTITY_DISK));

    ASSERT_EQ(1, plugin.PreRestoreVM(ctx));
    ASSERT_EQ(1, plugin.RestoreVM(ctx));
    ASSERT_EQ(1, plugin.PostRestoreVM(ctx));
    EXPECT_EQ(std::vector<std::string>{ctx.disks[1].diskId}, MadeDisks());
    ExpectNoTemporaryObjects("retry");
}

TEST_F(RestoreJobTest, AnExistingInstanceOfTheNameIsReplacedWhenTheJobAllowsIt) {
    cloud().AddInstance("i-old", "web-restored", restoreworld::kRegion, restoreworld::kZone, "Running");
    ctx.overwriteExisting = true;
    ASSERT_EQ(1, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(0u, cloud().instances.count("i-old"));
    ASSERT_EQ(1, plugin.PreRestoreVM(ctx));
    ASSERT_EQ(1, plugin.RestoreVM(ctx));
    ASSERT_EQ(1, plugin.PostRestoreVM(ctx));
    std::vector<std::string> named;
    for (const auto& [id, instance] : cloud().instances)
        if (instance.info.name == "web-restored") named.push_back(id);
    EXPECT_EQ(std::vector<std::string>{ctx.vmInfo.guid}, named);
    ExpectNoTemporaryObjects("overwrite");
}

}  // namespace
