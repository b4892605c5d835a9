// Ownership tags against the emulator: what every created object carries, what the bridge
// refuses to delete, and the host's sweep (HostBridge) removing a job's objects in
// dependency order while leaving everything else alone.
#include "BridgeSimFixture.h"
#include "hxbridge/HostBridge.h"

namespace {

using namespace bridgesim;

class Ownership : public BridgeOnEmulator {
protected:
    void SetUp() override {
        setenv("ALIBABA_CLOUD_BRIDGE_JOB", "4242", 1);
        setenv("ALIBABA_CLOUD_BRIDGE_JOB_OWNER", "9.99.boot", 1);
        BridgeOnEmulator::SetUp();  // the bridge reads the job when it connects
        const auto creds = emulator_->DemoCredentials();
        ASSERT_TRUE(host_.Connect(creds.accessKeyId, creds.accessKeySecret)) << host_.LastError();
    }
    void TearDown() override {
        unsetenv("ALIBABA_CLOUD_BRIDGE_JOB");
        unsetenv("ALIBABA_CLOUD_BRIDGE_JOB_OWNER");
    }
    // A snapshot of a bridge that is not on this proxy (no metadata service): a user's own.
    std::string ForeignSnapshot(const std::string& diskId) {
        setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", "http://127.0.0.1:1", 1);
        CAliCloudSDKCppBridge other;
        const auto creds = emulator_->DemoCredentials();
        EXPECT_TRUE(other.Connect(creds.accessKeyId, creds.accessKeySecret)) << other.GetLastError();
        SChildDisk snap;
        EXPECT_TRUE(other.CreateSnapshot(diskId, snap, "", "")) << other.GetLastError();
        setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", emulator_->MetadataEndpoint().c_str(), 1);
        return snap.snapshotId;
    }
    // What a restore makes before it finishes: an image from `snapshot`, an instance of db-01's
    // shape named `name` from it, and an empty data disk attached to that instance.
    void HalfRestore(const std::string& snapshot, const std::string& name, std::string& image, std::string& instance,
                     SDisk& data) {
        ASSERT_TRUE(bridge_.CreateImageFromDiskSnapshots(kRegion, snapshot, {}, "x86_64", "Ubuntu", image, "", ""));
        SVMInfo target;
        ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, target, 0, 0));
        target.guid.clear();
        target.name = name;
        ASSERT_TRUE(bridge_.CreateInstance(target, image, "", instance)) << bridge_.GetLastError();
        ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, data, "", "", "", 20, false, ""));
        std::string status;
        ASSERT_TRUE(Eventually([&] { return bridge_.GetInstanceStatus(instance, status) && status == "Stopped"; }));
        bool limit = false;
        ASSERT_TRUE(bridge_.AttachDisk(instance, data.diskId, limit, true)) << bridge_.GetLastError();
    }
    hxbridge::HostBridge host_;
};

TEST_F(Ownership, EveryCreatedObjectCarriesTheJobAndItsRole) {
    const std::string snap = Snapshot(kDbSystemDisk);
    SDisk copy, empty;
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, copy, snap, "", "", 0, false, "")) << bridge_.GetLastError();
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, empty, "", "", "", 20, false, "")) << bridge_.GetLastError();
    std::string image;
    ASSERT_TRUE(bridge_.CreateImageFromDiskSnapshots(kRegion, snap, {}, "x86_64", "Ubuntu", image, "", ""))
        << bridge_.GetLastError();
    SVMInfo target;
    ASSERT_TRUE(bridge_.GetVMInfoForVM(kDb, target, 0, 0));
    target.guid.clear();
    target.name = "db-restored";
    std::string instance;
    ASSERT_TRUE(bridge_.CreateInstance(target, image, "", instance)) << bridge_.GetLastError();

    struct Expect {
        const char *list, *idKey;
        std::string id;
        const char* role;
    };
    for (const Expect& e : std::vector<Expect>{{"snapshots", "SnapshotId", snap, "snapshot"},
                                               {"disks", "DiskId", copy.diskId, "disk-copy"},
                                               {"disks", "DiskId", empty.diskId, "restore-disk"},
                                               {"images", "ImageId", image, "image"},
                                               {"instances", "InstanceId", instance, "instance"}}) {
        SCOPED_TRACE(e.id);
        const json o = Find(e.list, e.idKey, e.id);
        EXPECT_EQ(Tag(o, "hx:created-by"), "HXAliCloudSDKCppBridge");
        EXPECT_EQ(Tag(o, "hx:proxy-instance"), kProxy);
        EXPECT_EQ(Tag(o, "hx:job"), "4242");
        EXPECT_EQ(Tag(o, "hx:job-owner"), "9.99.boot");
        EXPECT_EQ(Tag(o, "hx:role"), e.role);
        EXPECT_EQ(Tag(o, "hx:restore-state"), std::string(e.role) == "instance" ? "incomplete" : "<missing>");
    }
}

TEST_F(Ownership, DeletesRefuseWhatThisProxyDidNotMakeAndSucceedForWhatIsGone) {
    const std::string foreign = ForeignSnapshot(kDbDataDisk);
    EXPECT_FALSE(bridge_.DeleteSnapshot(foreign));
    EXPECT_NE(bridge_.GetLastError().find("NotOwnedByThisProxy"), std::string::npos) << bridge_.GetLastError();
    EXPECT_FALSE(Find("snapshots", "SnapshotId", foreign).is_null());
    EXPECT_FALSE(bridge_.DeleteDisk(kDbDataDisk));  // a user's disk, no tags at all
    EXPECT_FALSE(Find("disks", "DiskId", kDbDataDisk).is_null());
    EXPECT_FALSE(bridge_.DeleteInstance(kProxy));
    EXPECT_NE(bridge_.GetLastError().find("RefusedProxyInstance"), std::string::npos) << bridge_.GetLastError();

    const std::string own = Snapshot(kDbSystemDisk);
    ASSERT_TRUE(bridge_.DeleteSnapshot(own)) << bridge_.GetLastError();
    EXPECT_TRUE(Find("snapshots", "SnapshotId", own).is_null());  // gone when the call returns
    EXPECT_TRUE(bridge_.DeleteSnapshot(own)) << "a second delete of the same snapshot converges";
    // A cleanup that knows an image only by id (no region): gone is done.
    EXPECT_TRUE(bridge_.DeleteImage("", "m-doesnotexist0000000", true)) << bridge_.GetLastError();
}

// A job's leftovers in every state that blocks a naive delete: a disk copy attached to the
// proxy, a snapshot pinned by an image, a half-restored instance holding a data disk.
TEST_F(Ownership, HostSweepRemovesAJobsObjectsInDependencyOrderAndNothingElse) {
    const std::string snap = Snapshot(kDbSystemDisk);
    SDisk copy, data;
    ASSERT_TRUE(bridge_.CreateDisk(kRegion, kProxyZone, copy, snap, "", "", 0, false, ""));
    bool limit = false;
    ASSERT_TRUE(bridge_.AttachDisk(kProxy, copy.diskId, limit, true)) << bridge_.GetLastError();
    std::string image, instance;
    ASSERT_NO_FATAL_FAILURE(HalfRestore(snap, "db-half-restored", image, instance, data));
    const std::string foreign = ForeignSnapshot(kDbDataDisk);

    std::vector<hxbridge::OwnedObject> owned;
    ASSERT_TRUE(host_.ListOwned(kRegion, owned)) << host_.LastError();
    EXPECT_EQ(owned.size(), 5u);  // snapshot, two disks, image, instance; not the foreign snapshot
    for (const auto& o : owned) {
        EXPECT_NE(o.id, foreign);
        EXPECT_EQ(o.job, "4242");
        EXPECT_EQ(o.incomplete, o.kind == "instance") << o.id;
    }
    hxbridge::RemovalReport report;
    ASSERT_TRUE(host_.Remove(owned, report)) << (report.failures.empty() ? host_.LastError() : report.failures[0]);
    EXPECT_EQ(report.removed.size(), owned.size());
    for (const auto& o : owned) {
        const char* list = o.kind == "instance" ? "instances" : o.kind == "disk" ? "disks" : o.kind == "image" ? "images" : "snapshots";
        const char* key = o.kind == "instance" ? "InstanceId" : o.kind == "disk" ? "DiskId" : o.kind == "image" ? "ImageId" : "SnapshotId";
        EXPECT_TRUE(Find(list, key, o.id).is_null()) << o.kind << " " << o.id << " is still there";
    }
    EXPECT_FALSE(Find("snapshots", "SnapshotId", foreign).is_null());
    EXPECT_FALSE(Find("instances", "InstanceId", kDb).is_null());

    // The same list again: everything is gone already, so nothing fails.
    hxbridge::RemovalReport again;
    EXPECT_TRUE(host_.Remove(owned, again));
    EXPECT_TRUE(again.failures.empty());
}

TEST_F(Ownership, AFinishedRestoreIsNoLongerOwnedAndNeverSwept) {
    const std::string snap = Snapshot(kDbSystemDisk);
    std::string image, instance;
    SDisk data;
    ASSERT_NO_FATAL_FAILURE(HalfRestore(snap, "db-restored", image, instance, data));

    ASSERT_TRUE(host_.FinishRestore(kRegion, instance)) << host_.LastError();
    EXPECT_EQ(Tag(Find("instances", "InstanceId", instance), "hx:restore-state"), "<missing>");
    EXPECT_EQ(Tag(Find("disks", "DiskId", data.diskId), "hx:proxy-instance"), "<missing>");
    std::vector<hxbridge::OwnedObject> owned;
    ASSERT_TRUE(host_.ListOwned(kRegion, owned));
    for (const auto& o : owned) EXPECT_TRUE(o.id != instance && o.id != data.diskId) << o.id;
}

}  // namespace
