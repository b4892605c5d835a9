// The bridge library against the in-process emulator: every operation, checked by its
// effect on the emulator's state, plus injected faults (throttling, a lost answer to a
// create, the proxy's disk limit, unknown objects).
#include <gtest/gtest.h>

#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include <nlohmann/json.hpp>

#include "BridgeSimFixture.h"
#include "loopback_server.h"

namespace {

using namespace bridgesim;

TEST_F(BridgeOnEmulator, ConnectRefusesABadSecretWithoutEchoingIt) {
    CAliCloudSDKCppBridge other;
    const std::string secret = "WrongSecretThatMustNotLeak123";
    EXPECT_FALSE(other.Connect(emulator_->DemoCredentials().accessKeyId, secret));
    const std::string error = other.GetLastError();
    EXPECT_NE(error.find("SignatureDoesNotMatch"), std::string::npos) << error;
    EXPECT_EQ(error.find(secret), std::string::npos) << error;
    std::vector<SVMInfo> vms;
    EXPECT_FALSE(other.GetVMInfoList(vms));  // not connected
    EXPECT_TRUE(bridge_.Disconnect());
    EXPECT_FALSE(bridge_.RefreshVMInfoCache());
}

TEST_F(BridgeOnEmulator, InventoryOfRegionsZonesInstancesAndTypes) {
    std::vector<SDataCenterInfo> dcs;
    ASSERT_TRUE(bridge_.GetDCInfoList(dcs, kInstances | kZones, 0)) << bridge_.GetLastError();
    ASSERT_EQ(dcs.size(), 2u);
    EXPECT_EQ(dcs[0].name, kRegion);
    EXPECT_EQ(dcs[0].localName, "China (Hangzhou)");
    EXPECT_EQ(dcs[0].hostList.size(), 2u);
    EXPECT_EQ(dcs[0].vmList.size(), 5u);
    EXPECT_EQ(dcs[1].hostList.size(), 1u);
    EXPECT_TRUE(dcs[1].vmList.empty());

    SDataCenterInfo dc;
    ASSERT_TRUE(bridge_.GetDCInfoForDC(kRegion, kZones, 0, dc));
    EXPECT_EQ(dc.hostList.size(), 2u);
    EXPECT_TRUE(dc.vmList.empty());  // bit 29 not asked
    EXPECT_FALSE(bridge_.GetDCInfoForDC("xx-nowhere-1", 0, 0, dc));

    std::vector<SHostInfo> zones;
    ASSERT_TRUE(bridge_.GetHostInfoList(zones, 0, 0));
    EXPECT_EQ(zones.size(), 3u);
    SHostInfo zone;
    ASSERT_TRUE(bridge_.GetHostInfoForHost("cn-hangzhou-i", kInstances, 0, zone, "")) << bridge_.GetLastError();
    EXPECT_EQ(zone.regionId, kRegion);
    ASSERT_EQ(zone.vmList.size(), 1u);
    EXPECT_EQ(zone.vmList[0].name, "web-02");

    std::vector<SVMInfo> vms;
    ASSERT_TRUE(bridge_.GetVMInfoList(vms));
    EXPECT_TRUE(vms.empty());  // before a refresh
    ASSERT_TRUE(bridge_.RefreshVMInfoCache());
    ASSERT_TRUE(bridge_.GetVMInfoList(vms));
    EXPECT_EQ(vms.size(), 5u);
    ASSERT_TRUE(bridge_.GetVMInfoListForRegion(kRegion, vms, "db-01"));
    ASSERT_EQ(vms.size(), 1u);
    EXPECT_EQ(vms[0].guid, kDb);
    ASSERT_TRUE(bridge_.GetVMInfoListForRegion(kRegion, vms, "db-0"));
    EXPECT_TRUE(vms.empty());  // exact names only

    std::vector<SVMSizeInfo> zoneTypes, regionTypes;
    ASSERT_TRUE(bridge_.GetInstanceTypesForZone(kRegion, "cn-hangzhou-i", zoneTypes)) << bridge_.GetLastError();
    EXPECT_EQ(zoneTypes.size(), 2u);
    ASSERT_TRUE(bridge_.GetInstanceTypesForRegion(kRegion, regionTypes)) << bridge_.GetLastError();
    auto t6 = std::find_if(regionTypes.begin(), regionTypes.end(),
                           [](const SVMSizeInfo& s) { return s.name == "ecs.t6-c1m2.large"; });
    ASSERT_NE(t6, regionTypes.end());
    EXPECT_EQ(t6->specValue1, 2);
    EXPECT_EQ(t6->specValue2, 4096);
    EXPECT_EQ(t6->maxDisks, 5);
}

TEST_F(BridgeOnEmulator, InstanceDescriptionAndConfigurationDocumentRoundTrip) {
    SVMInfo vm;
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, vm, 16, 0)) << bridge_.GetLastError();
    EXPECT_EQ(vm.name, "db-01");
    EXPECT_EQ(vm.regionId, kRegion);
    EXPECT_EQ(vm.hostName, kProxyZone);
    EXPECT_EQ(vm.vmProfile, "ecs.g7.xlarge");
    EXPECT_EQ(vm.guestOS, "Ubuntu 22.04 64-bit;x86_64");
    EXPECT_EQ(vm.cpuCount, 4);
    EXPECT_EQ(vm.memoryMiB, 16384);
    ASSERT_EQ(vm.disks.size(), 2u);
    EXPECT_EQ(vm.disks[0].diskId, kDbSystemDisk);
    EXPECT_TRUE(vm.disks[0].isOSDisk);
    EXPECT_EQ(vm.disks[1].diskId, kDbDataDisk);
    EXPECT_EQ(vm.disks[1].diskSize, 2);
    EXPECT_EQ(vm.disks[1].size, 2LL << 30);
    EXPECT_EQ(vm.disks[1].diskName, "db-data");
    ASSERT_EQ(vm.networkCards.size(), 1u);
    EXPECT_FALSE(vm.networkCards[0].vSwitchId.empty());
    ASSERT_EQ(vm.securityGroups.size(), 1u);

    SVMInfo described;
    std::string config;
    ASSERT_TRUE(bridge_.GetVMInfoAndConfigFile(kDb, 16, 0, described, config)) << bridge_.GetLastError();
    SVMInfo back;
    ASSERT_TRUE(bridge_.GetVMInfoFromConfigFile(config, back)) << bridge_.GetLastError();
    EXPECT_EQ(back.guid, kDb);
    EXPECT_EQ(back.vmProfile, vm.vmProfile);
    EXPECT_EQ(back.guestOS, vm.guestOS);
    EXPECT_EQ(back.networkCards[0].vSwitchId, vm.networkCards[0].vSwitchId);
    ASSERT_EQ(back.disks.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(back.disks[i].diskId, vm.disks[i].diskId);
        EXPECT_EQ(back.disks[i].size, vm.disks[i].size);
        EXPECT_EQ(back.disks[i].category, vm.disks[i].category);
        EXPECT_EQ(back.disks[i].isOSDisk, vm.disks[i].isOSDisk);
        EXPECT_EQ(back.disks[i].zone, vm.disks[i].zone);
        EXPECT_EQ(back.disks[i].diskType, 1u);
    }

    json newer = json::parse(config);
    newer["version"] = 2;
    EXPECT_FALSE(bridge_.GetVMInfoFromConfigFile(newer.dump(), back));
    EXPECT_NE(bridge_.GetLastError().find("UnsupportedConfigDocumentVersion"), std::string::npos);
}

TEST_F(BridgeOnEmulator, LocalInstanceIdFromTheMetadataServiceInBothModes) {
    std::string id;
    ASSERT_TRUE(bridge_.GetLocalInstanceId(id)) << bridge_.GetLastError();
    EXPECT_EQ(id, kProxy);
    auto res = Control().Post("/_sim/metadata", R"({"tokenRequired":true})", "application/json");
    ASSERT_TRUE(res && res->status == 200);
    CAliCloudSDKCppBridge fresh;
    id.clear();
    ASSERT_TRUE(fresh.GetLocalInstanceId(id)) << fresh.GetLastError();
    EXPECT_EQ(id, kProxy);
}

TEST_F(BridgeOnEmulator, BackupPathSnapshotDiskAttachDetachDelete) {
    const std::string snap = Snapshot(kDbDataDisk);
    json s = Find("snapshots", "SnapshotId", snap);
    EXPECT_EQ(s.value("Status", ""), "accomplished");
    EXPECT_EQ(Tag(s, "hx:created-by"), "HXAliCloudSDKCppBridge");
    EXPECT_EQ(Tag(s, "hx:proxy-instance"), kProxy);

    SDisk disk;
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, disk, snap, "", "cloud_essd", 0, false, ""))
        << bridge_.GetLastError();
    // The 2 GiB source is below the ESSD minimum: the copy is made at 20 GiB, not refused.
    EXPECT_EQ(disk.diskSize, 20);
    SDisk settled;  // CreateDisk returns at once; the disk's next use waits for Available
    ASSERT_TRUE(bridge_.GetDiskInfo(kRegion, disk.diskId, settled)) << bridge_.GetLastError();
    EXPECT_EQ(settled.diskSize, 20);
    json d = Find("disks", "DiskId", disk.diskId);
    EXPECT_EQ(d.value("Status", ""), "Available");
    EXPECT_EQ(d.value("SourceSnapshotId", ""), snap);
    EXPECT_EQ(Tag(d, "hx:created-by"), "HXAliCloudSDKCppBridge");

    bool limit = true;
    ASSERT_TRUE(bridge_.AttachDisk(kProxy, disk.diskId, limit, true)) << bridge_.GetLastError();
    EXPECT_FALSE(limit);
    d = Find("disks", "DiskId", disk.diskId);
    EXPECT_EQ(d.value("Status", ""), "In_use");
    EXPECT_EQ(d.value("InstanceId", ""), kProxy);
    EXPECT_TRUE(std::filesystem::exists(emulator_->ByIdDir() / ("virtio-" + d.value("SerialNumber", ""))));
    // Attaching again is a no-op, not an error.
    EXPECT_TRUE(bridge_.AttachDisk(kProxy, disk.diskId, limit, true)) << bridge_.GetLastError();

    ASSERT_TRUE(bridge_.DetachDisk(kProxy, disk.diskId, kRegion)) << bridge_.GetLastError();

    bool exists = false;  // the detach's wait for Available comes with this next use
    ASSERT_TRUE(bridge_.DoesDiskExist(kRegion, disk.diskId, exists));
    EXPECT_EQ(Find("disks", "DiskId", disk.diskId).value("Status", ""), "Available");
    EXPECT_TRUE(exists);
    ASSERT_TRUE(bridge_.DeleteDisk(disk.diskId)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("disks", "DiskId", disk.diskId).is_null());
    ASSERT_TRUE(bridge_.DoesDiskExist(kRegion, disk.diskId, exists)) << bridge_.GetLastError();
    EXPECT_FALSE(exists);

    ASSERT_TRUE(bridge_.DoesSnapshotExist(kRegion, snap, exists));
    EXPECT_TRUE(exists);
    ASSERT_TRUE(bridge_.DeleteSnapshot(snap)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("snapshots", "SnapshotId", snap).is_null());
    ASSERT_TRUE(bridge_.DoesSnapshotExist(kRegion, snap, exists)) << bridge_.GetLastError();
    EXPECT_FALSE(exists);
}

TEST_F(BridgeOnEmulator, NotFoundAnswers) {
    SDisk disk;
    EXPECT_FALSE(bridge_.GetDiskInfo(kRegion, "d-doesnotexist000000", disk));
    EXPECT_NE(bridge_.GetLastError().find("InvalidDiskId.NotFound"), std::string::npos) << bridge_.GetLastError();
    SVMInfo vm;
    EXPECT_FALSE(bridge_.GetVMInfoForVM("i-doesnotexist000000", vm, 0, 0));
    EXPECT_NE(bridge_.GetLastError().find("InvalidInstanceId.NotFound"), std::string::npos) << bridge_.GetLastError();
    bool completed = true;
    EXPECT_FALSE(bridge_.IsSnapshotCompleted(kRegion, "s-doesnotexist000000", completed));
    EXPECT_TRUE(bridge_.DeleteDisk("d-doesnotexist000000")) << "a disk no region knows is already gone";
    bool limit = true;
    EXPECT_FALSE(bridge_.AttachDisk(kProxy, "d-doesnotexist000000", limit, true));
    EXPECT_FALSE(limit);
}

TEST_F(BridgeOnEmulator, DiskLimitOfTheInstanceSetsTheFlag) {
    SDisk a, b;
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, a, "", "", "cloud_essd", 20, false, "")) << bridge_.GetLastError();
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, b, "", "", "cloud_essd", 20, false, "")) << bridge_.GetLastError();
    bool limit = true;
    ASSERT_TRUE(bridge_.AttachDisk(kApp, a.diskId, limit, true)) << bridge_.GetLastError();  // the fifth disk
    EXPECT_FALSE(limit);
    EXPECT_FALSE(bridge_.AttachDisk(kApp, b.diskId, limit, true));
    EXPECT_TRUE(limit);
    EXPECT_NE(bridge_.GetLastError().find("InstanceDiskLimitExceeded"), std::string::npos) << bridge_.GetLastError();
    EXPECT_EQ(Find("disks", "DiskId", b.diskId).value("Status", ""), "Available");
}

TEST_F(BridgeOnEmulator, ThrottledCallsSucceedAfterRetriesWithinABound) {
    Fault({{"action", "DescribeDisks"}, {"failNext", 3}, {"code", "Throttling.User"}});
    const int before = Calls("DescribeDisks");
    SDisk disk;
    ASSERT_TRUE(bridge_.GetDiskInfo(kRegion, kDbDataDisk, disk)) << bridge_.GetLastError();
    EXPECT_EQ(disk.diskName, "db-data");
    EXPECT_EQ(Calls("DescribeDisks") - before, 4);

    Fault({{"action", "DescribeDisks"}, {"failNext", 50}, {"code", "ServiceUnavailable"}});
    EXPECT_FALSE(bridge_.GetDiskInfo(kRegion, kDbSystemDisk, disk));  // one it has not seen yet
    EXPECT_NE(bridge_.GetLastError().find("ServiceUnavailable"), std::string::npos);
    EXPECT_LE(Calls("DescribeDisks") - before, 4 + 6);  // the retry bound holds
}

TEST_F(BridgeOnEmulator, ACreateRetriedAfterALostAnswerCreatesOnce) {
    const size_t disksBefore = State()["disks"].size();
    Fault({{"action", "CreateDisk"}, {"dropNext", 1}});
    SDisk disk;
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, disk, "", "restored", "cloud_essd", 30, false, "why"))
        << bridge_.GetLastError();
    // The repetition carries the first attempt's ClientToken: while the emulator still
    // counts the first create as running it answers LastTokenProcessing, which is retried
    // too, and then it replays the first result.
    EXPECT_EQ(Calls("CreateDisk"), 2 + Refusals("CreateDisk"));
    EXPECT_EQ(State()["disks"].size(), disksBefore + 1);
    EXPECT_EQ(Find("disks", "DiskId", disk.diskId).value("Description", ""), "why");

    // The same for snapshots.
    const size_t snapsBefore = State()["snapshots"].size();
    Fault({{"action", "CreateSnapshot"}, {"dropNext", 1}});
    SChildDisk snap;
    ASSERT_TRUE(bridge_.CreateSnapshot(kDbDataDisk, snap, "", "")) << bridge_.GetLastError();
    EXPECT_EQ(State()["snapshots"].size(), snapsBefore + 1);
    EXPECT_EQ(snap.parentDiskId, kDbDataDisk);
    EXPECT_EQ(snap.diskSize, 2);

    // And a delete whose answer is lost still reports success.
    Fault({{"action", "DeleteDisk"}, {"dropNext", 1}});
    EXPECT_TRUE(bridge_.DeleteDisk(disk.diskId)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("disks", "DiskId", disk.diskId).is_null());
}

TEST_F(BridgeOnEmulator, RestorePathImageInstancePowerAndDelete) {
    SVMInfo source;
    std::string config;
    ASSERT_TRUE(bridge_.GetVMInfoAndConfigFile(kDb, 16, 0, source, config)) << bridge_.GetLastError();
    const std::string snap = Snapshot(kDbSystemDisk);

    std::string imageId;
    ASSERT_TRUE(bridge_.CreateImageFromDiskSnapshots(kRegion, snap, {}, "x86_64", "Ubuntu 22.04 64-bit", imageId, "",
                                                     "restore image"))
        << bridge_.GetLastError();
    json image = Find("images", "ImageId", imageId);
    EXPECT_EQ(image.value("Status", ""), "Available");  // the bridge waited
    EXPECT_EQ(image.value("Platform", ""), "Ubuntu");
    EXPECT_EQ(image.value("Architecture", ""), "x86_64");
    EXPECT_EQ(Tag(image, "hx:created-by"), "HXAliCloudSDKCppBridge");

    SVMInfo target;
    ASSERT_TRUE(bridge_.GetVMInfoFromConfigFile(config, target));
    target.guid.clear();
    target.name = "db-01-restored";
    target.hostName = kProxyZone;
    std::string newId;
    ASSERT_TRUE(bridge_.CreateInstance(target, imageId, config, newId)) << bridge_.GetLastError();
    json inst = Find("instances", "InstanceId", newId);
    EXPECT_EQ(inst.value("InstanceName", ""), "db-01-restored");
    EXPECT_EQ(inst.value("InstanceType", ""), "ecs.g7.xlarge");
    EXPECT_EQ(inst["VpcAttributes"].value("VSwitchId", ""), source.networkCards[0].vSwitchId);
    EXPECT_EQ(Tag(inst, "app"), "db");  // the backed-up instance's tags came back

    std::string status;
    EXPECT_TRUE(Eventually([&] { return bridge_.GetInstanceStatus(newId, status) && status == "Stopped"; })) << status;
    target.guid = newId;
    EXPECT_TRUE(bridge_.AddPeripheralComponents(target, config)) << bridge_.GetLastError();

    ASSERT_TRUE(bridge_.PowerOnInstance(newId)) << bridge_.GetLastError();
    EXPECT_TRUE(Eventually([&] { return bridge_.GetInstanceStatus(newId, status) && status == "Running"; })) << status;
    ASSERT_TRUE(bridge_.PowerOffInstance(newId, true, true, false)) << bridge_.GetLastError();
    EXPECT_EQ(Find("instances", "InstanceId", newId).value("Status", ""), "Stopped");  // waited
    ASSERT_TRUE(bridge_.DeleteInstance(newId)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("instances", "InstanceId", newId).is_null());

    ASSERT_TRUE(bridge_.DeleteImage(kRegion, imageId, true)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("images", "ImageId", imageId).is_null());
    EXPECT_TRUE(bridge_.DeleteSnapshot(snap)) << bridge_.GetLastError();
}

// ---------------------------------------------------------------- restore: groups and address

// What a restore of db-01 starts from: its configuration document (edited by `edit` to
// stand for the instance as it was backed up), the description rebuilt from it, and an
// image of its system disk.
struct RestoreInput {
    std::string config;
    SVMInfo target;
    std::string imageId;
};

class RestoreNetwork : public BridgeOnEmulator {
protected:
    RestoreInput Prepare(const std::function<void(json& instance)>& edit = nullptr) {
        RestoreInput in;
        SVMInfo source;
        std::string config;
        EXPECT_TRUE(bridge_.GetVMInfoAndConfigFile(kDb, 16, 0, source, config)) << bridge_.GetLastError();
        json doc = json::parse(config);
        if (edit) edit(doc["instance"]);
        in.config = doc.dump();
        EXPECT_TRUE(bridge_.GetVMInfoFromConfigFile(in.config, in.target)) << bridge_.GetLastError();
        in.target.guid.clear();
        in.target.name = "db-01-restored";
        in.target.hostName = kProxyZone;
        const std::string snap = Snapshot(kDbSystemDisk);
        EXPECT_TRUE(bridge_.CreateImageFromDiskSnapshots(kRegion, snap, {}, "x86_64", "Ubuntu 22.04 64-bit", in.imageId,
                                                         "", "restore image"))
            << bridge_.GetLastError();
        return in;
    }
    std::vector<std::string> Groups(const std::string& instanceId) {
        const json inst = Find("instances", "InstanceId", instanceId);
        return inst.is_null() ? std::vector<std::string>{"<no instance>"}
                              : inst["SecurityGroupIds"]["SecurityGroupId"].get<std::vector<std::string>>();
    }
    std::string Address(const std::string& instanceId) {
        const json inst = Find("instances", "InstanceId", instanceId);
        if (inst.is_null()) return "<no instance>";
        const json& ips = inst["VpcAttributes"]["PrivateIpAddress"]["IpAddress"];
        return ips.size() == 1 ? ips[0].get<std::string>() : ips.dump();
    }
    void WaitStopped(const std::string& instanceId) {
        std::string status;
        EXPECT_TRUE(Eventually([&] { return bridge_.GetInstanceStatus(instanceId, status) && status == "Stopped"; }))
            << status;
    }
    static void AddGroup(json& instance, const std::string& group) {
        instance["SecurityGroupIds"]["SecurityGroupId"].push_back(group);
    }
};

TEST_F(RestoreNetwork, ARestoreIntoTwoSecurityGroupsEndsInBoth) {
    // The groups come from the description the plug-in hands over, or from the document alone.
    for (const bool fromDocumentOnly : {false, true}) {
        SCOPED_TRACE(fromDocumentOnly ? "groups from the document" : "groups from the description");
        ResetWorld();
        RestoreInput in = Prepare([](json& instance) { AddGroup(instance, kWebGroup); });
        if (fromDocumentOnly) {
            in.target.securityGroups.clear();
        } else {
            ASSERT_EQ(in.target.securityGroups.size(), 2u);
        }

        std::string newId;
        ASSERT_TRUE(bridge_.CreateInstance(in.target, in.imageId, in.config, newId)) << bridge_.GetLastError();
        EXPECT_EQ(Groups(newId), std::vector<std::string>{kDefaultGroup});  // CreateInstance takes one
        WaitStopped(newId);
        in.target.guid = newId;
        const int joinsBefore = Calls("JoinSecurityGroup");
        ASSERT_TRUE(bridge_.AddPeripheralComponents(in.target, in.config)) << bridge_.GetLastError();
        EXPECT_EQ(Groups(newId), (std::vector<std::string>{kDefaultGroup, kWebGroup}));
        EXPECT_EQ(Calls("JoinSecurityGroup") - joinsBefore, 1);

        // Completing again changes nothing and asks ECS for nothing.
        ASSERT_TRUE(bridge_.AddPeripheralComponents(in.target, in.config)) << bridge_.GetLastError();
        EXPECT_EQ(Groups(newId), (std::vector<std::string>{kDefaultGroup, kWebGroup}));
        EXPECT_EQ(Calls("JoinSecurityGroup") - joinsBefore, 1);
    }
}

TEST_F(RestoreNetwork, AGroupThatCannotBeJoinedIsReportedAndTheOthersAreStillJoined) {
    RestoreInput in = Prepare([](json& instance) {
        AddGroup(instance, kIsolatedGroup);  // of another VPC: ECS refuses it
        AddGroup(instance, kWebGroup);
    });
    std::string newId;
    ASSERT_TRUE(bridge_.CreateInstance(in.target, in.imageId, in.config, newId)) << bridge_.GetLastError();
    WaitStopped(newId);
    in.target.guid = newId;
    EXPECT_FALSE(bridge_.AddPeripheralComponents(in.target, in.config));
    const std::string error = bridge_.GetLastError();
    EXPECT_NE(error.find(kIsolatedGroup), std::string::npos) << error;
    EXPECT_NE(error.find("InvalidInstanceId.Mismatch"), std::string::npos) << error;
    EXPECT_EQ(error.find(kWebGroup), std::string::npos) << error;
    EXPECT_EQ(Groups(newId), (std::vector<std::string>{kDefaultGroup, kWebGroup}));
}

// The old private address is asked for when no instance in its vSwitch holds it; when
// another instance holds it, or ECS refuses it anyway, the instance is made with an address
// ECS picks in the same vSwitch, so the restore still succeeds. A held address costs no
// refused CreateInstance.
TEST_F(RestoreNetwork, ThePrivateAddressIsKeptWhenFreeAndReplacedWhenNot) {
    struct Case {
        const char* name;
        std::function<void(SVMInfo&)> change;  // applied to the restored description
        bool deleteSource;                      // frees db-01's address first
        bool keepsAddress;
        int createCalls;                        // CreateInstance requests the bridge sends
    } cases[] = {
        {"address free (the source is gone)", nullptr, true, true, 1},
        {"address taken by the source", nullptr, false, false, 1},
        {"address outside the vSwitch", [](SVMInfo& vm) { vm.networkCards[0].privateIp = "10.1.2.3"; }, true, false, 2},
        {"malformed address", [](SVMInfo& vm) { vm.networkCards[0].privateIp = "172.16.0.300"; }, true, false, 2},
        // Without its vSwitch an address means nothing to ECS: it is not sent at all.
        {"address without a vSwitch", [](SVMInfo& vm) { vm.networkCards[0].vSwitchId.clear(); }, true, false, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ResetWorld();
        RestoreInput in = Prepare();
        ASSERT_EQ(in.target.networkCards.size(), 1u);
        ASSERT_EQ(in.target.networkCards[0].privateIp, kDbAddress);
        if (c.change) c.change(in.target);
        if (c.deleteSource) {
            ASSERT_TRUE(bridge_.PowerOffInstance(kDb, true, true, false)) << bridge_.GetLastError();
            ASSERT_TRUE(bridge_.DeleteInstance(kDb)) << bridge_.GetLastError();
        }
        const int callsBefore = Calls("CreateInstance");
        const size_t instancesBefore = State()["instances"].size();

        std::string newId;
        ASSERT_TRUE(bridge_.CreateInstance(in.target, in.imageId, in.config, newId)) << bridge_.GetLastError();
        EXPECT_EQ(Calls("CreateInstance") - callsBefore, c.createCalls);
        EXPECT_EQ(State()["instances"].size(), instancesBefore + 1);  // a refused attempt leaves nothing behind
        const std::string address = Address(newId);
        if (c.keepsAddress) {
            EXPECT_EQ(address, kDbAddress);
        } else {
            EXPECT_NE(address, kDbAddress);
            EXPECT_EQ(address.rfind("172.16.", 0), 0u) << address;  // ECS's pick, in the zone's vSwitch
        }
        EXPECT_EQ(Find("instances", "InstanceId", newId)["VpcAttributes"].value("VSwitchId", ""),
                  "vsw-hxsimcn-hangzhou-h");
        if (!c.deleteSource) {
            EXPECT_EQ(Address(kDb), kDbAddress);  // the source keeps its own
        }
    }
}

TEST_F(RestoreNetwork, AnUnknownVSwitchFailsTheCreateClearlyWithoutASecondAttempt) {
    RestoreInput in = Prepare();
    in.target.networkCards[0].vSwitchId = "vsw-hxsim0gone0000000001";
    const int callsBefore = Calls("CreateInstance");
    const size_t instancesBefore = State()["instances"].size();
    std::string newId;
    EXPECT_FALSE(bridge_.CreateInstance(in.target, in.imageId, in.config, newId));
    EXPECT_NE(bridge_.GetLastError().find("InvalidVSwitchId.NotFound"), std::string::npos) << bridge_.GetLastError();
    EXPECT_EQ(Calls("CreateInstance") - callsBefore, 1);
    EXPECT_EQ(State()["instances"].size(), instancesBefore);
}

}  // namespace

// The metadata service is unreachable: the bridge answers quickly, with an empty id.
TEST(BridgeOffEcs, LocalInstanceIdFailsFastWhenTheMetadataServiceIsUnreachable) {
    const int port = ClosedPort();
    setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1);
    CAliCloudSDKCppBridge bridge;
    std::string id = "stale";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(bridge.GetLocalInstanceId(id));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_TRUE(id.empty());
    EXPECT_NE(bridge.GetLastError().find("MetadataUnavailable"), std::string::npos);
}
