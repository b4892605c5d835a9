// Finishing a restored instance: data disks handed over (and unregistered) or deleted,
// peripheral components, power-on, and the removal of the temporary objects.
#include <gtest/gtest.h>

#include <algorithm>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;

namespace {

constexpr const char kVmId[] = "tmp-vm";
constexpr const char kInstance[] = "i-new";

// The state after a successful RestoreVirtualMachine: the new instance (stopped) and, under
// the temporary id, the written OS disk, its snapshot, the image and two data disks.
class RestoreFinishTest : public RestoreFixture {
protected:
    void SetUp() override {
        RestoreFixture::SetUp();
        Arrange(plugin);
    }
    void Arrange(TestPlugin& p) {
        p.SetProxy(restoreworld::Proxy());
        CAliCloudCleaner& cleaner = p.Cleaner();
        ASSERT_TRUE(cleaner.Init(restoreworld::kProxyId));
        ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_RESTORE, kVmId));
        cloud().AddInstance(kInstance, "web-restored", restoreworld::kRegion, restoreworld::kZone, "Stopped");
        ctx = restoreworld::Request();
        ctx.tempVMId = kVmId;
        ctx.vmInfo.guid = kInstance;
        ctx.disks = {Written(cleaner, "d-new-os", true), Written(cleaner, "d-new-data1", false),
                     Written(cleaner, "d-new-data2", false)};
        SDisk local = restoreworld::Disk("d-local", 4, false);
        local.diskType = 2;
        ctx.disks.push_back(local);
        cloud().snapshots["s-os"] = fakecloud::Snapshot{"s-os", "d-new-os", restoreworld::kRegion, 0, false};
        ASSERT_TRUE(cleaner.RegisterSnapshot(VM_CLEANER_MODE_RESTORE, kVmId, "s-os"));
        cloud().images["m-os"] = fakecloud::Image{"m-os", restoreworld::kRegion, "s-os", "x86_64", "CentOS", ""};
        ASSERT_TRUE(cleaner.RegisterTemplate(VM_CLEANER_MODE_RESTORE, kVmId, "m-os"));
    }
    SDisk Written(CAliCloudCleaner& cleaner, const std::string& id, bool os) {
        SDisk d = restoreworld::Disk(id, os ? 40 : 100, os);
        d.newDiskId = id;
        d.zone = restoreworld::kZone;
        cloud().disks[id].info = d;
        cloud().disks[id].regionId = restoreworld::kRegion;
        EXPECT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_RESTORE, kVmId, id));
        return d;
    }
    std::vector<std::string> RegisteredDisks() { return store().ChildrenOf(kVmId, VM_CLEANER_ENTITY_DISK); }

    RestoreCtx ctx;
};

TEST_F(RestoreFinishTest, AttachedDataDisksLeaveTheCleanerAndAnUnattachableOneIsDeleted) {
    cloud().FailWhen("AttachDisk", [](const fakecloud::Call& c) { return c.Arg(1) == "d-new-data2"; },
                     {"InstanceDiskLimitExceeded: full", true});
    plugin.AttachDataDisksToRestoredVM(ctx);

    auto attaches = cloud().CallsTo("AttachDisk");
    ASSERT_EQ(2u, attaches.size());  // neither the OS disk nor a disk of another kind
    EXPECT_EQ((std::vector<std::string>{kInstance, "d-new-data1", "true"}), attaches[0].args);
    EXPECT_EQ("d-new-data2", attaches[1].Arg(1));
    auto attached = cloud().DisksAttachedTo(kInstance);
    EXPECT_NE(attached.end(), std::find(attached.begin(), attached.end(), "d-new-data1"));
    EXPECT_EQ(0u, cloud().disks.count("d-new-data2"));
    EXPECT_EQ(std::vector<std::string>{"d-new-os"}, RegisteredDisks());
    EXPECT_EQ(std::vector<std::string>{"Failed to attach data disk [d-new-data2] to instance [i-new]."},
              fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine(kAttachDataDisksToRestoredVM, "Deleting disk [d-new-data2]."));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
}

TEST_F(RestoreFinishTest, ADiskThatCanNeitherBeAttachedNorDeletedStaysRegistered) {
    cloud().FailWhen("AttachDisk", [](const fakecloud::Call& c) { return c.Arg(1) == "d-new-data1"; },
                     {"InvalidOperation: no", false});
    cloud().FailNext("DeleteDisk", "InternalError: later");
    plugin.AttachDataDisksToRestoredVM(ctx);
    EXPECT_EQ(1u, cloud().disks.count("d-new-data1"));
    EXPECT_EQ((std::vector<std::string>{"d-new-os", "d-new-data1"}), RegisteredDisks());
    EXPECT_EQ((std::vector<std::string>{"Failed to attach data disk [d-new-data1] to instance [i-new].",
                                        "Failed to delete disk [d-new-data1]."}),
              fakefw::ErrorTexts());
}

TEST_F(RestoreFinishTest, WithoutTheVMEntityTheDisksAreStillAttached) {
    ctx.tempVMId = "unknown";
    plugin.AttachDataDisksToRestoredVM(ctx);
    EXPECT_EQ(2, cloud().Count("AttachDisk"));
    EXPECT_EQ((std::vector<std::string>{"Could not find VM [unknown] registered with cleaner.",
                                        "Failed to unregister disk [d-new-data1].",
                                        "Failed to unregister disk [d-new-data2]."}),
              fakefw::ErrorTexts());
    EXPECT_EQ(3u, RegisteredDisks().size());
}

TEST_F(RestoreFinishTest, PeripheralComponentsComeFromTheConfigurationTextAndFailOnlyWithAWarning) {
    plugin.SetConfigContent(restoreworld::kConfigText);
    EXPECT_TRUE(plugin.AddPeripheralComponents(ctx));
    auto calls = cloud().CallsTo("AddPeripheralComponents");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((std::vector<std::string>{kInstance, restoreworld::kConfigText}), calls[0].args);

    cloud().FailNext("AddPeripheralComponents", "InvalidTagKey.Malformed: bad");
    EXPECT_FALSE(plugin.AddPeripheralComponents(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_EQ(std::vector<std::string>{"WARNING!! Failed to add peripheral components. Error - [InvalidTagKey.Malformed: bad]"},
              fakefw::ErrorTexts());
}

TEST_F(RestoreFinishTest, PostRestorePowersOnWhenAskedAndRemovesTheTemporaryObjects) {
    struct Case {
        bool powerOn;
        bool powerOnFails;
        std::string status;
    };
    for (const Case& c : {Case{false, false, "Stopped"}, Case{true, false, "Running"}, Case{true, true, "Stopped"}}) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        TestPlugin fresh;
        Arrange(fresh);
        ctx.powerOnAfterRestore = c.powerOn;
        if (c.powerOnFails) cloud().FailNext("PowerOnInstance", "IncorrectInstanceStatus: no");
        fresh.AttachDataDisksToRestoredVM(ctx);

        EXPECT_EQ(1, fresh.PostRestoreVM(ctx)) << c.powerOn << c.powerOnFails;
        EXPECT_EQ(c.powerOn ? 1 : 0, cloud().Count("PowerOnInstance"));
        EXPECT_EQ(c.status, cloud().instances.at(kInstance).status);
        EXPECT_EQ(c.powerOnFails, fakefw::HasLine(kPostRestoreVM, "Failed to power on instance [i-new]."));
        // Only the instance and its data disks stay; nothing stays registered.
        EXPECT_TRUE(cloud().images.empty());
        EXPECT_TRUE(cloud().snapshots.empty());
        EXPECT_EQ(0u, cloud().disks.count("d-new-os"));
        EXPECT_EQ(1u, cloud().disks.count("d-new-data1"));
        EXPECT_EQ(1u, cloud().disks.count("d-new-data2"));
        EXPECT_TRUE(store().Empty()) << fakefw::Dump();
        EXPECT_FALSE(fakefw::HasLine("WARNING!! Cleanup not successful."));
    }
}

TEST_F(RestoreFinishTest, AFailedCleanUpOnlyWarnsAndKeepsTheVMEntityForALaterRun) {
    cloud().FailNext("DeleteImage", "DependencyViolation: in use");
    EXPECT_EQ(1, plugin.PostRestoreVM(ctx));
    EXPECT_TRUE(fakefw::HasLine(kPostRestoreVM, "WARNING!! Cleanup not successful."));
    EXPECT_EQ(1u, cloud().images.count("m-os"));
    // Snapshots and disks were still tried.
    EXPECT_TRUE(cloud().snapshots.empty());
    EXPECT_EQ(0u, cloud().disks.count("d-new-os"));
    EXPECT_TRUE(store().HasVM(kVmId));
    EXPECT_EQ(std::vector<std::string>{"m-os"}, store().ChildrenOf(kVmId, VM_CLEANER_ENTITY_TEMPLATE));
}

TEST_F(RestoreFinishTest, CleanupRestoreRemovesEverythingRegisteredButTheInstance) {
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH, "from the failure");
    EXPECT_EQ(1, plugin.CleanupRestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kCleanupRestoreVM, "Cleaning up VM [tmp-vm]."));
    EXPECT_TRUE(store().Empty());
    EXPECT_TRUE(cloud().images.empty());
    EXPECT_TRUE(cloud().snapshots.empty());
    for (const char* disk : {"d-new-os", "d-new-data1", "d-new-data2"}) EXPECT_EQ(0u, cloud().disks.count(disk)) << disk;
    EXPECT_EQ(1u, cloud().instances.count(kInstance));
}

TEST_F(RestoreFinishTest, CleanupRestoreRefusals) {
    RestoreCtx otherFlavour = ctx;
    otherFlavour.restoreFlavor = 0;
    EXPECT_EQ(0, plugin.CleanupRestoreVM(otherFlavour));
    EXPECT_TRUE(fakefw::HasLine(kCleanupRestoreVM, "Restore flavor [0] not implemented."));

    RestoreCtx unknown = ctx;
    unknown.tempVMId = "unknown";
    EXPECT_EQ(0, plugin.CleanupRestoreVM(unknown));
    EXPECT_TRUE(fakefw::HasLine("VM [unknown] not found with cleaner. WARNING: Cleanup not be done!!"));

    fakefw::Mapper().FailNext("Init");
    EXPECT_EQ(0, plugin.CleanupRestoreVM(ctx));
    // Nothing was removed by any of them.
    EXPECT_EQ(1u, cloud().images.count("m-os"));
    EXPECT_EQ(3u, RegisteredDisks().size());
}

}  // namespace
