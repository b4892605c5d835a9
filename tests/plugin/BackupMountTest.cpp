// Mounting an instance for backup: the refusals, the snapshot phase and the disks made from
// the snapshots, with what each failure leaves registered for cleanup.
#include <gtest/gtest.h>

#include "BackupWorld.h"
#include "FxUtil.h"
#include "ExpectedTags.h"

using namespace expected_tags;
using backupworld::Job;

namespace {

class BackupMountTest : public BackupFixture {};

TEST_F(BackupMountTest, RefusalsStopBeforeTheCleanerAndTheCloudAreTouched) {
    struct Case {
        const char* name;
        std::string vmGuid;
        std::function<void()> arrange;
        EVMInfoError code;
        std::string error;
        std::string details;
    };
    const std::vector<Case> cases = {
        {"proxy itself", "i-proxy", [] { fakecloud::TheCloud().AddDisk("d-p", "i-proxy", 40, true); },
         VMINFO_ERR_PROXY_SELF_BACKUP, "Proxy VM can't backup itself.", ""},
        {"zone differs in case only", "i-up",
         [] { fakecloud::TheCloud().AddInstance("i-up", "up", "cn-hangzhou", "CN-HANGZHOU-K");
              fakecloud::TheCloud().AddDisk("d-up", "i-up", 40, true); },
         VMINFO_ERR_ZONE_MISMATCH, "Proxy region [cn-hangzhou-k] and instance zone [CN-HANGZHOU-K] are different.",
         "Proxy region [cn-hangzhou-k] and instance zone [CN-HANGZHOU-K] are different."},
        {"other zone", "i-far",
         [] { fakecloud::TheCloud().AddInstance("i-far", "far", "cn-hangzhou", "cn-hangzhou-a");
              fakecloud::TheCloud().AddDisk("d-far", "i-far", 40, true); },
         VMINFO_ERR_ZONE_MISMATCH, "Proxy region [cn-hangzhou-k] and instance zone [cn-hangzhou-a] are different.",
         "Proxy region [cn-hangzhou-k] and instance zone [cn-hangzhou-a] are different."},
        {"no disks", "i-bare", [] { fakecloud::TheCloud().AddInstance("i-bare", "bare", "cn-hangzhou", "cn-hangzhou-k"); },
         VMINFO_ERR_NO_DISKS, "Empty disk list for instance. nothing to backup", ""},
        // By now the proxy's description is cached: a new object has not detected its id.
        {"proxy itself, described from the cache", "i-proxy", [] { fakecloud::TheCloud().AddDisk("d-p", "i-proxy", 40, true); },
         VMINFO_ERR_PROXY_SELF_BACKUP, "Proxy VM can't backup itself.", ""},
        {"unknown instance", "i-gone", [] {}, VMINFO_ERR_VM_NOT_FOUND, "Source instance [i-gone] is not found.", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakefw::Reset();
        fakecloud::Reset();
        backupworld::Build();
        c.arrange();
        TestPlugin plugin;
        MountCtx ctx = Job(c.vmGuid);
        EXPECT_EQ(0, plugin.MountVM(ctx));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        EXPECT_EQ(c.details, plugin.GetLastVMErrorDetails());
        EXPECT_EQ(std::vector<std::string>{c.error}, fakefw::ErrorTexts());
        EXPECT_EQ(0, store().CallCount("Init"));
        EXPECT_TRUE(store().Empty());
        EXPECT_EQ(0, cloud().Count("CreateSnapshot"));
    }
}

TEST_F(BackupMountTest, ARefusedInstanceRegistrationEndsTheMountBeforeAnySnapshot) {
    store().FailAlways("RegisterEntity");
    TestPlugin plugin;
    MountCtx ctx = Job();
    EXPECT_EQ(0, plugin.MountVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    const auto lines = fakefw::LinesWithText("Failed to register VM [i-src]");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(kRegisterCleanerForBackup, lines[0].tag);
    EXPECT_FALSE(lines[0].isError());
    EXPECT_TRUE(fakefw::ErrorTexts().empty());  // _MountVM never ran: no "failed to mount" either
    EXPECT_EQ(0, cloud().Count("CreateSnapshot"));
}

TEST_F(BackupMountTest, MountSnapshotsEveryDiskWaitsAndMakesRegisteredCopies) {
    cloud().snapshotPolls = 2;  // each snapshot answers "not yet" twice
    TestPlugin plugin;
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    MountCtx ctx = Job();
    ASSERT_EQ(1, plugin.MountVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());

    ASSERT_EQ(2u, ctx.vmInfo.disks.size());
    const auto snaps = store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT);
    EXPECT_EQ(backupworld::SnapshotIds(ctx), snaps);
    std::vector<std::string> copies;
    for (const auto& d : ctx.vmInfo.disks) {
        EXPECT_EQ(d.newDiskId, d.devicePath);  // the device name comes with the attach
        copies.push_back(d.newDiskId);
    }
    EXPECT_EQ(copies, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ(copies, cloud().CreatedDisks());
    // Copies are made in the source disk's zone, from its snapshot, with its category.
    auto creates = cloud().CallsTo("CreateDisk");
    ASSERT_EQ(2u, creates.size());
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "cn-hangzhou-k", snaps[1], "", "cloud_efficiency", "0", "false", ""}),
              creates[1].args);

    // Two polls per snapshot, one wait of 20 s each, one level-5 line per wait.
    EXPECT_EQ(6, cloud().Count("IsSnapshotCompleted"));
    ASSERT_EQ(4u, fakefw::Sleeps().size());
    for (const auto& s : fakefw::Sleeps()) EXPECT_EQ(20000u, s.milliseconds);
    auto waits = fakefw::LinesWithText("Snapshot [" + snaps[0] + "] not yet completed. Waiting for [20] seconds.");
    ASSERT_EQ(2u, waits.size());
    EXPECT_EQ(5, waits[0].level);

    std::string saved;
    ASSERT_TRUE(ReadWholeFile(backupworld::ConfigPath(ctx), saved));
    EXPECT_EQ(cloud().instances["i-src"].configText, saved);
    EXPECT_TRUE(fakefw::HasLine(kMountVM, "VM [i-src] mounted successfully."));
}

TEST_F(BackupMountTest, FilteredDisksAreSnapshottedButGetNoCopy) {
    cloud().disks["d-data"].info.diskType = 2;  // not a cloud disk: ignored by every cloud step
    TestPlugin plugin;
    MountCtx ctx = Job();
    ctx.excludedDisks = {"d-os"};
    ASSERT_EQ(1, plugin.MountVM(ctx));
    EXPECT_EQ(1, ctx.filteredDiskCount);
    EXPECT_TRUE(ctx.vmInfo.disks[0].filtered);
    EXPECT_FALSE(ctx.vmInfo.disks[0].snapshotId.empty());
    EXPECT_TRUE(ctx.vmInfo.disks[1].snapshotId.empty());
    EXPECT_EQ(1, cloud().Count("CreateSnapshot"));
    EXPECT_EQ(0, cloud().Count("CreateDisk"));
    EXPECT_TRUE(fakefw::HasLine(kCreateDisksFromSnapshots, "Not creating new disk for filtered disk [d-os]."));
}

TEST_F(BackupMountTest, AnEmptyDiskListReachingTheSnapshotPhaseFails) {
    TestPlugin plugin;
    MountCtx ctx;
    EXPECT_FALSE(plugin.TakeSnapshots(ctx));
    EXPECT_EQ(VMINFO_ERR_ALL_DISKS_FILTERED, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kTakeSnapshots, "All the disks of the instance are filtered"));
}

TEST_F(BackupMountTest, AFailedSnapshotKeepsTheEarlierOneRegistered) {
    cloud().FailCall("CreateSnapshot", 2, {"QuotaExceed.Snapshot: too many", false});
    TestPlugin plugin;
    MountCtx ctx = Job();
    EXPECT_EQ(0, plugin.MountVM(ctx));
    const std::string text = "Failed to create snapshot for disk [d-data]. Error: [QuotaExceed.Snapshot: too many].";
    EXPECT_EQ(VMINFO_ERR_SNAPSHOT_CREATE, plugin.GetLastVMError());
    EXPECT_EQ(text, plugin.GetLastVMErrorDetails());
    EXPECT_EQ((std::vector<std::string>{text, "VM [i-src] failed to mount."}), fakefw::ErrorTexts());
    EXPECT_EQ(1u, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT).size());
    EXPECT_EQ(0, cloud().Count("IsSnapshotCompleted"));
}

TEST_F(BackupMountTest, ASnapshotThatNeverCompletesIsWaitedForUntilCancel) {
    cloud().snapshotPolls = 1000000;
    fakefw::OnSleep([](const fakefw::SleepRecord&) {
        if (fakefw::Sleeps().size() == 3) fakefw::CancelAfterChecks(0);
    });
    TestPlugin plugin;
    MountCtx ctx = Job();
    EXPECT_EQ(0, plugin.MountVM(ctx));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_EQ(3u, fakefw::Sleeps().size());
    EXPECT_EQ(3, cloud().Count("IsSnapshotCompleted"));  // the cancel is seen before a fourth poll
    EXPECT_TRUE(fakefw::HasLine(k_MountVM, "Detected Quit flag"));
    EXPECT_EQ(std::vector<std::string>{"VM [i-src] failed to mount."}, fakefw::ErrorTexts());
    EXPECT_EQ(2u, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT).size());
}

TEST_F(BackupMountTest, AFailedStatusQueryFailsTheMountWithTheBridgeText) {
    cloud().FailNext("IsSnapshotCompleted", "Throttling.User: slow down");
    TestPlugin plugin;
    MountCtx ctx = Job();
    EXPECT_EQ(0, plugin.MountVM(ctx));
    EXPECT_EQ(VMINFO_ERR_DISK_CREATE, plugin.GetLastVMError());
    EXPECT_EQ("Throttling.User: slow down", plugin.GetLastVMErrorDetails());
    const auto snaps = backupworld::SnapshotIds(ctx);
    EXPECT_EQ((std::vector<std::string>{"Failed to get status of snapshot [" + snaps[0] + "].",
                                        "Failed to get snapshot status. Error [Throttling.User: slow down]",
                                        "VM [i-src] failed to mount."}),
              fakefw::ErrorTexts());
}

TEST_F(BackupMountTest, DiskCreationFailingHalfWayKeepsTheFirstCopyRegistered) {
    cloud().AddDisk("d-logs", "i-src", 20);
    cloud().FailCall("CreateDisk", 2, {"OperationDenied.NoStock: no stock", false});
    TestPlugin plugin;
    MountCtx ctx = Job();
    EXPECT_EQ(0, plugin.MountVM(ctx));
    EXPECT_EQ(VMINFO_ERR_DISK_CREATE, plugin.GetLastVMError());
    EXPECT_EQ("OperationDenied.NoStock: no stock", plugin.GetLastVMErrorDetails());
    EXPECT_EQ(2, cloud().Count("CreateDisk"));  // the third disk is not tried
    EXPECT_EQ(cloud().CreatedDisks(), store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ(1u, cloud().CreatedDisks().size());
    EXPECT_EQ(3u, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT).size());
    EXPECT_TRUE(fakefw::HasLine(kCreateDisksFromSnapshots, "Failed to create disk from snapshot [" +
                                                               ctx.vmInfo.disks[1].snapshotId +
                                                               "],Error [OperationDenied.NoStock: no stock]"));
    EXPECT_FALSE(FXPath::DoesPathExist(backupworld::ConfigPath(ctx)));
}

TEST_F(BackupMountTest, LaterPhaseFailuresLeaveEverythingRegistered) {
    struct Case { const char* name; std::function<void()> arrange; int copies; EVMInfoError code; };
    const std::vector<Case> cases = {
        {"mount directory", [] { fakefw::SetPrepareMountPathResult(0); }, 0, VMINFO_ERR_NONE},
        {"cancel between copies",
         [] { fakecloud::TheCloud().beforeCall = [](const fakecloud::Call& call) {
                  if (call.op == "CreateDisk") fakefw::CancelAfterChecks(0);
              }; },
         1, VMINFO_ERR_JOB_CANCELLED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakefw::Reset();
        fakecloud::Reset();
        backupworld::Build();
        c.arrange();
        TestPlugin plugin;
        MountCtx ctx = Job();
        EXPECT_EQ(0, plugin.MountVM(ctx));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        EXPECT_TRUE(store().HasVM("i-src"));
        EXPECT_EQ(static_cast<size_t>(c.copies), store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK).size());
        EXPECT_TRUE(fakefw::HasLine(kMountVM, "VM [i-src] failed to mount."));
    }
}

}  // namespace
