// The phases of a backup mount taken one at a time: feasibility, mount set-up, snapshots,
// copies, the configuration file and mount information, and attaching copies to the proxy.
#include <gtest/gtest.h>

#include <fstream>

#include "AliCloudDiskInfo.h"
#include "BackupWorld.h"
#include "ExpectedTags.h"

using backupworld::Job;

namespace {

class BackupPhasesTest : public BackupFixture {
protected:
    // i-src as the cloud describes it, in a job context of its own.
    MountCtx DescribedJob() {
        MountCtx ctx = Job();
        ctx.vmInfo = cloud().Describe(cloud().instances.at("i-src"));
        return ctx;
    }
    // A plug-in whose cleaner is ready and holds i-src, as after MountVM's preparation.
    void Prepare(TestPlugin& plugin) {
        plugin.SetProxy(ProxyRecord());
        ASSERT_TRUE(plugin._InitMount());
        ASSERT_TRUE(plugin.Cleaner().RegisterVM(VM_CLEANER_MODE_BACKUP, "i-src"));
    }
};

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

TEST_F(BackupPhasesTest, TheFirstFailingFeasibilityCheckDecides) {
    struct Case {
        const char* name;
        std::string guid, zone;
        bool disks;
        EVMInfoError code;
        std::string error;
    };
    const Case cases[] = {
        {"proxy itself, other zone, no disks", "i-proxy", "cn-hangzhou-a", false, VMINFO_ERR_PROXY_SELF_BACKUP,
         "Proxy VM can't backup itself."},
        {"other zone, no disks", "i-src", "cn-hangzhou-a", false, VMINFO_ERR_ZONE_MISMATCH,
         "Proxy region [cn-hangzhou-k] and instance zone [cn-hangzhou-a] are different."},
        {"no disks", "i-src", "cn-hangzhou-k", false, VMINFO_ERR_NO_DISKS,
         "Empty disk list for instance. nothing to backup"},
        {"feasible", "i-src", "cn-hangzhou-k", true, VMINFO_ERR_NONE, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakefw::Reset();
        TestPlugin plugin;
        plugin.SetProxy(ProxyRecord());
        MountCtx ctx = Job(c.guid);
        ctx.vmInfo.guid = c.guid;
        ctx.vmInfo.hostName = c.zone;
        if (c.disks) ctx.vmInfo.disks.resize(1);
        EXPECT_EQ(c.error.empty(), plugin.IsBackupFeasible(ctx));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        const std::vector<std::string> errors = c.error.empty() ? std::vector<std::string>{}
                                                                : std::vector<std::string>{c.error};
        EXPECT_EQ(errors, fakefw::ErrorTexts());
        if (!c.error.empty()) {
            EXPECT_TRUE(fakefw::HasLine("virtual bool CAliCloudInfo::IsBackupFeasible(const MountCtx&)", c.error));
        }
    }
}

TEST_F(BackupPhasesTest, MountSetUpRefusesAProxyWithoutAnInstanceId) {
    cloud().localInstanceId.clear();
    TestPlugin plugin;
    EXPECT_FALSE(plugin._InitMount());
    EXPECT_TRUE(fakefw::HasLine("bool CAliCloudInfo::_InitMount()",
                                "Failed to get proxy instance Id. Please check whether the proxy is an Alibaba Cloud instance."));
    EXPECT_EQ(0, store().CallCount("Init"));
}

TEST_F(BackupPhasesTest, ACancelledJobTakesNoSnapshot) {
    TestPlugin plugin;
    Prepare(plugin);
    MountCtx ctx = DescribedJob();
    fakefw::CancelAfterChecks(0);
    EXPECT_FALSE(plugin.TakeSnapshots(ctx));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine("bool CAliCloudInfo::TakeSnapshots(const MountCtx&)", "Detected Quit flag"));
    EXPECT_EQ(0, cloud().Count("CreateSnapshot"));
}

TEST_F(BackupPhasesTest, SnapshotIdsReachTheJobsRecordAndArePolledInTheProxysRegion) {
    TestPlugin plugin;
    Prepare(plugin);
    MountCtx ctx = DescribedJob();
    SDisk local;  // not a cloud disk: no snapshot, and it must not shift the others' ids
    local.diskId = "local-nvme";
    local.diskType = 2;
    ctx.vmInfo.disks.insert(ctx.vmInfo.disks.begin() + 1, local);
    cloud().snapshotPolls = 1;

    ASSERT_TRUE(plugin.TakeSnapshots(ctx));
    const auto ids = backupworld::SnapshotIds(ctx);
    ASSERT_EQ(3u, ids.size());
    EXPECT_EQ("", ids[1]);
    for (size_t i : {0u, 2u}) {
        ASSERT_EQ(1u, cloud().snapshots.count(ids[i]));
        EXPECT_EQ(ctx.vmInfo.disks[i].diskId, cloud().snapshots.at(ids[i]).diskId);
    }
    EXPECT_EQ((std::vector<std::string>{ids[0], ids[2]}), store().ChildrenOf("i-src", VM_CLEANER_ENTITY_SNAPSHOT));

    ASSERT_TRUE(plugin._WaitForSnapshots(ctx.vmInfo.disks));
    const auto polls = cloud().CallsTo("IsSnapshotCompleted");
    ASSERT_EQ(4u, polls.size());
    for (const auto& poll : polls) EXPECT_EQ("cn-hangzhou", poll.Arg(0));
}

TEST_F(BackupPhasesTest, ACopyTheDiskRegistryRefusesEndsTheMountWithCode23) {
    TestPlugin plugin;
    Prepare(plugin);
    MountCtx ctx = DescribedJob();
    ASSERT_TRUE(plugin.InitDiskInfo(ctx));  // the registry exists, but i-src was never connected to it
    ASSERT_TRUE(plugin.TakeSnapshots(ctx));
    bool flag = true;
    EXPECT_FALSE(plugin.CreateDisksFromSnapshots("i-src", ctx.vmInfo.disks, VM_CLEANER_MODE_BACKUP, flag));
    EXPECT_EQ(VMINFO_ERR_DISK_HANDLE, plugin.GetLastVMError());
    const auto made = cloud().CreatedDisks();
    ASSERT_EQ(1u, made.size());  // stops at once
    EXPECT_TRUE(fakefw::HasLine(
        "bool CAliCloudInfo::CreateDisksFromSnapshots(const string&, std::vector<VMInfoStructs::SDisk>&, VM_Cleaner_Mode, bool&)",
        "Failed to register disk [" + made[0] + "][]"));
    EXPECT_EQ(made, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK));  // the teardown still finds it
}

TEST_F(BackupPhasesTest, AConfigurationFileThatCannotBeWrittenFailsTheMount) {
    TestPlugin plugin;
    MountCtx ctx = Job();
    ctx.mountPath = "/nonexistent-backup-dir/mnt";
    EXPECT_EQ(0, plugin.MountVM(ctx));
    EXPECT_EQ((std::vector<std::string>{"Failed to save VM configuration for VM [i-src].", "VM [i-src] failed to mount."}),
              fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine("bool CAliCloudInfo::SaveVMConfigFile(const string&, const string&, const string&)",
                                "Failed to save VM configuration for VM [i-src]."));
    EXPECT_TRUE(fakefw::HasLine("virtual int CAliCloudInfo::MountVM(const MountCtx&)", "VM [i-src] failed to mount."));
    EXPECT_EQ(2u, store().ChildrenOf("i-src", VM_CLEANER_ENTITY_DISK).size());  // left for the teardown
}

TEST_F(BackupPhasesTest, MountInformationDescribesEachReadableDiskAndTheFile) {
    TestPlugin plugin;
    MountCtx ctx = Job();
    ctx.vmInfo.guid = "i-src";
    auto disk = [](std::string id, std::string device, std::string label, long long size, bool os, bool filtered) {
        SDisk d;
        d.diskId = id;
        d.devicePath = device;
        d.diskLabel = label;
        d.size = size;
        d.diskSize = 7;  // the entry reports the attached size, not this one
        d.isOSDisk = os;
        d.filtered = filtered;
        return d;
    };
    ctx.vmInfo.disks = {disk("d-os", "/dev/vdb", "", 42949672960LL, true, false),
                        disk("d-skip", "/dev/vdc", "", 1, false, true), disk("d-nocopy", "", "", 1, false, false),
                        disk("d-data", "/dev/vdd", "data", 1073741824LL, false, false)};
    std::ofstream(backupworld::ConfigPath(ctx)) << "{\"x\":1}";

    std::vector<SMountInfoFull> out;
    ASSERT_EQ(1, plugin.GetFullMountInfo(ctx, out));
    // entryType|devicePath|diskId|fileName|diskLabel|diskType|formatCode|contentKind|size|diskSize|isOSDisk
    std::vector<std::string> rows;
    for (const auto& entry : out) {
        ASSERT_EQ(1u, entry.disks.size());
        const SDisk& d = entry.disks[0];
        rows.push_back(std::to_string(entry.entryType) + "|" + d.devicePath + "|" + d.diskId + "|" + d.fileName + "|" +
                       d.diskLabel + "|" + std::to_string(d.diskType) + "|" + std::to_string(d.formatCode) + "|" +
                       std::to_string(d.contentKind) + "|" + std::to_string(d.size) + "|" +
                       std::to_string(d.diskSize) + "|" + (d.isOSDisk ? "os" : "-"));
    }
    const std::string file = backupworld::ConfigPath(ctx);
    EXPECT_EQ((std::vector<std::string>{
                  "1|/dev/vdb|d-os|d-os|d-os|1|35|0|42949672960|42949672960|os",
                  "1|/dev/vdd|d-data|d-data|data|1|35|0|1073741824|1073741824|-",
                  "0|" + file + "||i-src_InstanceConfig.json|i-src_InstanceConfig.json|0|0|4|7|7|-",
              }),
              rows);
}

TEST_F(BackupPhasesTest, AttachingOneCopyMapsItAndTakesTheDeviceOffline) {
    struct Case {
        const char* name;
        bool makeWriteable;
        bool postAttachFails;
        std::vector<std::string> mapper;  // {id} and {dev} stand for the copy and its device
    };
    const Case cases[] = {
        {"for reading", false, false, {"PreAttachDisk ", "PostAttachDisk {id}", "BringDiskOffline {dev}"}},
        {"for writing", true, false,
         {"PreAttachDisk ", "PostAttachDisk {id}", "MakeDiskWriteable {dev}", "BringDiskOffline {dev}"}},
        {"device not found", true, true, {"PreAttachDisk ", "PostAttachDisk {id}"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        MountCtx ctx;
        MountSource(plugin, ctx);
        const std::string id = ctx.vmInfo.disks.at(0).newDiskId;
        if (c.postAttachFails) fakefw::Mapper().FailNext("PostAttachDisk");
        SDisk disk;
        disk.diskId = id;
        EXPECT_EQ(c.postAttachFails ? 0 : 1, plugin._AttachDiskToProxy(ctx.vmInfo, disk, c.makeWriteable));
        EXPECT_EQ(c.postAttachFails ? VMINFO_ERR_DISK_ATTACH : VMINFO_ERR_NONE, plugin.GetLastVMError());
        std::vector<std::string> expected;
        for (const auto& line : c.mapper) expected.push_back(Replace(Replace(line, "{id}", id), "{dev}", "/dev/fake/" + id));
        EXPECT_EQ(expected, MapperTrace());
        EXPECT_EQ(c.postAttachFails, fakefw::HasLine(
            "int CAliCloudInfo::_AttachDiskToProxy(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool)",
            "Post attach disk operation failed."));
        EXPECT_EQ(std::vector<std::string>{id}, cloud().DisksAttachedTo("i-proxy"));  // either way: teardown detaches
    }
}

TEST_F(BackupPhasesTest, AListAttachThatStopsEndsTheMapperBracketOnceWithItsCode) {
    const char* tag = "bool CAliCloudInfo::_AttachDisksToProxy(std::vector<VMInfoStructs::SDisk>&, bool, bool)";
    struct Case {
        const char* name;
        int cancelAfterChecks;  // -1: never
        bool postAttachFails;
        EVMInfoError code;
        std::string line;
        std::vector<std::string> mapper;
    };
    const Case cases[] = {
        {"cancelled at once", 0, false, VMINFO_ERR_JOB_CANCELLED, "Detected Quit flag", {"PostAttachDisk  failed"}},
        {"cancelled before the second disk", 1, false, VMINFO_ERR_JOB_CANCELLED, "Detected Quit flag",
         {"PreAttachDisk ", "PostAttachDisk d-n1", "MakeDiskWriteable /dev/fake/d-n1", "BringDiskOffline /dev/fake/d-n1",
          "PostAttachDisk  failed"}},
        {"device not found", -1, true, VMINFO_ERR_DISK_ATTACH, "Post attach disk operation failed.",
         {"PreAttachDisk ", "PostAttachDisk d-n1", "PostAttachDisk  failed"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        std::vector<SDisk> disks;
        for (const char* id : {"d-n1", "d-n2"}) {
            cloud().disks[id].info.diskId = id;
            cloud().disks[id].info.zone = backupworld::kZone;
            SDisk d;
            d.diskId = std::string("src-") + id;
            d.newDiskId = id;
            d.diskType = 1;
            disks.push_back(d);
        }
        TestPlugin plugin;
        if (c.cancelAfterChecks >= 0) fakefw::CancelAfterChecks(c.cancelAfterChecks);
        if (c.postAttachFails) fakefw::Mapper().FailNext("PostAttachDisk");
        EXPECT_FALSE(plugin._AttachDisksToProxy(disks, true, true));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        EXPECT_TRUE(fakefw::HasLine(tag, c.line));
        EXPECT_EQ(c.mapper, MapperTrace());
    }
}

TEST_F(BackupPhasesTest, ACancelNoticedAfterASuccessfulAttachFailsTheOpenAndLeavesTheDiskOpen) {
    TestPlugin plugin;
    MountCtx ctx;
    MountSource(plugin, ctx);
    const std::string id = ctx.vmInfo.disks.at(0).newDiskId;
    fakefw::CancelAfterChecks(0);
    VmdkHandle handle;
    EXPECT_EQ(0, plugin.OpenVmdk("web-01", "i-src", id, handle));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine("bool CAliCloudInfo::_OpenVmdk(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool)",
                                "Detected quit flag during attach disk [][" + id + "]"));
    EXPECT_EQ(std::vector<std::string>{id}, cloud().DisksAttachedTo("i-proxy"));
    ASSERT_NE(nullptr, handle.diskHandle);
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_OPEN, static_cast<AliCloudDiskInfo::DiskHandle*>(handle.diskHandle)->state);
}

}  // namespace
