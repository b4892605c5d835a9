// Whole backup jobs through the fakes: mount, mount information, open/describe/close of
// every disk and unmount; and the framework's cleanup of a job that never unmounted.
#include <gtest/gtest.h>

#include "BackupWorld.h"
#include "FxUtil.h"
#include "ExpectedTags.h"

using namespace expected_tags;
using backupworld::Job;

namespace {

class BackupJobTest : public BackupFixture {};

TEST_F(BackupJobTest, AWholeBackupReadsEveryDiskAndLeavesNothingBehind) {
    TestPlugin plugin;
    MountCtx ctx = Job();
    ASSERT_EQ(1, plugin.MountVM(ctx));

    std::vector<SMountInfoFull> info;
    ASSERT_EQ(1, plugin.GetFullMountInfo(ctx, info));
    ASSERT_EQ(3u, info.size());
    const char* sources[] = {"d-os", "d-data"};
    for (size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(sources[i]);
        ASSERT_EQ(1, info[i].entryType);
        ASSERT_EQ(1u, info[i].disks.size());
        const SDisk& entry = info[i].disks[0];
        EXPECT_EQ(ctx.vmInfo.disks[i].newDiskId, entry.devicePath);
        EXPECT_EQ(sources[i], entry.diskId);
        EXPECT_EQ(sources[i], entry.fileName);
        EXPECT_EQ(sources[i], entry.diskLabel);  // no label: the id stands in
        EXPECT_EQ(35, entry.formatCode);
        EXPECT_EQ(1u, entry.diskType);
        EXPECT_EQ(i == 0, entry.isOSDisk);
        EXPECT_EQ(ctx.vmInfo.disks[i].size, entry.diskSize);

        VmdkHandle handle;
        ASSERT_EQ(1, plugin.OpenVmdk(ctx.vmName, ctx.vmGuid, entry.devicePath, handle));
        EXPECT_EQ(std::vector<std::string>{entry.devicePath}, cloud().DisksAttachedTo("i-proxy"));
        SDisk opened;
        ASSERT_EQ(1, plugin.GetVmdkInfo(handle, opened));
        EXPECT_EQ("/dev/fake/" + entry.devicePath, opened.devicePath);
        ASSERT_EQ(1, plugin.CloseVmdk(handle));
        EXPECT_TRUE(cloud().DisksAttachedTo("i-proxy").empty());
    }
    const SDisk& file = info[2].disks.at(0);
    const std::string& text = cloud().instances["i-src"].configText;
    EXPECT_EQ(0, info[2].entryType);
    EXPECT_EQ(backupworld::ConfigPath(ctx), file.devicePath);
    EXPECT_EQ("i-src_InstanceConfig.json", file.fileName);
    EXPECT_EQ(file.fileName, file.diskLabel);
    EXPECT_EQ(4, file.contentKind);
    EXPECT_EQ(static_cast<std::int64_t>(text.size()), file.size);
    EXPECT_EQ(0, fakefw::Mapper().Count("MakeDiskWriteable"));  // read-only access for a backup

    ASSERT_EQ(1, plugin.UnmountVM(ctx));
    EXPECT_TRUE(cloud().CreatedDisks().empty());
    EXPECT_TRUE(cloud().snapshots.empty());
    EXPECT_TRUE(store().Empty());
    EXPECT_FALSE(FXPath::DoesPathExist(backupworld::ConfigPath(ctx)));
    EXPECT_EQ(nullptr, plugin.DiskRegistry()->FindVMHandle("i-src"));
    EXPECT_TRUE(fakefw::ErrorTexts().empty());
    EXPECT_TRUE(fakefw::HasLine(kUnmountVM, "VM [i-src] unmounted successfully"));
}

TEST_F(BackupJobTest, UnmountDetachesADiskTheAgentLeftOpen) {
    TestPlugin plugin;
    MountCtx ctx = Job();
    ASSERT_EQ(1, plugin.MountVM(ctx));
    VmdkHandle handle;
    ASSERT_EQ(1, plugin.OpenVmdk(ctx.vmName, ctx.vmGuid, ctx.vmInfo.disks[1].newDiskId, handle));
    ASSERT_EQ(1, plugin.UnmountVM(ctx));
    EXPECT_EQ(1, cloud().Count("DetachDisk"));
    EXPECT_TRUE(cloud().CreatedDisks().empty());
    EXPECT_TRUE(store().Empty());
}

TEST_F(BackupJobTest, CleanupOfAnAbandonedMountDetachesThroughTheBridgeAndKeepsTheFile) {
    MountCtx ctx = Job();
    {
        TestPlugin crashed;
        ASSERT_EQ(1, crashed.MountVM(ctx));
        VmdkHandle handle;
        ASSERT_EQ(1, crashed.OpenVmdk(ctx.vmName, ctx.vmGuid, ctx.vmInfo.disks[0].newDiskId, handle));
    }
    store().MarkOrphaned("i-src");  // its process is gone
    TestPlugin plugin;
    MountCtx again = ctx;
    ASSERT_EQ(1, plugin.CleanupVM(again));
    const auto detaches = cloud().CallsTo("DetachDisk");
    ASSERT_EQ(2u, detaches.size());  // one per registered copy; the unattached one just fails
    EXPECT_EQ((std::vector<std::string>{"i-proxy", ctx.vmInfo.disks[0].newDiskId, "cn-hangzhou"}), detaches[0].args);
    EXPECT_TRUE(cloud().CreatedDisks().empty());
    EXPECT_TRUE(cloud().snapshots.empty());
    EXPECT_TRUE(store().Empty());
    EXPECT_TRUE(FXPath::DoesPathExist(backupworld::ConfigPath(ctx)));
    EXPECT_TRUE(fakefw::HasLine(kCleanupVM, "Cleaning up VM [i-src] succeeded."));
}

TEST_F(BackupJobTest, MountInformationSkipsDisksWithoutCopiesAndAMissingFile) {
    TestPlugin plugin;
    MountCtx ctx;
    ctx.mountPath = backupworld::MakeMountPath() + "/";  // a trailing separator is kept as given
    ctx.vmInfo.guid = "i-src";
    ctx.vmInfo.disks.resize(3);
    ctx.vmInfo.disks[0].diskId = "d-a";
    ctx.vmInfo.disks[0].devicePath = "d-copy-a";
    ctx.vmInfo.disks[0].diskLabel = "root";
    ctx.vmInfo.disks[1].diskId = "d-b";
    ctx.vmInfo.disks[1].devicePath = "d-copy-b";
    ctx.vmInfo.disks[1].filtered = true;
    ctx.vmInfo.disks[2].diskId = "d-c";  // never got a copy
    ASSERT_TRUE(plugin.SaveVMConfigFile(ctx.mountPath, "i-src", "{}"));
    const std::string path = ctx.mountPath + "\\i-src_InstanceConfig.json";
    EXPECT_TRUE(FXPath::DoesPathExist(path));

    std::vector<SMountInfoFull> info;
    ASSERT_EQ(1, plugin.GetFullMountInfo(ctx, info));
    ASSERT_EQ(2u, info.size());
    EXPECT_EQ("root", info[0].disks.at(0).diskLabel);
    EXPECT_EQ(path, info[1].disks.at(0).devicePath);

    ASSERT_TRUE(plugin.DeleteVMConfigFile(ctx));
    info.clear();
    ASSERT_EQ(1, plugin.GetFullMountInfo(ctx, info));
    EXPECT_EQ(1u, info.size());
    EXPECT_TRUE(fakefw::HasLine(kGetFullMountInfoConfigFiles, "Config file [" + path + "] does not exist."));
    EXPECT_FALSE(plugin.DeleteVMConfigFile(ctx));
    EXPECT_EQ(1u, fakefw::ErrorTexts().size());
}

}  // namespace
