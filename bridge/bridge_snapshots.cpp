// Snapshots: create, progress, existence and delete.
#include "bridge_impl.h"

#include "bridge_common.h"
#include "json_util.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

void Impl::CreateSnapshot(const std::string& diskId, VMInfoStructs::SChildDisk& snapshot,
                          const std::string& snapshotName, const std::string& description) {
    const std::string region = RegionOf(Kind::Disk, diskId);
    const json disk = Require(Kind::Disk, region, diskId);
    Params p{{"DiskId", diskId}};
    if (!snapshotName.empty()) p["SnapshotName"] = snapshotName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, "snapshot");
    json answer = Call("CreateSnapshot", region, p);
    const std::string id = jv::Str(answer, "SnapshotId");
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateSnapshot returned no SnapshotId");
    Remember(id, region);
    snapshot.snapshotId = id;
    snapshot.parentDiskId = diskId;
    snapshot.name = snapshotName;
    snapshot.diskSize = jv::Int(disk, "Size");
    snapshot.progress = 0;
}

void Impl::IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed) {
    RequireArg(snapshotId, "snapshot id");
    const json s = Require(Kind::Snapshot, RegionOr(regionId, Kind::Snapshot, snapshotId), snapshotId);
    const std::string status = jv::Str(s, "Status");
    if (status == "failed") {
        completed = false;
        throw ApiError(ApiError::Kind::Service, "SnapshotFailed", "snapshot " + snapshotId + " failed");
    }
    completed = status == "accomplished";
}

void Impl::DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists) {
    RequireArg(snapshotId, "snapshot id");
    try {
        exists = Find(Kind::Snapshot, RegionOr(regionId, Kind::Snapshot, snapshotId), snapshotId).has_value();
    } catch (const ApiError& e) {
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
        exists = false;
    }
}

void Impl::DeleteSnapshot(const std::string& snapshotId) {
    auto [region, snapshot] = Locate(Kind::Snapshot, snapshotId);
    if (!snapshot) {
        regionOf_.erase(snapshotId);  // gone already: what a delete is for
        return;
    }
    RequireOwned(Kind::Snapshot, *snapshot, snapshotId);
    try {
        // Force: the bridge's snapshots are temporary; disks made from them stay usable.
        Call("DeleteSnapshot", region, {{"SnapshotId", snapshotId}, {"Force", "true"}});
    } catch (const ApiError& e) {
        if (!(e.IsNotFound() && e.mayHaveSucceeded())) throw;
    }
    WaitUntilGone(Kind::Snapshot, region, snapshotId);
    regionOf_.erase(snapshotId);
}
