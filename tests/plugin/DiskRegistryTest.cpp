// The disk handle registry: instances and disks tracked through register, attach, detach,
// and the handles the framework holds.
#include <gtest/gtest.h>

#include <memory>

#include "AliCloudDiskInfo.h"
#include "FakeCloud.h"
#include "FakeFramework.h"
#include "ExpectedTags.h"

using namespace expected_tags;
using namespace VMInfoStructs;

namespace {

class DiskRegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        fakefw::Reset();
        fakecloud::Reset();
        auto& cloud = fakecloud::TheCloud();
        cloud.AddInstance("i-proxy", "proxy", "cn-hangzhou", "cn-hangzhou-k");
        cloud.AddInstance("i-src", "source", "cn-hangzhou", "cn-hangzhou-k");
        for (const char* id : {"d-new1", "d-new2"}) {
            auto& d = cloud.disks[id];
            d.info.diskId = id;
            d.info.zone = "cn-hangzhou-k";
            d.regionId = "cn-hangzhou";
        }
        proxy.guid = "i-proxy";
        proxy.regionId = "cn-hangzhou";
        vm.guid = "i-src";
        vm.name = "source";
        vm.hostName = "cn-hangzhou-k";
        vm.regionId = "cn-hangzhou";
        ASSERT_TRUE(registry.Initialize(proxy));
        ASSERT_TRUE(registry.Connect(vm));
    }
    SDisk Disk(const std::string& id) {
        SDisk d;
        d.diskId = id;
        d.diskName = id + "-name";
        d.diskSize = 40;
        d.formatCode = 7;
        return d;
    }
    bool Open(const std::string& id) {
        SDisk d = Disk(id);
        bool full = false;
        return registry.ConnectDisk(vm, d, full);
    }
    fakecloud::Cloud& cloud() { return fakecloud::TheCloud(); }

    SVMInfo proxy, vm;
    std::unique_ptr<AliCloudSDKCppBridge::CAliCloudSDKCppBridge> bridge =
        std::make_unique<AliCloudSDKCppBridge::CAliCloudSDKCppBridge>();
    CAliCloudDiskInfo registry{bridge.get()};
};

TEST_F(DiskRegistryTest, ConnectingAnInstanceTwiceListsItOnce) {
    ASSERT_TRUE(registry.Connect(vm));
    EXPECT_EQ(1u, fakefw::LinesWithText("VM [i-src] added.").size());
    EXPECT_NE(nullptr, registry.FindVMHandle("I-SRC"));  // ids compare without case
    EXPECT_EQ(nullptr, registry.FindVMHandle("i-other"));
}

TEST_F(DiskRegistryTest, RegisteringTheSameDiskTwiceInAnyCaseIsRefused) {
    EXPECT_TRUE(registry.RegisterDisk("i-src", Disk("d-new1"), false));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoRegisterDisk, "Registering disk [d-new1] for backup of VM [i-src]"));
    EXPECT_EQ(1, fakefw::LinesWithText("Registering disk [d-new1] for backup of VM [i-src]")[0].level);
    EXPECT_FALSE(registry.RegisterDisk("i-src", Disk("D-NEW1"), true));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoRegisterDisk, "Disk [D-NEW1] is already registered"));
    EXPECT_FALSE(registry.RegisterDisk("i-unknown", Disk("d-new2"), false));
    EXPECT_EQ("Registering disk [d-new2] for backup of VM [i-unknown]", fakefw::Logs().back().text);
}

TEST_F(DiskRegistryTest, AttachDetachAndReattachFollowTheDiskState) {
    ASSERT_TRUE(registry.RegisterDisk("i-src", Disk("d-new1"), false));
    VmdkHandle handle;
    ASSERT_TRUE(registry.GetDiskHandle("source", "i-src", "d-new1", handle));
    auto state = [&] { return static_cast<AliCloudDiskInfo::DiskHandle*>(handle.diskHandle)->state; };
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_REGISTERED, state());

    // Closing a disk that was never attached does nothing.
    EXPECT_TRUE(registry.CloseDisk("i-src", "d-new1"));
    EXPECT_EQ(0, cloud().Count("DetachDisk"));

    ASSERT_TRUE(Open("d-new1"));
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_OPEN, state());
    auto attach = cloud().CallsTo("AttachDisk");
    ASSERT_EQ(1u, attach.size());
    EXPECT_EQ((std::vector<std::string>{"i-proxy", "d-new1", "true"}), attach[0].args);
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoConnectDisk, "Attaching disk [d-new1-name][d-new1] of VM [i-src]"));

    // An open disk cannot be opened again, and the bridge is not asked.
    SDisk again = Disk("d-new1");
    again.devicePath = "/dev/vdz";
    bool full = false;
    EXPECT_FALSE(registry.ConnectDisk(vm, again, full));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoConnectDisk, "Disk [d-new1] of VM [i-src] already opened with [/dev/vdz]"));
    EXPECT_EQ(1, cloud().Count("AttachDisk"));

    EXPECT_TRUE(registry.CloseDisk("i-src", "d-new1"));
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_CLOSED, state());
    auto detach = cloud().CallsTo("DetachDisk");
    ASSERT_EQ(1u, detach.size());
    EXPECT_EQ((std::vector<std::string>{"i-proxy", "d-new1", "cn-hangzhou"}), detach[0].args);

    // A closed disk can be attached again.
    EXPECT_TRUE(Open("d-new1"));
    EXPECT_EQ(2, cloud().Count("AttachDisk"));
}

TEST_F(DiskRegistryTest, DeviceNamesAreForgottenWhenADiskIsAttachedOrDetached) {
    // A stale device name would send the agent to whatever block device now has it.
    SDisk stale = Disk("d-new1");
    stale.devicePath = "/dev/old";
    stale.mappedDevice = "/dev/mapper/old";
    ASSERT_TRUE(registry.RegisterDisk("i-src", stale, false));
    VmdkHandle handle;
    ASSERT_TRUE(registry.GetDiskHandle("source", "i-src", "d-new1", handle));
    auto stored = [&] {
        SDisk d;
        bool forRestore = true;
        EXPECT_TRUE(registry.GetDiskInfo(handle, d, forRestore));
        return d.devicePath + "|" + d.mappedDevice;
    };

    SDisk opened = Disk("d-new1");
    opened.devicePath = "/dev/caller";
    bool full = false;
    ASSERT_TRUE(registry.ConnectDisk(vm, opened, full));
    EXPECT_EQ("", opened.devicePath);  // the caller gets the registry's record
    EXPECT_EQ("|/dev/mapper/old", stored());

    opened.devicePath = "/dev/vdb";
    opened.mappedDevice = "/dev/mapper/vdb";
    ASSERT_TRUE(registry.UpdateDisk(vm, opened));
    ASSERT_TRUE(registry.CloseDisk("i-src", "d-new1"));
    EXPECT_EQ("|", stored());
}

TEST_F(DiskRegistryTest, FailedAttachAndDetachKeepTheStateAndCarryTheBridgeText) {
    ASSERT_TRUE(registry.RegisterDisk("i-src", Disk("d-new1"), false));
    cloud().FailNext("AttachDisk", fakecloud::Fault{"InstanceDiskLimitExceeded: full", true});
    SDisk d = Disk("d-new1");
    bool full = false;
    EXPECT_FALSE(registry.ConnectDisk(vm, d, full));
    EXPECT_TRUE(full);
    VmdkHandle handle;
    ASSERT_TRUE(registry.GetDiskHandle("source", "i-src", "d-new1", handle));
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_REGISTERED, static_cast<AliCloudDiskInfo::DiskHandle*>(handle.diskHandle)->state);

    ASSERT_TRUE(Open("d-new1"));
    cloud().FailNext("DetachDisk", "IncorrectDiskStatus: busy");
    EXPECT_FALSE(registry.CloseDisk("i-src", "d-new1"));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfo_DisconnectDisk, "Failed to detach disk [d-new1], Error: [IncorrectDiskStatus: busy]"));
    EXPECT_EQ(AliCloudDiskInfo::DISK_STATE_OPEN, static_cast<AliCloudDiskInfo::DiskHandle*>(handle.diskHandle)->state);
}

TEST_F(DiskRegistryTest, LookupFailuresNameWhatIsMissing) {
    SDisk d = Disk("d-new1");
    bool full = false;
    SVMInfo unknown;
    unknown.guid = "i-unknown";
    EXPECT_FALSE(registry.ConnectDisk(unknown, d, full));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoConnectDisk, "vm handle is invalid"));
    EXPECT_FALSE(registry.ConnectDisk(vm, d, full));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoConnectDisk, "disk handled invalid. Disk [d-new1] has not registered"));
    EXPECT_FALSE(registry.CloseDisk("i-src", "d-none"));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoCloseDisk, "Disk [d-none] has not opened"));
    VmdkHandle handle;
    EXPECT_FALSE(registry.GetDiskHandle("nameless", "i-unknown", "d-new1", handle));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoGetDiskHandle, "Unable to find open VM Handle for nameless"));
    EXPECT_FALSE(registry.GetDiskHandle("source", "i-src", "d-none", handle));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoGetDiskHandle, "Unable to find open Disk Handle for VM[source] Disk[d-none]"));
    EXPECT_EQ(nullptr, handle.vmHandle);
    EXPECT_TRUE(cloud().calls.empty());
}

TEST_F(DiskRegistryTest, HandlesDescribeTheDiskAndItsInstance) {
    SDisk registered = Disk("d-new1");
    registered.category = "cloud_essd";
    ASSERT_TRUE(registry.RegisterDisk("i-src", registered, true));
    VmdkHandle handle;
    ASSERT_TRUE(registry.GetDiskHandle("source", "I-SRC", "D-NEW1", handle));

    SDisk out;
    bool forRestore = false;
    ASSERT_TRUE(registry.GetDiskInfo(handle, out, forRestore));
    EXPECT_TRUE(forRestore);
    EXPECT_EQ("cloud_essd", out.category);
    ASSERT_TRUE(GetDiskInfo(handle, out, forRestore));  // the exported free function
    EXPECT_EQ("d-new1", out.diskId);

    SDisk updated = registered;
    updated.devicePath = "/dev/vdb";
    EXPECT_TRUE(registry.UpdateDisk(vm, updated));
    ASSERT_TRUE(GetDiskInfo(handle, out, forRestore));
    EXPECT_EQ("/dev/vdb", out.devicePath);

    SVMInfo info;
    ASSERT_TRUE(registry.GetVMInfo(handle, "", info));
    EXPECT_EQ("source", info.name);
    EXPECT_EQ("cn-hangzhou-k", info.hostName);
    EXPECT_FALSE(registry.GetVMInfo(handle, "i-unknown", info));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoGetVMInfo, "VM Handle is invalid"));

    VmdkHandle empty;
    EXPECT_FALSE(registry.GetDiskInfo(empty, out, forRestore));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoGetDiskInfo, "Disk handle passed is NULL."));
    const size_t lines = fakefw::Logs().size();
    EXPECT_FALSE(GetDiskInfo(empty, out, forRestore));
    EXPECT_EQ(lines, fakefw::Logs().size());  // the free function logs nothing
}

TEST_F(DiskRegistryTest, DisconnectDropsTheInstanceAndReportsDisksStillOpen) {
    ASSERT_TRUE(registry.RegisterDisk("i-src", Disk("d-new1"), false));
    ASSERT_TRUE(registry.RegisterDisk("i-src", Disk("d-new2"), false));
    ASSERT_TRUE(Open("d-new2"));
    VmdkHandle handle;
    ASSERT_TRUE(registry.GetDiskHandle("source", "i-src", "d-new1", handle));

    EXPECT_TRUE(registry.Disconnect(vm));
    EXPECT_TRUE(fakefw::HasLine(kDiskInfoDisconnect, "Disconnecting VM [source][i-src] from AliCloudDiskInfo"));
    EXPECT_EQ(1u, fakefw::LinesWithText("Disk handle is still open!").size());
    EXPECT_EQ(0, cloud().Count("DetachDisk"));  // nothing is detached here
    EXPECT_EQ(nullptr, registry.FindVMHandle("i-src"));

    const size_t lines = fakefw::Logs().size();
    EXPECT_FALSE(registry.Disconnect(vm));
    EXPECT_EQ(lines + 1, fakefw::Logs().size());  // only the "Disconnecting" line
}

}  // namespace
