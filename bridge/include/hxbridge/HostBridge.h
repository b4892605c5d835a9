// Host-side cloud operations that the plug-in's bridge interface does not have: the
// ownership-tag sweep, finishing a restored instance, and the read-only look-ups of a
// restore's pre-flight. A host (hxagent) uses it beside the plug-in; it reads the same
// settings, signs with the same credentials and follows the same retry rules as
// CAliCloudSDKCppBridge (see that header and bridge_impl.h).
//
// Contract as for CAliCloudSDKCppBridge: every operation returns true on success, false with
// LastError() set ("Code: Message (RequestId ...)", never a secret); nothing throws; one
// thread at a time per object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "AliCloudSDKCppBridge.h"

namespace hxbridge {

// One object carrying this proxy's ownership tags (see ownership.h for the tags).
struct OwnedObject {
    std::string kind;        // "instance", "disk", "snapshot" or "image"
    std::string id;
    std::string regionId;
    std::string role;        // hx:role; empty on objects of older versions
    std::string job;         // hx:job; empty when the creator announced no job
    std::string owner;       // hx:job-owner: the process that ran the job
    std::string status;      // ECS status at listing time
    std::string attachedTo;  // disks: the instance holding the disk, else empty
    bool incomplete = false; // instances: a restore that was never finished
};

// What Remove did: every object it was given ends in exactly one of the three lists.
struct RemovalReport {
    std::vector<OwnedObject> removed;   // confirmed gone from ECS
    std::vector<std::string> failures;  // "<kind> <id>: <cause>", one per object not removed
    std::vector<std::string> kept;      // "<kind> <id>: <why it is left alone>"
};

// A zone's offer, for a restore's pre-flight. Empty lists when the zone is unknown.
struct ZoneOffer {
    bool zoneKnown = false;
    std::vector<std::string> instanceTypes;
    std::vector<std::string> diskCategories;
};

class HostBridge {
public:
    HostBridge();
    ~HostBridge();
    HostBridge(const HostBridge&) = delete;
    HostBridge& operator=(const HostBridge&) = delete;

    // As CAliCloudSDKCppBridge::Connect.
    bool Connect(const std::string& accessKeyId, const std::string& accessKeySecret);
    const std::string& LastError() const;

    // The proxy's instance id (metadata service); the id the ownership tags carry.
    bool ProxyInstanceId(std::string& id);
    // Every instance, disk, snapshot and image of `regionId` carrying this bridge's creator
    // tag and this proxy's id. Objects of other proxies and untagged ones are never listed.
    bool ListOwned(const std::string& regionId, std::vector<OwnedObject>& out);
    // Removes `objects` in dependency order: stops incomplete instances; detaches disks from
    // the proxy or from an incomplete instance of this proxy; deletes images, snapshots,
    // disks, then the incomplete instances. Each object is re-read first and left alone when
    // it no longer carries this proxy's tags, is a finished instance, or is a disk attached to
    // anything else (such a disk's tags are dropped). Goes on past failures; false when any
    // object could not be removed.
    bool Remove(const std::vector<OwnedObject>& objects, RemovalReport& report);
    // Ends a restore: removes the ownership tags from the new instance and then from the
    // disks attached to it, so no sweep ever touches them again (a sweep that meets one of
    // this proxy's disks on a finished instance drops its tags and leaves it attached).
    bool FinishRestore(const std::string& regionId, const std::string& instanceId);

    // Region ids ECS lists.
    bool Regions(std::vector<std::string>& out);
    // Instance types and disk categories offered in the zone (DescribeZones).
    bool DescribeZone(const std::string& regionId, const std::string& zoneId, ZoneOffer& out);
    // The instance with its disks (as CAliCloudSDKCppBridge::GetVMInfoForVM).
    bool DescribeInstance(const std::string& instanceId, VMInfoStructs::SVMInfo& out);
    // Instances of the region whose name is exactly `name` (never "all" for an empty name:
    // an empty name fails).
    bool InstancesNamed(const std::string& regionId, const std::string& name,
                        std::vector<VMInfoStructs::SVMInfo>& out);

    // Reads a configuration document as a restore will (no cloud call); false with
    // LastError when the plug-in's restore could not use it.
    bool ParseConfigDocument(const std::string& text, VMInfoStructs::SVMInfo& out);
    // Whether the object exists and carries this proxy's ownership tags. `kind`: "disk",
    // "snapshot" or "image".
    bool Ownership(const std::string& kind, const std::string& id, bool& exists, bool& owned);

private:
    std::unique_ptr<AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl> impl_;
};

}  // namespace hxbridge
