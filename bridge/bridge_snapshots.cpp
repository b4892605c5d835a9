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
    SettleDisk(diskId);
    const json disk = Current(Kind::Disk, region, diskId);  // for its size only
    Params p{{"DiskId", diskId}};
    if (!snapshotName.empty()) p["SnapshotName"] = snapshotName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, "snapshot");
    const std::string id = CallForNewId("CreateSnapshot", region, p, "SnapshotId");
    Remember(id, region);
    pendingSnapshots_.insert(id);
    snapshot.snapshotId = id;
    snapshot.parentDiskId = diskId;
    snapshot.name = snapshotName;
    snapshot.diskSize = jv::Int(disk, "Size");
    snapshot.progress = 0;
}

void Impl::IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed) {
    RequireArg(snapshotId, "snapshot id");
    const std::string region = RegionOr(regionId, Kind::Snapshot, snapshotId);
    // A finished state, once ECS has reported it, stays; anything else is asked again, together
    // with every other snapshot still pending here.
    std::optional<json> s = Kept(snapshotId);
    auto finished = [](const json& item) {
        const std::string status = jv::Str(item, "Status");
        return status == "accomplished" || status == "failed";
    };
    if (!s || !finished(*s)) {
        PollSnapshots(region, snapshotId);
        s = Kept(snapshotId);
    }
    if (!s) {
        throw NotFound(NotFoundCode(static_cast<int>(Kind::Snapshot)),
                       "The specified snapshot " + snapshotId + " does not exist in region " + region + ".");
    }
    const std::string status = jv::Str(*s, "Status");
    if (status == "failed") {
        completed = false;
        throw ApiError(ApiError::Kind::Service, "SnapshotFailed", "snapshot " + snapshotId + " failed");
    }
    completed = status == "accomplished";
}

void Impl::DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists) {
    RequireArg(snapshotId, "snapshot id");
    exists = Exists(Kind::Snapshot, regionId, snapshotId);
}

void Impl::DeleteSnapshot(const std::string& snapshotId) {
    pendingSnapshots_.erase(snapshotId);
    // Force: the bridge's snapshots are temporary; disks made from them stay usable.
    DeleteIfOwned(Kind::Snapshot, snapshotId, "DeleteSnapshot", {{"SnapshotId", snapshotId}, {"Force", "true"}});
}
