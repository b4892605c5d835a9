// Teardown and orphan cleanup: every item is tried, what could not be removed stays
// registered (with its instance) so that a later sweep tries again, and the sweep of
// earlier processes' leftovers runs once per plug-in object.
#include <gtest/gtest.h>

#include "BackupWorld.h"
#include "ExpectedTags.h"

using namespace expected_tags;
using backupworld::Job;

namespace {

class BackupTeardownTest : public BackupFixture {
protected:
    // Proxy known and cleaner open, as after a mount's preparation.
    void Prepare(TestPlugin& plugin) {
        MountCtx ctx = Job();
        ASSERT_TRUE(plugin._InitProxyInfoForBackup(ctx));
        ASSERT_TRUE(plugin._InitMount());
    }
    void AddCloudDisk(const std::string& id) {
        cloud().disks[id].info.diskId = id;
        cloud().disks[id].info.zone = backupworld::kZone;
    }
    std::string PathOf(TestPlugin& plugin, VM_Cleaner_Mode mode, const std::string& vm) {
        std::string path;
        EXPECT_TRUE(plugin.Cleaner().GetRegisteredVM(mode, vm, path, false));
        return path;
    }
};

TEST_F(BackupTeardownTest, AFailedSnapshotDeletionKeepsTheInstanceRegisteredForTheNextSweep) {
    MountCtx ctx = Job();
    {
        TestPlugin plugin;
        ASSERT_EQ(1, plugin.MountVM(ctx));
        cloud().FailNext("DeleteSnapshot", "IncorrectSnapshotStatus: in use");
        EXPECT_EQ(0, plugin.UnmountVM(ctx));
        EXPECT_EQ(VMINFO_ERR_SNAPSHOT_CLEANUP, plugin.GetLastVMError());
        EXPECT_EQ("IncorrectSnapshotStatus: in use", plugin.GetLastVMErrorDetails());
        EXPECT_EQ(std::vector<std::string>{"Failed to delete snapshot [" + ctx.vmInfo.disks[0].snapshotId + "]."},
                  fakefw::ErrorTexts());
        EXPECT_TRUE(cloud().CreatedDisks().empty());  // the disks went all the same
        EXPECT_EQ(std::vector<std::string>{ctx.vmInfo.disks[0].snapshotId},
                  store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT));
        EXPECT_TRUE(store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK).empty());
        EXPECT_EQ(nullptr, plugin.DiskRegistry()->FindVMHandle("i-src"));
    }
    store().MarkOrphaned("i-src");

    TestPlugin next;
    Prepare(next);
    MountCtx other = Job("i-other");
    ASSERT_TRUE(next.RegisterCleanerForBackup(other));
    EXPECT_TRUE(cloud().snapshots.empty());
    EXPECT_FALSE(store().HasVM("i-src"));
    EXPECT_TRUE(store().HasVM("i-other"));
    EXPECT_EQ(1, store().postAllVMCleanupCalls);
    EXPECT_TRUE(fakefw::HasLine(k_CleanupAllVMs, "Cleaning up [1] VMs"));
    EXPECT_TRUE(fakefw::HasLine(k_CleanupAllVMs, "Cleaned up [1] of [1] VMs"));

    // Once per object: a later orphan waits for the next plug-in object.
    store().AddOrphanVM(VM_CLEANER_MODE_BACKUP, "i-late");
    const int sweeps = store().CallCount("IsAllVMCleanupRequired");
    ASSERT_TRUE(next.RegisterCleanerForBackup(Job("i-third")));
    EXPECT_TRUE(store().HasVM("i-late"));
    EXPECT_EQ(sweeps, store().CallCount("IsAllVMCleanupRequired"));
}

TEST_F(BackupTeardownTest, TheSweepRecordsItselfOnlyWhenItCouldReadTheOrphans) {
    struct Case { const char* name; bool orphan; bool listFails; int posts; bool lines; };
    for (const Case& c : {Case{"no orphans", false, false, 1, false}, Case{"unreadable list", true, true, 0, false},
                          Case{"one orphan", true, false, 1, true}}) {
        SCOPED_TRACE(c.name);
        SetUp();
        if (c.orphan) store().AddOrphanVM(VM_CLEANER_MODE_BACKUP, "i-old");
        store().SetCleanupRequired(true);
        if (c.listFails) store().FailNext("GetOrphanedRootEntityListByType");
        TestPlugin plugin;
        Prepare(plugin);
        EXPECT_TRUE(plugin._CleanupAllVMs(VM_CLEANER_MODE_BACKUP));
        EXPECT_EQ(c.posts, store().postAllVMCleanupCalls);
        EXPECT_EQ(c.lines, !fakefw::TextsWithTag(k_CleanupAllVMs).empty());
        EXPECT_EQ(c.orphan && c.listFails, store().HasVM("i-old"));
    }
}

TEST_F(BackupTeardownTest, DeletionTriesEveryItemAndUnregistersOnlyWhatIsGone) {
    TestPlugin plugin;
    Prepare(plugin);
    auto& cleaner = plugin.Cleaner();
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, "i-x"));
    for (const char* id : {"d-unsure", "d-gone", "d-stuck"}) ASSERT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-x", id));
    for (const char* id : {"s-gone", "s-unsure"}) ASSERT_TRUE(cleaner.RegisterSnapshot(VM_CLEANER_MODE_BACKUP, "i-x", id));
    AddCloudDisk("d-unsure");
    AddCloudDisk("d-stuck");
    AddCloudDisk("d-skipped");
    cloud().snapshots["s-unsure"].id = "s-unsure";
    cloud().FailNext("DoesDiskExist", "ServiceUnavailable");
    cloud().FailWhen("DeleteDisk", [](const fakecloud::Call& call) { return call.Arg(0) == "d-stuck"; },
                     {"IncorrectDiskStatus: in use", false});
    cloud().FailCall("DoesSnapshotExist", 2, {"ServiceUnavailable", false});
    const std::string path = PathOf(plugin, VM_CLEANER_MODE_BACKUP, "i-x");

    std::vector<SDisk> disks;
    ASSERT_TRUE(cleaner.GetRegisteredDisks(path, disks));
    disks.push_back(disks[0]);
    disks.back().diskId = "d-skipped";
    disks.back().filtered = true;
    EXPECT_FALSE(plugin.DeleteDisks(path, disks));
    EXPECT_EQ(std::vector<std::string>{"d-stuck"}, store().ChildrenOf("i-x", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ(1u, cloud().disks.count("d-skipped"));
    EXPECT_EQ((std::vector<std::string>{"Failed to determine if disk [d-unsure] exists."}), fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine(kDeleteDisks, "Disk [d-gone] not found in region [cn-hangzhou]. Skipping deletion..."));
    EXPECT_TRUE(fakefw::HasLine(kDeleteDisks, "Failed to delete disk [d-stuck]"));
    EXPECT_EQ(3, cloud().Count("DoesDiskExist"));

    EXPECT_TRUE(plugin._CleanUpSnapshots(path));
    EXPECT_TRUE(store().ChildrenOf("i-x", VM_CLEANER_ENTITY_SNAPSHOT).empty());
    EXPECT_TRUE(fakefw::HasLine(kDeleteSnapshots, "Failed to determine if Snapshot [s-unsure] exists."));
    EXPECT_EQ(1, cloud().Count("DeleteSnapshot"));
}

TEST_F(BackupTeardownTest, ARestoreCleanupDeletesImagesFirstAndKeepsWhatFailed) {
    TestPlugin plugin;
    Prepare(plugin);
    const int vm = store().AddOrphanVM(VM_CLEANER_MODE_RESTORE, "guid-r");
    for (const char* id : {"m-stuck", "m-ok"}) {
        store().AddChild(vm, VM_CLEANER_ENTITY_TEMPLATE, id);
        cloud().images[id].id = id;
    }
    store().AddChild(vm, VM_CLEANER_ENTITY_DISK, "d-r");
    AddCloudDisk("d-r");
    cloud().disks["d-r"].attachedTo = "i-proxy";
    cloud().FailNext("DeleteImage", "InvalidImageId.IncorrectStatus");  // m-stuck, the first
    cloud().calls.clear();

    EXPECT_FALSE(plugin._CleanupRestoreVM("guid-r", false, false));
    EXPECT_EQ(std::vector<std::string>{"m-stuck"}, store().ChildrenOf("guid-r", VM_CLEANER_ENTITY_TEMPLATE));
    EXPECT_TRUE(store().ChildrenOf("guid-r", VM_CLEANER_ENTITY_DISK).empty());
    EXPECT_EQ(0u, cloud().disks.count("d-r"));
    EXPECT_TRUE(store().HasVM("guid-r"));
    EXPECT_EQ((std::vector<std::string>{"DeleteImage", "DeleteImage", "DetachDisk", "DoesDiskExist", "DeleteDisk"}),
              Ops());
    EXPECT_EQ((std::vector<std::string>{"i-proxy", "d-r", "cn-hangzhou"}), cloud().CallsTo("DetachDisk")[0].args);

    cloud().calls.clear();
    EXPECT_TRUE(plugin._CleanupRestoreVM("guid-r", false, false));
    EXPECT_FALSE(store().HasVM("guid-r"));
    EXPECT_FALSE(plugin._CleanupRestoreVM("guid-r", false, false));
    EXPECT_TRUE(fakefw::HasLine(k_CleanupRestoreVM, "VM [guid-r] not found with cleaner. WARNING: Cleanup not be done!!"));
    EXPECT_TRUE(plugin._CleanupMountedVM(VM_CLEANER_MODE_BACKUP, "i-never", false, true, true));
    EXPECT_EQ(1, cloud().Count("DeleteImage"));  // nothing more reached the cloud
}

}  // namespace
