// Opening, describing and closing the copies of a mounted instance's disks, the wait while
// the proxy has no free disk slot, and the list attach that restore uses.
#include <gtest/gtest.h>

#include "BackupWorld.h"
#include "ExpectedTags.h"

using namespace expected_tags;
using backupworld::Job;

namespace {

class BackupDiskAccessTest : public BackupFixture {
protected:
    // Mounts i-src and returns the id of the copy of its OS disk.
    std::string Mount(TestPlugin& plugin, MountCtx& ctx) {
        ctx = Job();
        EXPECT_EQ(1, plugin.MountVM(ctx));
        fakefw::Mapper() = fakefw::MapperScript{};
        return ctx.vmInfo.disks.at(0).newDiskId;
    }
    // Fills the proxy's only disk slot with a disk of its own.
    void FillProxy() {
        cloud().instances["i-proxy"].diskLimit = 1;
        cloud().AddDisk("d-proxy-os", "i-proxy", 40, true);
    }
};

TEST_F(BackupDiskAccessTest, AFullProxyMakesABackupWaitAndARestoreGiveUp) {
    struct Case {
        const char* name;
        bool forRestore;
        int sleepsBeforeFreeSlot;  // -1: the slot never frees
        int cancelAfterSleeps;     // -1: never cancelled
        int result;
        EVMInfoError code;
        size_t sleeps;
    };
    for (const Case& c : {Case{"backup gets a slot", false, 1, -1, 1, VMINFO_ERR_NONE, 1},
                          Case{"backup cancelled", false, -1, 2, 0, VMINFO_ERR_JOB_CANCELLED, 2},
                          Case{"restore", true, -1, -1, 0, VMINFO_ERR_PROXY_DISK_LIMIT, 0}}) {
        SCOPED_TRACE(c.name);
        SetUp();
        TestPlugin plugin;
        MountCtx ctx;
        std::string id = Mount(plugin, ctx);
        if (c.forRestore) {
            id = "d-restore";
            cloud().disks[id].info.diskId = id;
            cloud().disks[id].info.zone = backupworld::kZone;
            SDisk disk;
            disk.diskId = id;
            ASSERT_TRUE(plugin.DiskRegistry()->RegisterDisk("i-src", disk, true));
        }
        FillProxy();
        fakefw::OnSleep([&](const fakefw::SleepRecord&) {
            const int slept = static_cast<int>(fakefw::Sleeps().size());
            if (slept == c.sleepsBeforeFreeSlot) cloud().disks["d-proxy-os"].attachedTo.clear();
            if (slept == c.cancelAfterSleeps) fakefw::CancelAfterChecks(0);
        });
        VmdkHandle handle;
        EXPECT_EQ(c.result, plugin.OpenVmdk("web-01", "i-src", id, handle));
        EXPECT_EQ(c.code, plugin.GetLastVMError());
        ASSERT_EQ(c.sleeps, fakefw::Sleeps().size());
        for (const auto& s : fakefw::Sleeps()) {
            EXPECT_EQ(20000u, s.milliseconds);
            EXPECT_TRUE(s.withSourcePosition);
        }
        EXPECT_EQ(static_cast<int>(c.sleeps) + 1, cloud().Count("AttachDisk"));
        EXPECT_TRUE(fakefw::HasLine(k_OpenVmdk, "Proxy has reached max limit while attaching disk [][" + id +
                                                    "] of VM [web-01]"));
        EXPECT_EQ(c.forRestore, fakefw::HasLine(k_OpenVmdk, "Cannot restore VM [web-01] due to max disk limit"));
        EXPECT_EQ(c.code == VMINFO_ERR_JOB_CANCELLED,
                  fakefw::HasLine(k_OpenVmdk, "Detected quit flag during attach disk [][" + id + "]"));
        // Every attempt's mapper bracket is closed, the failed ones with the failed flag.
        EXPECT_EQ(fakefw::Mapper().Count("PreAttachDisk"), fakefw::Mapper().Count("PostAttachDisk"));
        const auto attached = cloud().DisksAttachedTo("i-proxy");
        EXPECT_EQ(c.result == 1, std::find(attached.begin(), attached.end(), id) != attached.end());
        if (c.result == 1) {
            EXPECT_EQ(1, plugin.CloseVmdk(handle));
        }
    }
}

TEST_F(BackupDiskAccessTest, AnOrdinaryAttachFailureEndsTheOpenWithTheBridgeText) {
    TestPlugin plugin;
    MountCtx ctx;
    const std::string id = Mount(plugin, ctx);
    cloud().FailNext("AttachDisk", "IncorrectDiskStatus: busy");
    VmdkHandle handle;
    EXPECT_EQ(0, plugin.OpenVmdk("web-01", "i-src", id, handle));
    EXPECT_EQ(VMINFO_ERR_DISK_ATTACH, plugin.GetLastVMError());
    EXPECT_EQ("IncorrectDiskStatus: busy", plugin.GetLastVMErrorDetails());
    EXPECT_EQ((std::vector<std::string>{"Failed in attaching disk [" + id + "][] to proxy, Error [IncorrectDiskStatus: busy].",
                                        "Failed to attach disk [][" + id + "] of VM [web-01] to proxy"}),
              fakefw::ErrorTexts());
    EXPECT_EQ((std::vector<std::string>{"PreAttachDisk", "PostAttachDisk"}), fakefw::Mapper().CallNames());
    EXPECT_EQ(id + " failed", fakefw::Mapper().Calls()[1].arg);
    EXPECT_TRUE(fakefw::Sleeps().empty());
}

TEST_F(BackupDiskAccessTest, HandlesThatDoNotResolveAreRefused) {
    TestPlugin plugin;
    MountCtx ctx;
    Mount(plugin, ctx);
    VmdkHandle handle;
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    EXPECT_EQ(0, plugin.OpenVmdk("web-01", "i-src", "", handle));
    EXPECT_EQ(VMINFO_ERR_DISK_ATTACH, plugin.GetLastVMError());  // refused before the error is cleared
    EXPECT_EQ(0, plugin.OpenVmdk("web-01", "i-src", "d-unknown", handle));
    EXPECT_EQ(VMINFO_ERR_DISK_HANDLE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kOpenVmdk, "Unable to get disk handle of the opened disk [d-unknown] of VM [web-01]"));

    int anything = 0;
    VmdkHandle half;
    half.vmHandle = &anything;
    SDisk disk;
    EXPECT_EQ(0, plugin.GetVmdkInfo(half, disk));
    EXPECT_TRUE(fakefw::HasLine(kGetVmdkInfo, "vm handle or disk handle are NULL "));
    EXPECT_EQ(0, plugin.CloseVmdk(VmdkHandle{}));
    EXPECT_EQ(0, plugin.CloseVmdk(half));
    const auto errors = fakefw::ErrorTexts();
    ASSERT_LE(2u, errors.size());
    EXPECT_EQ((std::vector<std::string>{"Invalid vm handle", "Invalid disk handle"}),
              std::vector<std::string>(errors.end() - 2, errors.end()));
    EXPECT_EQ(0, cloud().Count("AttachDisk"));
}

TEST_F(BackupDiskAccessTest, CloseBracketsTheDetachAndKeepsADiskThatCannotBeFlushed) {
    TestPlugin plugin;
    MountCtx ctx;
    const std::string id = Mount(plugin, ctx);
    VmdkHandle handle;
    ASSERT_EQ(1, plugin.OpenVmdk("web-01", "i-src", id, handle));
    SDisk disk;
    ASSERT_EQ(1, plugin.GetVmdkInfo(handle, disk));
    EXPECT_EQ("/dev/fake/" + id, disk.devicePath);

    fakefw::Mapper().FailNext("PreDetatchDisk");
    EXPECT_EQ(0, plugin.CloseVmdk(handle));
    EXPECT_TRUE(fakefw::HasLine(kCloseVmdk, "DiskMapper PreDetach failed "));
    EXPECT_EQ(std::vector<std::string>{id}, cloud().DisksAttachedTo("i-proxy"));

    cloud().FailNext("DetachDisk", "IncorrectDiskStatus: detaching");
    EXPECT_EQ(0, plugin.CloseVmdk(handle));
    EXPECT_TRUE(fakefw::HasLine(kCloseVmdk, "Failed to detach disk [][" + id + "]"));
    EXPECT_EQ(1, fakefw::Mapper().Count("PostDetatchDisk"));  // refreshed even after a failed detach

    EXPECT_EQ(1, plugin.CloseVmdk(handle));
    EXPECT_TRUE(cloud().DisksAttachedTo("i-proxy").empty());
    EXPECT_TRUE(fakefw::HasLine(kCloseVmdk, "Disk [][" + id + "] is closed successfully"));
}

TEST_F(BackupDiskAccessTest, ListAttachClosesTheMapperBracketOnceWhenItFails) {
    for (const char* id : {"d-n1", "d-n2", "d-n3"}) {
        cloud().disks[id].info.diskId = id;
        cloud().disks[id].info.zone = backupworld::kZone;
    }
    std::vector<SDisk> disks(4);
    const char* ids[] = {"d-n1", "d-skip", "d-n2", "d-n3"};
    for (size_t i = 0; i < disks.size(); ++i) {
        disks[i].diskId = std::string("src-") + ids[i];
        disks[i].newDiskId = ids[i];
        disks[i].diskType = 1;
    }
    disks[1].filtered = true;

    TestPlugin plugin;
    cloud().FailCall("AttachDisk", 2, {"InvalidDiskId.NotFound: gone", false});
    EXPECT_FALSE(plugin._AttachDisksToProxy(disks, true, false));
    EXPECT_EQ(VMINFO_ERR_DISK_ATTACH, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(k_AttachDisksToProxy, "Not attaching filtered disk [src-d-skip]"));
    EXPECT_EQ((std::vector<std::string>{"PreAttachDisk", "PostAttachDisk", "MakeDiskWriteable", "PreAttachDisk",
                                        "PostAttachDisk"}),
              fakefw::Mapper().CallNames());
    EXPECT_EQ(" failed", fakefw::Mapper().Calls().back().arg);  // empty disk id, failed
    EXPECT_EQ("/dev/fake/d-n1", disks[0].devicePath);
    EXPECT_EQ(std::vector<std::string>{"d-n1"}, cloud().DisksAttachedTo("i-proxy"));  // the caller detaches it
    EXPECT_EQ((std::vector<std::string>{"i-proxy", "d-n1", "true"}), cloud().CallsTo("AttachDisk")[0].args);

    fakefw::Mapper() = fakefw::MapperScript{};
    disks.erase(disks.begin());
    EXPECT_TRUE(plugin._AttachDisksToProxy(disks, false, true));
    EXPECT_EQ((std::vector<std::string>{"PreAttachDisk", "PostAttachDisk", "BringDiskOffline", "PreAttachDisk",
                                        "PostAttachDisk", "BringDiskOffline"}),
              fakefw::Mapper().CallNames());
}

}  // namespace
