// Disks: create (and wait), look up, attach, detach and delete.
#include "bridge_impl.h"

#include "bridge_common.h"
#include "json_util.h"
#include "mapping.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

void Impl::CreateDisk(const std::string& regionId, const std::string& zoneId, SDisk& disk,
                      const std::string& snapshotId, const std::string& diskName, const std::string& category,
                      long long sizeGiB, bool encrypted, const std::string& description) {
    RequireArg(regionId, "region id");
    RequireArg(zoneId, "zone id");
    if (snapshotId.empty() && sizeGiB <= 0) throw ClientError("InvalidParameter", "an empty disk needs a size in GiB");
    Params p;
    p["ZoneId"] = zoneId;
    const std::string diskCategory = category.empty() ? "cloud_essd" : category;
    p["DiskCategory"] = diskCategory;
    // An ESSD's performance level may come in with the record; it also sets the minimum size.
    if (!disk.performanceLevel.empty() && diskCategory == "cloud_essd") p["PerformanceLevel"] = disk.performanceLevel;
    // ECS refuses a disk smaller than its category allows, also when it comes from a
    // smaller snapshot (a PL0 or cloud_auto source restored as PL1). Such a disk is made at
    // the category's minimum: larger, never refused.
    const std::int64_t minimum = MinimumDiskSizeGiB(diskCategory, disk.performanceLevel);
    long long size = sizeGiB;
    if (!snapshotId.empty() && size <= 0) {
        const json snap = Require(Kind::Snapshot, regionId, snapshotId);
        if (jv::Int(snap, "SourceDiskSize") < minimum) size = minimum;
    } else if (size > 0 && size < minimum) {
        size = minimum;
    }
    if (size > 0) p["Size"] = std::to_string(size);
    if (!snapshotId.empty()) p["SnapshotId"] = snapshotId;
    if (!diskName.empty()) p["DiskName"] = diskName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    if (encrypted) p["Encrypted"] = "true";
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, snapshotId.empty() ? "restore-disk" : "disk-copy");
    json answer = Call("CreateDisk", regionId, p);
    const std::string id = jv::Str(answer, "DiskId");
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateDisk returned no DiskId");
    Remember(id, regionId);
    // The id is handed out even if the wait fails, so that the caller can delete the disk.
    disk.diskId = id;
    json last;
    WaitUntil(waits_.createDisk, deps_.time,
              [&] {
                  auto found = Find(Kind::Disk, regionId, id);
                  if (!found) return false;  // not yet visible to Describe (eventual consistency)
                  last = *found;
                  return jv::Str(last, "Status") == "Available";
              },
              "disk " + id + " becoming Available");
    disk = DiskFromJson(last);
}

void Impl::GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out) {
    RequireArg(diskId, "disk id");
    out = DiskFromJson(Require(Kind::Disk, RegionOr(regionId, Kind::Disk, diskId), diskId));
}

void Impl::DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists) {
    RequireArg(diskId, "disk id");
    try {
        exists = Find(Kind::Disk, RegionOr(regionId, Kind::Disk, diskId), diskId).has_value();
    } catch (const ApiError& e) {
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
        exists = false;
    }
}

void Impl::AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                      bool waitUntilAttached) {
    limitReached = false;
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOf(Kind::Instance, instanceId);
    auto attachedHere = [&](const json& d) {
        return jv::Str(d, "InstanceId") == instanceId && jv::Str(d, "Status") == "In_use";
    };
    json disk = Require(Kind::Disk, region, diskId);
    if (!attachedHere(disk)) {
        try {
            Call("AttachDisk", region, {{"InstanceId", instanceId}, {"DiskId", diskId}});
        } catch (const ApiError& e) {
            if (e.code() == "InstanceDiskLimitExceeded") {
                limitReached = true;
                throw;
            }
            // After a lost answer the first attempt may have attached it already.
            const json now = Require(Kind::Disk, region, diskId);
            const bool underway = jv::Str(now, "InstanceId") == instanceId &&
                                  (jv::Str(now, "Status") == "In_use" || jv::Str(now, "Status") == "Attaching");
            if (!(e.mayHaveSucceeded() && underway)) throw;
        }
    }
    if (!waitUntilAttached) return;
    WaitUntil(waits_.attachDisk, deps_.time, [&] { return attachedHere(Require(Kind::Disk, region, diskId)); },
              "disk " + diskId + " becoming In_use on " + instanceId);
}

void Impl::DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId) {
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOr(regionId, Kind::Disk, diskId);
    json disk = Require(Kind::Disk, region, diskId);
    const std::string status = jv::Str(disk, "Status");
    if (status != "Available" && status != "Detaching") {
        try {
            Call("DetachDisk", region, {{"InstanceId", instanceId}, {"DiskId", diskId}});
        } catch (const ApiError& e) {
            const std::string now = jv::Str(Require(Kind::Disk, region, diskId), "Status");
            if (!(e.mayHaveSucceeded() && (now == "Available" || now == "Detaching"))) throw;
        }
    }
    WaitUntil(waits_.detachDisk, deps_.time,
              [&] { return jv::Str(Require(Kind::Disk, region, diskId), "Status") == "Available"; },
              "disk " + diskId + " becoming Available after detaching");
}

void Impl::DeleteDisk(const std::string& diskId) {
    auto [region, disk] = Locate(Kind::Disk, diskId);
    if (!disk) {
        regionOf_.erase(diskId);  // gone already: what a delete is for
        return;
    }
    RequireOwned(Kind::Disk, *disk, diskId);
    try {
        Call("DeleteDisk", region, {{"DiskId", diskId}});
    } catch (const ApiError& e) {
        if (!(e.IsNotFound() && e.mayHaveSucceeded())) throw;
    }
    WaitUntilGone(Kind::Disk, region, diskId);
    regionOf_.erase(diskId);
}
