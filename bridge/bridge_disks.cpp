// Disks: create (and wait), look up, attach, detach and delete.
#include "bridge_impl.h"

#include <algorithm>

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
        const json snap = Current(Kind::Snapshot, regionId, snapshotId);
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
    const std::string id = CallForNewId("CreateDisk", regionId, p, "DiskId");
    Remember(id, regionId);
    // What the request settled; the wait for Available comes with the next use of the disk
    // (see "Deferred waits"), together with the other disks created meanwhile.
    disk.diskId = id;
    disk.diskName = diskName;
    disk.category = diskCategory;
    if (size > 0) disk.diskSize = size;
    else if (!snapshotId.empty()) disk.diskSize = jv::Int(Current(Kind::Snapshot, regionId, snapshotId), "SourceDiskSize");
    disk.size = disk.diskSize * (1ll << 30);
    disk.zone = zoneId;
    disk.createFlag = encrypted;
    disk.diskType = 1;
    pendingDisks_[id] = {regionId, "becoming Available", "", waits_.createDisk, deps_.time.now()};
}

void Impl::SettleDisk(const std::string& diskId) {
    auto it = pendingDisks_.find(diskId);
    if (it == pendingDisks_.end()) return;
    const std::string region = it->second.region;
    const std::string what = "disk " + diskId + " " + it->second.what;
    // The first probe comes the usual pause after the request, which the caller's other work
    // may have used up already.
    const auto firstProbe = it->second.requested + it->second.bound.firstProbe;
    if (const auto now = deps_.time.now(); firstProbe > now) {
        deps_.time.sleep(std::chrono::ceil<std::chrono::milliseconds>(firstProbe - now));
    }
    WaitUntil(ProbeAtOnce(it->second.bound), deps_.time,
              [&] {
                  PollPendingDisks(region);
                  return !pendingDisks_.count(diskId);
              },
              what);
}

void Impl::PollPendingDisks(const std::string& regionId) {
    std::vector<std::string> ids;
    for (const auto& [id, pending] : pendingDisks_) {
        if (pending.region == regionId && ids.size() < 100) ids.push_back(id);
    }
    if (ids.empty()) return;
    std::vector<json> list;
    try {
        const json answer = Call("DescribeDisks", regionId, {{"DiskIds", jv::IdArray(ids)}, {"MaxResults", "100"}});
        list = jv::RequiredList(answer, "Disks", "Disk", "DescribeDisks");
    } catch (const ApiError& e) {
        // As Find: some ECS versions answer NotFound instead of an empty list.
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
    }
    for (const json& d : list) {
        const std::string id = jv::Str(d, "DiskId");
        if (!pendingDisks_.count(id)) continue;
        Keep(id, d);
        // Both deferred waits end in Available (a created disk, a detached one).
        if (jv::Str(d, "Status") == "Available") pendingDisks_.erase(id);
    }
    // A created disk not listed may not be visible yet (eventual consistency): it stays pending
    // until the wait's bound. A detached disk not listed is gone: nothing is left to wait for.
    for (const std::string& id : ids) {
        auto it = pendingDisks_.find(id);
        if (it == pendingDisks_.end() || it->second.detachedFrom.empty()) continue;
        const bool listed = std::any_of(list.begin(), list.end(), [&](const json& d) { return jv::Str(d, "DiskId") == id; });
        if (!listed) {
            pendingDisks_.erase(it);
            Forget(id);
        }
    }
}

void Impl::GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out) {
    RequireArg(diskId, "disk id");
    SettleDisk(diskId);
    out = DiskFromJson(Current(Kind::Disk, RegionOr(regionId, Kind::Disk, diskId), diskId));
}

void Impl::DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists) {
    RequireArg(diskId, "disk id");
    SettleDisk(diskId);
    exists = Exists(Kind::Disk, regionId, diskId);
}

void Impl::RequestAttach(const std::string& region, const std::string& instanceId, const std::string& diskId,
                         bool checkedAgainstKept, bool& limitReached) {
    const Params request{{"InstanceId", instanceId}, {"DiskId", diskId}};
    try {
        Call("AttachDisk", region, request);
    } catch (const ApiError& e) {
        if (e.code() == "InstanceDiskLimitExceeded") {
            // Disks this bridge detached from the instance hold their slots until ECS has
            // finished detaching them: wait for those, then ask once more.
            limitReached = true;
            if (!SettleDetachesFrom(instanceId)) throw;
            limitReached = false;
            try {
                Call("AttachDisk", region, request);
            } catch (const ApiError& again) {
                limitReached = again.code() == "InstanceDiskLimitExceeded";
                throw;
            }
            return;
        }
        // After a lost answer the first attempt may have attached it already; after a check
        // against a kept answer, something else may have.
        const json now = Require(Kind::Disk, region, diskId);
        const bool underway = jv::Str(now, "InstanceId") == instanceId &&
                              (jv::Str(now, "Status") == "In_use" || jv::Str(now, "Status") == "Attaching");
        if (!((e.mayHaveSucceeded() || checkedAgainstKept) && underway)) throw;
    }
}

void Impl::AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                      bool waitUntilAttached) {
    limitReached = false;
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOf(Kind::Instance, instanceId);
    SettleDisk(diskId);
    auto attachedHere = [&](const json& d) {
        return jv::Str(d, "InstanceId") == instanceId && jv::Str(d, "Status") == "In_use";
    };
    const bool fromKept = Kept(diskId).has_value();
    const bool issued = !attachedHere(Current(Kind::Disk, region, diskId));
    if (issued) {
        Forget(diskId);
        Forget(DiskListKey(instanceId));
        RequestAttach(region, instanceId, diskId, fromKept, limitReached);
    }
    if (!waitUntilAttached) return;
    WaitUntil(issued ? waits_.attachDisk : ProbeAtOnce(waits_.attachDisk), deps_.time,
              [&] { return attachedHere(Require(Kind::Disk, region, diskId)); },
              "disk " + diskId + " becoming In_use on " + instanceId);
}

void Impl::DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId) {
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOr(regionId, Kind::Disk, diskId);
    SettleDisk(diskId);
    const bool fromKept = Kept(diskId).has_value();
    json disk = Current(Kind::Disk, region, diskId);
    const std::string status = jv::Str(disk, "Status");
    if (status == "Available") return;
    const bool issued = status != "Detaching";
    if (issued) {
        Forget(diskId);
        Forget(DiskListKey(instanceId));
        try {
            Call("DetachDisk", region, {{"InstanceId", instanceId}, {"DiskId", diskId}});
        } catch (const ApiError& e) {
            const std::string now = jv::Str(Require(Kind::Disk, region, diskId), "Status");
            if (!((e.mayHaveSucceeded() || fromKept) && (now == "Available" || now == "Detaching"))) throw;
        }
    }
    // The wait for Available comes with the next use of the disk (see "Deferred waits").
    pendingDisks_[diskId] = {region, "becoming Available after detaching from " + instanceId, instanceId,
                             waits_.detachDisk, deps_.time.now()};
}

bool Impl::SettleDetachesFrom(const std::string& instanceId) {
    std::vector<std::string> ids;
    for (const auto& [id, pending] : pendingDisks_) {
        if (pending.detachedFrom == instanceId) ids.push_back(id);
    }
    for (const auto& id : ids) SettleDisk(id);
    return !ids.empty();
}

void Impl::DeleteDisk(const std::string& diskId) {
    SettleDisk(diskId);
    DeleteIfOwned(Kind::Disk, diskId, "DeleteDisk", {{"DiskId", diskId}});
}
