// The host operations of hxbridge/HostBridge.h: listing and removing the objects that carry
// this proxy's ownership tags, finishing a restored instance, pre-flight look-ups.
#include <algorithm>

#include "bridge_impl.h"
#include "bridge_common.h"
#include "json_util.h"
#include "mapping.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

namespace {

const char* const kOwnershipKeys[] = {kCreatedByTagKey, kProxyTagKey,  kJobTagKey,
                                      kJobOwnerTagKey,  kRoleTagKey,   kRestoreStateTagKey};

OwnedObject ToOwned(const std::string& kind, const char* idKey, const json& item, const std::string& regionId) {
    OwnedObject o;
    o.kind = kind;
    o.id = jv::Str(item, idKey);
    o.regionId = regionId;
    o.status = jv::Str(item, "Status");
    const auto tags = TagsOf(item);
    auto tag = [&](const char* key) {
        auto it = tags.find(key);
        return it == tags.end() ? std::string() : it->second;
    };
    o.role = tag(kRoleTagKey);
    o.job = tag(kJobTagKey);
    o.owner = tag(kJobOwnerTagKey);
    o.incomplete = tag(kRestoreStateTagKey) == kIncompleteValue;
    if (kind == "disk") o.attachedTo = jv::Str(item, "InstanceId");
    return o;
}

std::string Describe(const OwnedObject& o) { return o.kind + " " + o.id; }

}  // namespace

std::vector<OwnedObject> Impl::ListOwned(const std::string& regionId) {
    RequireArg(regionId, "region id");
    const std::string proxy = OwnershipProxyId();
    const Params filter{{"Tag.1.Key", kProxyTagKey},
                        {"Tag.1.Value", proxy},
                        {"Tag.2.Key", kCreatedByTagKey},
                        {"Tag.2.Value", kCreatedByTagValue}};
    std::vector<OwnedObject> out;
    // The tag filter is the cloud's; the ownership test is repeated here so that a filter the
    // service ignored can never widen what is swept.
    auto collect = [&](const std::vector<json>& items, const std::string& kind, const char* idKey) {
        for (const json& item : items) {
            if (!IsOwnedBy(item, proxy)) continue;
            out.push_back(ToOwned(kind, idKey, item, regionId));
            Remember(out.back().id, regionId);
        }
    };
    Params paged = filter;
    paged["MaxResults"] = "100";
    collect(ListPaged("DescribeInstances", regionId, paged, "Instances", "Instance"), "instance", "InstanceId");
    collect(ListPaged("DescribeDisks", regionId, paged, "Disks", "Disk"), "disk", "DiskId");
    collect(ListPaged("DescribeSnapshots", regionId, paged, "Snapshots", "Snapshot"), "snapshot", "SnapshotId");
    // DescribeImages pages by number only.
    Params images = filter;
    images["ImageOwnerAlias"] = "self";
    images["Status"] = kAllImageStatuses;
    images["PageSize"] = "100";
    for (int page = 1;; ++page) {
        images["PageNumber"] = std::to_string(page);
        json answer = Call("DescribeImages", regionId, images);
        auto list = jv::RequiredList(answer, "Images", "Image", "DescribeImages");
        collect(list, "image", "ImageId");
        if (list.size() < 100 || page * 100 >= jv::Int(answer, "TotalCount")) break;
    }
    return out;
}

bool Impl::StillOwned(Kind kind, const OwnedObject& o, json& current, RemovalReport& report) {
    auto found = Find(kind, o.regionId, o.id);
    if (!found) {
        report.removed.push_back(o);  // gone already (an earlier run or its own job)
        return false;
    }
    if (!IsOwnedBy(*found, OwnershipProxyId())) {
        report.kept.push_back(Describe(o) + ": no longer carries this proxy's ownership tags");
        return false;
    }
    current = *found;
    return true;
}

void Impl::StopIncompleteInstances(const Owned& instances, RemovalReport& report) {
    for (const OwnedObject* o : instances) {
        try {
            // CreateInstance ends in Stopped after Pending, StartInstance in Running after
            // Starting: StopInstance and DetachDisk need one of the stable states.
            WaitUntil(ProbeAtOnce(waits_.stopInstance), deps_.time,
                      [&] {
                          const std::string s = jv::Str(Require(Kind::Instance, o->regionId, o->id), "Status");
                          return s == "Running" || s == "Stopped";
                      },
                      "instance " + o->id + " reaching a stable state");
            PowerOffInstance(o->id, /*forceStop=*/true, /*waitUntilStopped=*/true, /*stopCharging=*/true);
        } catch (const ApiError& e) {
            report.failures.push_back(Describe(*o) + ": cannot stop it: " + e.Describe());
        }
    }
}

void Impl::DetachOwnedDisks(const Owned& disks, const std::set<std::string>& releasable, RemovalReport& report,
                            std::set<std::string>& failed) {
    for (const OwnedObject* o : disks) {
        try {
            // A disk in transition (Creating, Attaching, Detaching) is waited for first.
            json disk;
            WaitUntil(ProbeAtOnce(waits_.attachDisk), deps_.time,
                      [&] {
                          disk = Require(Kind::Disk, o->regionId, o->id);
                          const std::string s = jv::Str(disk, "Status");
                          return s == "Available" || s == "In_use";
                      },
                      "disk " + o->id + " reaching a stable state");
            if (jv::Str(disk, "Status") != "In_use") continue;
            const std::string holder = jv::Str(disk, "InstanceId");
            if (!releasable.count(holder)) {
                // A data disk of a finished restore (a crash between the two steps of
                // FinishRestore), or a disk someone attached by hand: it belongs to that
                // instance now. Its tags go, so that no later sweep looks at it again.
                Untag(o->regionId, "disk", {o->id});
                report.kept.push_back(Describe(*o) + ": attached to instance " + holder +
                                      ", which is neither this proxy nor an unfinished restore; no longer tracked");
                failed.insert(o->id);
                continue;
            }
            DetachDisk(holder, o->id, o->regionId);
        } catch (const ApiError& e) {
            report.failures.push_back(Describe(*o) + ": cannot detach it: " + e.Describe());
            failed.insert(o->id);
        }
    }
}

void Impl::DeleteOwned(Kind kind, const Owned& objects, const std::set<std::string>& skip, RemovalReport& report) {
    for (const OwnedObject* o : objects) {
        if (skip.count(o->id)) continue;
        try {
            switch (kind) {
                case Kind::Image: DeleteImage(o->regionId, o->id, true); break;
                case Kind::Snapshot: DeleteSnapshot(o->id); break;
                case Kind::Disk: DeleteDisk(o->id); break;
                case Kind::Instance: DeleteInstance(o->id); break;
            }
            report.removed.push_back(*o);
        } catch (const ApiError& e) {
            std::string cause = e.Describe();
            if (kind == Kind::Snapshot && e.code() == "SnapshotCreatedImage") {
                // Name what pins the snapshot, so that the message says what to remove.
                try {
                    json answer = Call("DescribeImages", o->regionId,
                                       {{"SnapshotId", o->id}, {"Status", kAllImageStatuses}, {"PageSize", "100"}});
                    for (const json& m : jv::WrappedList(answer, "Images", "Image"))
                        cause += "; used by image " + jv::Str(m, "ImageId");
                } catch (const ApiError&) {
                }
            }
            report.failures.push_back(Describe(*o) + ": " + cause);
        }
    }
}

void Impl::RemoveOwned(const std::vector<OwnedObject>& objects, RemovalReport& report) {
    Owned instances, disks, snapshots, images;
    std::set<std::string> releasable;
    if (auto proxy = ProxyInstanceId(false)) releasable.insert(*proxy);
    for (const OwnedObject& o : objects) {
        json current;
        try {
            const Kind kind = o.kind == "instance" ? Kind::Instance
                              : o.kind == "disk"   ? Kind::Disk
                              : o.kind == "snapshot" ? Kind::Snapshot
                                                     : Kind::Image;
            if (!StillOwned(kind, o, current, report)) continue;
            if (kind == Kind::Instance) {
                // A finished restore is the user's instance, whatever tags it still has.
                if (TagsOf(current)[kRestoreStateTagKey] != kIncompleteValue) {
                    report.kept.push_back(Describe(o) + ": a finished restore");
                    continue;
                }
                releasable.insert(o.id);
                instances.push_back(&o);
            } else if (kind == Kind::Disk) {
                disks.push_back(&o);
            } else if (kind == Kind::Snapshot) {
                snapshots.push_back(&o);
            } else {
                images.push_back(&o);
            }
        } catch (const ApiError& e) {
            report.failures.push_back(Describe(o) + ": cannot read it: " + e.Describe());
        }
    }
    std::set<std::string> notDetached;
    StopIncompleteInstances(instances, report);
    DetachOwnedDisks(disks, releasable, report, notDetached);
    DeleteOwned(Kind::Image, images, {}, report);
    DeleteOwned(Kind::Snapshot, snapshots, {}, report);
    DeleteOwned(Kind::Disk, disks, notDetached, report);
    DeleteOwned(Kind::Instance, instances, {}, report);
}

void Impl::Untag(const std::string& regionId, const std::string& type, const std::vector<std::string>& ids) {
    for (const std::string& id : ids) Forget(id);  // their tags change
    // UntagResources takes at most 50 resources and 20 keys per call.
    for (size_t start = 0; start < ids.size(); start += 50) {
        Params p{{"ResourceType", type}};
        for (size_t i = start; i < std::min(ids.size(), start + 50); ++i)
            p["ResourceId." + std::to_string(i - start + 1)] = ids[i];
        int n = 1;
        for (const char* key : kOwnershipKeys) p["TagKey." + std::to_string(n++)] = key;
        Call("UntagResources", regionId, p);
    }
}

void Impl::FinishRestore(const std::string& regionId, const std::string& instanceId) {
    RequireArg(instanceId, "instance id");
    const std::string region = RegionOr(regionId, Kind::Instance, instanceId);
    const std::string proxy = OwnershipProxyId();
    std::vector<std::string> disks;
    for (const json& d : DisksOf(region, instanceId)) {
        if (IsOwnedBy(d, proxy)) disks.push_back(jv::Str(d, "DiskId"));
    }
    // The instance first: once it is finished, a sweep leaves its disks attached and only
    // drops their tags, so a crash between the two steps loses nothing.
    Untag(region, "instance", {instanceId});
    Forget(DiskListKey(instanceId));
    Untag(region, "disk", disks);
}

std::vector<std::string> Impl::RegionIds() {
    std::vector<std::string> out;
    for (const json& r : Regions()) out.push_back(jv::Str(r, "RegionId"));
    return out;
}

ZoneOffer Impl::DescribeZoneOffer(const std::string& regionId, const std::string& zoneId) {
    RequireArg(regionId, "region id");
    RequireArg(zoneId, "zone id");
    ZoneOffer offer;
    json answer = Call("DescribeZones", regionId, {{"Verbose", "true"}});
    for (const json& z : jv::RequiredList(answer, "Zones", "Zone", "DescribeZones")) {
        if (jv::Str(z, "ZoneId") != zoneId) continue;
        offer.zoneKnown = true;
        for (const json& t : jv::WrappedList(z, "AvailableInstanceTypes", "InstanceTypes"))
            if (t.is_string()) offer.instanceTypes.push_back(t.get<std::string>());
        for (const json& c : jv::WrappedList(z, "AvailableDiskCategories", "DiskCategories"))
            if (c.is_string()) offer.diskCategories.push_back(c.get<std::string>());
    }
    return offer;
}

void Impl::Ownership(const std::string& kind, const std::string& id, bool& exists, bool& owned) {
    const Kind k = kind == "disk" ? Kind::Disk : kind == "snapshot" ? Kind::Snapshot : kind == "image" ? Kind::Image
                   : throw ApiError(ApiError::Kind::Client, "InvalidParameter", "unknown kind " + kind);
    exists = owned = false;
    std::string region;
    try {
        region = RegionOf(k, id);
    } catch (const ApiError& e) {
        if (e.kind() == ApiError::Kind::Service && e.IsNotFound()) return;
        throw;
    }
    if (auto found = Find(k, region, id)) {
        exists = true;
        owned = IsOwnedBy(*found, OwnershipProxyId());
    }
}
