// Removal paths: detaching around the mapper's bracket, the flags and codes of an
// instance's cleanup, image cleanup, the orphan sweep's gate, and the restore-side loops
// and hooks that share them.
#include <gtest/gtest.h>

#include "BackupWorld.h"
#include "ExpectedTags.h"

using backupworld::Job;

namespace {

class CleanupPathsTest : public BackupFixture {
protected:
    // Registers `vmGuid` with a ready cleaner on a plug-in that knows the proxy.
    void Prepare(TestPlugin& plugin, VM_Cleaner_Mode mode, const std::string& vmGuid) {
        plugin.SetProxy(ProxyRecord());
        ASSERT_TRUE(plugin._InitMount());
        ASSERT_TRUE(plugin.Cleaner().RegisterVM(mode, vmGuid));
    }
    static SDisk CloudDisk(const std::string& id) {
        SDisk d;
        d.diskId = id;
        d.diskType = 1;
        return d;
    }
};

TEST_F(CleanupPathsTest, AFailedPreDetachSkipsThatDisksDetachOnly) {
    struct Case {
        const char* name;
        const char* tag;
        bool throughRegistry;
    };
    const Case cases[] = {
        {"registry", "bool CAliCloudInfo::DetachDisks_DiskInfo(const string&, const std::vector<VMInfoStructs::SDisk>&)",
         true},
        {"bridge", "bool CAliCloudInfo::DetachDisks_BridgeObj(const string&, const std::vector<VMInfoStructs::SDisk>&)",
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        MountCtx ctx;
        MountSource(plugin, ctx);
        std::vector<SDisk> copies;
        for (const SDisk& d : ctx.vmInfo.disks) {
            VmdkHandle handle;
            ASSERT_EQ(1, plugin.OpenVmdk("web-01", "i-src", d.newDiskId, handle));
            copies.push_back(CloudDisk(d.newDiskId));
        }
        fakefw::Mapper() = fakefw::MapperScript{};
        fakefw::Mapper().FailNext("PreDetatchDisk");
        const bool ok = c.throughRegistry ? plugin.DetachDisks_DiskInfo("i-src", copies)
                                          : plugin.DetachDisks_BridgeObj("i-proxy", copies);
        EXPECT_TRUE(ok);  // a skipped disk does not fail the pass
        EXPECT_EQ((std::vector<std::string>{"PreDetatchDisk ", "PreDetatchDisk ", "PostDetatchDisk "}), MapperTrace());
        EXPECT_TRUE(fakefw::HasLine(c.tag, "DiskMapper PreDetach() failed for disk [" + copies[0].diskId + "]."));
        const auto detached = cloud().CallsTo("DetachDisk");
        ASSERT_EQ(1u, detached.size());
        EXPECT_EQ(copies[1].diskId, detached[0].Arg(1));
        EXPECT_EQ(std::vector<std::string>{copies[0].diskId}, cloud().DisksAttachedTo("i-proxy"));
    }
}

TEST_F(CleanupPathsTest, CleanupVMClearsTheLastErrorAndTakesOnlyWhatACrashedJobLeft) {
    struct Case {
        const char* name;
        bool orphaned;
        bool removed;
    };
    for (const Case& c : {Case{"left by a crashed job", true, true}, Case{"held by a running job", false, false}}) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin mounter;
        MountCtx ctx;
        MountSource(mounter, ctx);
        if (c.orphaned) store().MarkOrphaned("i-src");
        const auto copies = cloud().CreatedDisks();

        TestPlugin cleaner;
        cleaner.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
        EXPECT_EQ(1, cleaner.CleanupVM(ctx));
        EXPECT_EQ(VMINFO_ERR_NONE, cleaner.GetLastVMError());
        EXPECT_EQ(!c.removed, store().HasVM("i-src"));
        EXPECT_EQ(c.removed ? std::vector<std::string>{} : copies, cloud().CreatedDisks());
        EXPECT_EQ(c.removed ? 0u : 2u, cloud().snapshots.size());
    }
}

TEST_F(CleanupPathsTest, AnInstanceWhoseDisksOrSnapshotsCannotGoKeepsItsEntryAndReportsWhich) {
    struct Case {
        const char* name;
        const char* op;
        EVMInfoError code;
    };
    for (const Case& c : {Case{"disks", "DeleteDisk", VMINFO_ERR_DISK_CLEANUP},
                          Case{"snapshots", "DeleteSnapshot", VMINFO_ERR_SNAPSHOT_CLEANUP}}) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        MountCtx ctx;
        MountSource(plugin, ctx);
        cloud().FailNext(c.op, "OperationDenied: busy", 2);
        EXPECT_FALSE(plugin._CleanupMountedVM(VM_CLEANER_MODE_BACKUP, "i-src", false, true, true));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        EXPECT_EQ("OperationDenied: busy", plugin.GetLastVMErrorDetails());
        EXPECT_TRUE(store().HasVM("i-src"));
        // Each kind is cleaned whatever the other gave.
        EXPECT_EQ(std::string(c.op) == "DeleteDisk" ? 0u : 2u, cloud().snapshots.size());
        EXPECT_EQ(std::string(c.op) == "DeleteDisk" ? 2u : 0u, cloud().CreatedDisks().size());
    }
}

TEST_F(CleanupPathsTest, ImagesAreDeletedInTheProxysRegionAndFailuresAreNamed) {
    TestPlugin plugin;
    Prepare(plugin, VM_CLEANER_MODE_RESTORE, "tmp-1");
    for (const char* id : {"img-1", "img-2", "img-3"}) {
        cloud().images[id] = fakecloud::Image{id, "cn-hangzhou", "s-x", "x86_64", "Linux", ""};
        ASSERT_TRUE(plugin.Cleaner().RegisterTemplate(VM_CLEANER_MODE_RESTORE, "tmp-1", id));
    }
    cloud().FailNext("DeleteImage", "InvalidImageId.NotFound: no");
    cloud().beforeCall = [&](const fakecloud::Call& call) {  // the unregistration after img-2's deletion fails
        if (call.op == "DeleteImage" && call.Arg(1) == "img-2") store().FailNext("UnRegisterEntity");
    };
    EXPECT_FALSE(plugin._CleanupImages(VM_CLEANER_MODE_RESTORE, "tmp-1", false));

    std::vector<std::vector<std::string>> args;
    for (const auto& call : cloud().CallsTo("DeleteImage")) args.push_back(call.args);
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"cn-hangzhou", "img-1", "true"},
                                                     {"cn-hangzhou", "img-2", "true"},
                                                     {"cn-hangzhou", "img-3", "true"}}),
              args);
    const char* tag = "bool CAliCloudInfo::_CleanupImages(VM_Cleaner_Mode, const string&, bool)";
    EXPECT_TRUE(fakefw::HasLine(tag, "Failed to delete image [img-1]."));
    EXPECT_TRUE(fakefw::HasLine(tag, "Failed to unregister template [img-2]."));
    EXPECT_EQ((std::vector<std::string>{"Failed to delete image [img-1].", "Failed to unregister template [img-2]."}),
              fakefw::ErrorTexts());
    EXPECT_EQ((std::vector<std::string>{"img-1", "img-2"}), store().ChildrenOf("tmp-1", VM_CLEANER_ENTITY_TEMPLATE));
}

TEST_F(CleanupPathsTest, AnInstanceEntryThatCannotBeUnregisteredIsOnlyLogged) {
    struct Case {
        const char* name;
        VM_Cleaner_Mode mode;
        const char* tag;
    };
    const Case cases[] = {
        {"backup", VM_CLEANER_MODE_BACKUP,
         "bool CAliCloudInfo::_CleanupMountedVM(VM_Cleaner_Mode, const string&, bool, bool, bool)"},
        {"restore", VM_CLEANER_MODE_RESTORE, "bool CAliCloudInfo::_CleanupRestoreVM(std::string, bool, bool)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        Prepare(plugin, c.mode, "vm-1");
        store().FailNext("UnRegisterEntity");
        const bool ok = c.mode == VM_CLEANER_MODE_BACKUP
                            ? plugin._CleanupMountedVM(VM_CLEANER_MODE_BACKUP, "vm-1", false, true, false)
                            : plugin._CleanupRestoreVM("vm-1", false, false);
        EXPECT_TRUE(ok);
        EXPECT_TRUE(fakefw::HasLine(c.tag, "Failed to unregister VM [vm-1]"));
        EXPECT_TRUE(store().HasVM("vm-1"));
    }
}

TEST_F(CleanupPathsTest, TheSweepLeavesOrphansAloneWhenTheFrameworkSaysNoCleanupIsDue) {
    const int orphan = store().AddOrphanVM(VM_CLEANER_MODE_BACKUP, "i-old");
    store().AddChild(orphan, VM_CLEANER_ENTITY_DISK, "d-old");
    store().SetCleanupRequired(false);
    TestPlugin plugin;
    MountCtx ctx = Job();
    ASSERT_EQ(1, plugin.MountVM(ctx));
    EXPECT_TRUE(plugin.OrphansCleaned());
    EXPECT_TRUE(store().HasVM("i-old"));
    EXPECT_EQ(0, store().CallCount("GetOrphanedRootEntityListByType"));
    EXPECT_EQ(0, store().postAllVMCleanupCalls);
    EXPECT_EQ(0, cloud().Count("DeleteDisk"));
}

TEST_F(CleanupPathsTest, SnapshotLoopStopsOnCancelAndRegistersOnlyWhenAsked) {
    const char* tag =
        "bool CAliCloudInfo::_CreateSnapshots(const string&, std::vector<VMInfoStructs::SDisk>&, VM_Cleaner_Mode)";
    struct Case {
        const char* name;
        VM_Cleaner_Mode mode;
        int cancelAfterChecks;  // -1: never
        bool registrationFails;
        bool result;
        EVMInfoError code;
        size_t snapshots, registered;
        std::string line;  // {1} stands for the first snapshot id
    };
    const Case cases[] = {
        {"cancelled at once", VM_CLEANER_MODE_RESTORE, 0, false, false, VMINFO_ERR_JOB_CANCELLED, 0, 0,
         "Detected Quit flag"},
        {"cancelled before the second disk", VM_CLEANER_MODE_RESTORE, 1, false, false, VMINFO_ERR_JOB_CANCELLED, 1, 1,
         "Detected Quit flag"},
        {"mode none", VM_CLEANER_MODE_NONE, -1, false, true, VMINFO_ERR_NONE, 2, 0, "Snapshot [{1}] for disk [d-os]."},
        {"registration refused", VM_CLEANER_MODE_RESTORE, -1, true, true, VMINFO_ERR_NONE, 2, 1,
         "Failed to register snapshot [{1}] with cleaner!! Snapshot may not be cleaned up."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        Prepare(plugin, VM_CLEANER_MODE_RESTORE, "tmp-1");
        std::vector<SDisk> disks = {CloudDisk("d-os"), CloudDisk("d-data")};
        if (c.cancelAfterChecks >= 0) fakefw::CancelAfterChecks(c.cancelAfterChecks);
        if (c.registrationFails) store().FailNext("RegisterEntity");
        EXPECT_EQ(c.result, plugin._CreateSnapshots("tmp-1", disks, c.mode));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        EXPECT_EQ(c.snapshots, cloud().snapshots.size());
        EXPECT_EQ(c.registered, store().ChildrenOf("tmp-1", VM_CLEANER_ENTITY_SNAPSHOT).size());
        EXPECT_EQ(c.registrationFails ? 1u : 0u, fakefw::ErrorTexts().size());  // mode none does not even try
        std::string line = c.line;
        if (const size_t at = line.find("{1}"); at != std::string::npos) line.replace(at, 3, disks[0].snapshotId);
        EXPECT_TRUE(fakefw::HasLine(tag, line)) << line;
    }
}

TEST_F(CleanupPathsTest, PreRestoreReportsWhetherEveryWrittenDiskWasDetached) {
    for (const bool detachFails : {false, true}) {
        SCOPED_TRACE(detachFails ? "a detach fails" : "all detached");
        SetUp();
        cloud().AddDisk("d-w1", "i-proxy", 40, false);
        cloud().AddDisk("d-w2", "i-proxy", 100, false);
        if (detachFails) cloud().FailNext("DetachDisk", "IncorrectDiskStatus: busy");
        TestPlugin plugin;
        plugin.SetProxy(ProxyRecord());
        RestoreCtx ctx;
        ctx.disks = {CloudDisk("d-w1"), CloudDisk("d-w2")};
        EXPECT_EQ(detachFails ? 0 : 1, plugin.PreRestoreVM(ctx));
        EXPECT_TRUE(fakefw::HasLine("virtual int CAliCloudInfo::PreRestoreVM(const RestoreCtx&)", "Doing PreRestoreVM."));
        EXPECT_EQ(2, cloud().Count("DetachDisk"));  // the failure does not stop the pass
        EXPECT_EQ(detachFails ? std::vector<std::string>{"d-w1"} : std::vector<std::string>{},
                  cloud().DisksAttachedTo("i-proxy"));
    }
}

TEST_F(CleanupPathsTest, InstancePropertiesAreRefusedForAnotherRestoreFlavour) {
    TestPlugin plugin;
    RestoreCtx ctx;
    ctx.restoreFlavor = 2;
    ctx.vmName = "web-restored";
    ctx.vmInfo.name = "from-the-framework";
    EXPECT_FALSE(plugin.PrepareRestoreCtxVMInfo(ctx));
    EXPECT_TRUE(fakefw::HasLine("bool CAliCloudInfo::PrepareRestoreCtxVMInfo(const RestoreCtx&)",
                                "Restore flavor [2] not implemented."));
    EXPECT_EQ(std::vector<std::string>{"Restore flavor [2] not implemented."}, fakefw::ErrorTexts());
    EXPECT_EQ("from-the-framework", ctx.vmInfo.name);  // nothing laid over it
    EXPECT_EQ(0, cloud().Count("GetVMInfoFromConfigFile"));
}

}  // namespace
