// The bridge against the emulator: a check before an operation reads the answer the bridge
// already holds instead of asking again, one Describe answers for every snapshot or disk
// being waited on, and answers that went stale behind the bridge's back cost a refused
// request, never a failure.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BridgeSimFixture.h"

namespace {

using namespace bridgesim;
using Actions = std::vector<std::string>;

class BridgeReuse : public BridgeOnEmulator {
protected:
    SDisk NewDisk(const std::string& zone) {
        SDisk disk;
        EXPECT_TRUE(bridge_.CreateDisk(kRegion, zone, disk, "", "", "cloud_essd", 20, false, ""))
            << bridge_.GetLastError();
        return disk;
    }
};

TEST_F(BridgeReuse, AnInstanceIsDescribedOnceUntilADiskIsAttachedToIt) {
    SVMInfo first, again;
    std::string config;
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, first, 0, 0)) << bridge_.GetLastError();
    ClearRequests();
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, again, 0, 0)) << bridge_.GetLastError();
    ASSERT_TRUE(bridge_.GetVMInfoAndConfigFile(kDb, 0, 0, again, config)) << bridge_.GetLastError();
    EXPECT_EQ(Requests(), Actions{});
    EXPECT_EQ(again.disks.size(), first.disks.size());
    EXPECT_NE(config.find(kDbDataDisk), std::string::npos);

    const SDisk extra = NewDisk(first.hostName);
    bool limitReached = false;
    ASSERT_TRUE(bridge_.AttachDisk(kDb, extra.diskId, limitReached, true)) << bridge_.GetLastError();
    ClearRequests();
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, again, 0, 0)) << bridge_.GetLastError();
    EXPECT_EQ(Count(Requests(), "DescribeDisks"), 1);
    EXPECT_EQ(again.disks.size(), first.disks.size() + 1);
}

TEST_F(BridgeReuse, OneDescribeSnapshotsAnswersForEverySnapshotWaitedOn) {
    SVMInfo vm;
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kApp, vm, 0, 0)) << bridge_.GetLastError();
    ASSERT_GE(vm.disks.size(), 3u);
    std::vector<std::string> ids;
    for (const SDisk& d : vm.disks) {
        SChildDisk snap;
        ASSERT_TRUE(bridge_.CreateSnapshot(d.diskId, snap, "", "")) << bridge_.GetLastError();
        ids.push_back(snap.snapshotId);
    }
    // Every snapshot finishes in the emulator before the first poll.
    ASSERT_TRUE(Eventually([&] {
        for (const auto& id : ids) {
            if (Find("snapshots", "SnapshotId", id).value("Status", "") != "accomplished") return false;
        }
        return true;
    }));
    ClearRequests();
    for (const auto& id : ids) {
        bool completed = false;
        ASSERT_TRUE(bridge_.IsSnapshotCompleted(kRegion, id, completed)) << bridge_.GetLastError();
        EXPECT_TRUE(completed) << id;
    }
    EXPECT_EQ(Requests(), Actions{"DescribeSnapshots"});

    // Existence and ownership come from that answer: each deletion is its request and the
    // confirmation that ECS no longer lists the snapshot.
    ClearRequests();
    for (const auto& id : ids) {
        bool exists = false;
        ASSERT_TRUE(bridge_.DoesSnapshotExist(kRegion, id, exists)) << bridge_.GetLastError();
        EXPECT_TRUE(exists);
        ASSERT_TRUE(bridge_.DeleteSnapshot(id)) << bridge_.GetLastError();
        EXPECT_TRUE(Find("snapshots", "SnapshotId", id).is_null()) << id;
    }
    const Actions deletes = Requests();
    EXPECT_EQ(Count(deletes, "DeleteSnapshot"), static_cast<int>(ids.size()));
    EXPECT_EQ(Count(deletes, "DescribeSnapshots"), static_cast<int>(ids.size()));
}

TEST_F(BridgeReuse, DisksCreatedOrDetachedOneAfterAnotherSettleInOnePoll) {
    ClearRequests();
    std::vector<SDisk> disks;
    for (int i = 0; i < 3; ++i) disks.push_back(NewDisk(kProxyZone));
    EXPECT_EQ(Requests(), (Actions{"CreateDisk", "CreateDisk", "CreateDisk"}));  // no wait yet
    auto allAvailable = [&] {
        for (const SDisk& d : disks) {
            if (Find("disks", "DiskId", d.diskId).value("Status", "") != "Available") return false;
        }
        return true;
    };
    ASSERT_TRUE(Eventually(allAvailable));
    ClearRequests();
    for (const SDisk& d : disks) {
        SDisk info;
        ASSERT_TRUE(bridge_.GetDiskInfo(kRegion, d.diskId, info)) << bridge_.GetLastError();
        EXPECT_EQ(info.diskId, d.diskId);
    }
    EXPECT_EQ(Requests(), Actions{"DescribeDisks"});

    // Attach each to the proxy (the check before each reads the kept answer), detach each
    // (returns at once), then delete each: one poll settles the three detaches.
    SVMInfo proxy;  // where the proxy is, known before the first attach
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kProxy, proxy, 0, 0)) << bridge_.GetLastError();
    bool limitReached = false;
    for (const SDisk& d : disks) {
        ClearRequests();
        ASSERT_TRUE(bridge_.AttachDisk(kProxy, d.diskId, limitReached, true)) << bridge_.GetLastError();
        // The wait probes once an attach's usual time (the emulator's too) has passed: one poll.
        EXPECT_EQ(Requests(), (Actions{"AttachDisk", "DescribeDisks"}));
    }
    ClearRequests();
    for (const SDisk& d : disks) ASSERT_TRUE(bridge_.DetachDisk(kProxy, d.diskId, kRegion)) << bridge_.GetLastError();
    EXPECT_EQ(Requests(), (Actions{"DetachDisk", "DetachDisk", "DetachDisk"}));
    ASSERT_TRUE(Eventually(allAvailable));
    ClearRequests();
    for (const SDisk& d : disks) {
        bool exists = false;
        ASSERT_TRUE(bridge_.DoesDiskExist(kRegion, d.diskId, exists)) << bridge_.GetLastError();
        EXPECT_TRUE(exists);
        ASSERT_TRUE(bridge_.DeleteDisk(d.diskId)) << bridge_.GetLastError();
        EXPECT_TRUE(Find("disks", "DiskId", d.diskId).is_null());
    }
    // One poll for the detaches, then each deletion's request and its confirmation.
    EXPECT_EQ(Requests(), (Actions{"DescribeDisks", "DeleteDisk", "DescribeDisks", "DeleteDisk", "DescribeDisks",
                                   "DeleteDisk", "DescribeDisks"}));
}

// Another client detaches and then deletes the disk after this bridge last saw it: the
// bridge's own detach still succeeds (the refusal makes it look again), and its deferred wait
// finds the disk gone instead of waiting for it.
TEST_F(BridgeReuse, AnswersThatWentStaleCostARefusalNotAFailure) {
    const SDisk disk = NewDisk(kProxyZone);
    bool limitReached = false;
    ASSERT_TRUE(bridge_.AttachDisk(kProxy, disk.diskId, limitReached, true)) << bridge_.GetLastError();

    // Another endpoint spelling for the same emulator: a client that shares no answers.
    CAliCloudSDKCppBridge other;
    const auto creds = emulator_->DemoCredentials();
    std::string endpoint = emulator_->Endpoint();
    endpoint.replace(endpoint.find("127.0.0.1"), 9, "localhost");
    setenv("ALIBABA_CLOUD_ECS_ENDPOINT", endpoint.c_str(), 1);
    const bool connected = other.Connect(creds.accessKeyId, creds.accessKeySecret);
    setenv("ALIBABA_CLOUD_ECS_ENDPOINT", emulator_->Endpoint().c_str(), 1);
    ASSERT_TRUE(connected) << other.GetLastError();
    ASSERT_TRUE(other.DetachDisk(kProxy, disk.diskId, kRegion)) << other.GetLastError();
    EXPECT_TRUE(bridge_.DetachDisk(kProxy, disk.diskId, kRegion)) << bridge_.GetLastError();

    ASSERT_TRUE(other.DeleteDisk(disk.diskId)) << other.GetLastError();
    bool exists = true;
    ASSERT_TRUE(bridge_.DoesDiskExist(kRegion, disk.diskId, exists)) << bridge_.GetLastError();
    EXPECT_FALSE(exists);  // its deferred wait found it gone
    EXPECT_TRUE(bridge_.DeleteDisk(disk.diskId)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("disks", "DiskId", disk.diskId).is_null());
}

// The host's bridge and the plug-in's in one process: what one learnt, the other does not ask
// again; what one changed, the other asks again.
TEST_F(BridgeReuse, BridgesOfOneProcessShareWhatTheyLearnt) {
    CAliCloudSDKCppBridge plugin;
    const auto creds = emulator_->DemoCredentials();
    ClearRequests();
    ASSERT_TRUE(plugin.Connect(creds.accessKeyId, creds.accessKeySecret)) << plugin.GetLastError();
    SVMInfo vm;
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, vm, 0, 0)) << bridge_.GetLastError();
    ClearRequests();
    ASSERT_TRUE(plugin.GetVMInfoForVM(kDb, vm, 0, 0)) << plugin.GetLastError();
    EXPECT_EQ(Requests(), Actions{});  // regions at Connect, the instance and its disks: known

    const SDisk extra = NewDisk(vm.hostName);
    bool limitReached = false;
    ASSERT_TRUE(bridge_.AttachDisk(kDb, extra.diskId, limitReached, true)) << bridge_.GetLastError();
    ClearRequests();
    ASSERT_TRUE(plugin.GetVMInfoForVM(kDb, vm, 0, 0)) << plugin.GetLastError();
    EXPECT_EQ(Count(Requests(), "DescribeDisks"), 1);
    EXPECT_EQ(vm.disks.size(), 3u);
}

}  // namespace
