// The cloud bridge: every Elastic Compute Service operation the ECS plug-in needs, as
// synchronous calls on one object. The plug-in never builds a cloud request itself.
//
// Contract for every operation:
//  - returns true on success; on failure returns false and GetLastError() describes the
//    failure until the next call on the same object;
//  - never throws;
//  - is called from one thread at a time per object.
// Region arguments name the region the object lives in; operations that take none find it
// themselves: the region remembered from an earlier answer, else a search in the proxy's
// own region (metadata service), ALIBABA_CLOUD_REGION_ID, then every region.
//
// Units: SDisk::size is bytes, SDisk::diskSize and CreateDisk's `sizeGiB` are GiB.
//
// Where the details live (bridge/): the field mapping from ECS answers to the records in
// mapping.h, the configuration document in config_document.h, the environment settings in
// settings.h, waits, tags, region search and idempotence in bridge_impl.h.
// Every snapshot, disk, image and instance the bridge creates carries ownership tags in its
// create request (creator, proxy, the host's job, role; a new instance is marked an
// incomplete restore until the host finishes it), so leftovers can be found without a
// registry. DeleteDisk, DeleteSnapshot and DeleteImage refuse (NotOwnedByThisProxy) an
// object without this proxy's tags, succeed for an object that is already gone, and return
// only once ECS no longer lists the object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VMInfoStructs.h"

namespace AliCloudSDKCppBridge {

class CAliCloudSDKCppBridge {
public:
    // Constructs unconnected.
    CAliCloudSDKCppBridge();
    // Releases everything (connections, caches). Never throws.
    ~CAliCloudSDKCppBridge();
    CAliCloudSDKCppBridge(const CAliCloudSDKCppBridge&) = delete;
    CAliCloudSDKCppBridge& operator=(const CAliCloudSDKCppBridge&) = delete;

    // ---- Connection ----
    // `userName` is the AccessKey id, `password` its secret (plus ALIBABA_CLOUD_SECURITY_TOKEN
    // for STS keys). Reads the settings from the environment and proves the key with one
    // DescribeRegions call; later calls use it.
    bool Connect(const std::string& userName, const std::string& password);
    // Ends the connection; the object can connect again.
    bool Disconnect();
    // Text of the last failure of any other operation, "Code: Message (RequestId ...)".
    // Never contains a secret.
    std::string GetLastError();

    // ---- Inventory ----
    // One record per region. `flags`: bit 29 (0x20000000) fills each region's vmList, bit 53
    // (0x0020000000000000) fills each region's hostList; other bits and the value are ignored.
    // Instances in lists carry no disks (GetVMInfoForVM has them).
    bool GetDCInfoList(std::vector<VMInfoStructs::SDataCenterInfo>& out, UINT64 flags, UINT64 value);
    // One region, with zones and/or instances as the flags ask.
    bool GetDCInfoForDC(const std::string& regionId, UINT64 flags, UINT64 value,
                        VMInfoStructs::SDataCenterInfo& out);
    // One record per zone of every region.
    bool GetHostInfoList(std::vector<VMInfoStructs::SHostInfo>& out, UINT64 flags, UINT64 value);
    // One zone, with its instances when bit 29 is asked. `regionId` may be empty: the zone
    // is then looked for (its id's region prefix first, then every region).
    bool GetHostInfoForHost(const std::string& zoneId, UINT64 flags, UINT64 value,
                            VMInfoStructs::SHostInfo& out, const std::string& regionId);
    // The instances of the bridge's instance cache (may be empty before RefreshVMInfoCache).
    bool GetVMInfoList(std::vector<VMInfoStructs::SVMInfo>& out);
    // Re-reads all instances of all regions into the cache.
    bool RefreshVMInfoCache();
    // Instances of the region whose name equals `instanceName` exactly (all when empty).
    bool GetVMInfoListForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMInfo>& out,
                                const std::string& instanceName);
    // Instance types ECS offers in the zone now (DescribeAvailableResource); name only.
    bool GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                 std::vector<VMInfoStructs::SVMSizeInfo>& out);
    // Instance types of the region with their numeric attributes.
    bool GetInstanceTypesForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMSizeInfo>& out);

    // ---- Instances ----
    // Describes the instance with its disks (system disk first). `flags` and `value` are
    // accepted for the framework's sake and do not change the answer.
    bool GetVMInfoForVM(const std::string& instanceId, VMInfoStructs::SVMInfo& out, UINT64 flags, int value);
    // Describes the instance and produces its configuration document (the text a restore
    // hands back to GetVMInfoFromConfigFile, CreateInstance and AddPeripheralComponents).
    bool GetVMInfoAndConfigFile(const std::string& instanceId, UINT64 flags, int value,
                                VMInfoStructs::SVMInfo& out, std::string& configText);
    // Rebuilds an instance description, disks included, from a configuration document.
    // A document of another kind or of an unknown (newer) version fails with a clear error.
    bool GetVMInfoFromConfigFile(const std::string& configText, VMInfoStructs::SVMInfo& out);
    // Creates a stopped instance (ECS CreateInstance) from `vmInfo` (name, zone, region,
    // instance type, primary network card's vSwitch and private IP, first security group,
    // OS disk's category and size) and the image `imageId`, completing what the record leaves
    // empty from the configuration document (its vSwitch and private IP only when the zone is
    // unchanged), plus the document's description and user tags. A private IP is asked for only
    // together with its vSwitch; one ECS refuses (taken, outside the vSwitch) is dropped and
    // ECS picks one. Returns without waiting for the Stopped state.
    bool CreateInstance(const VMInfoStructs::SVMInfo& vmInfo, const std::string& imageId,
                        const std::string& configText, std::string& newInstanceId);
    // Adds what CreateInstance cannot set: the security groups after the first (ECS
    // JoinSecurityGroup) and any of the document's tags the instance lacks (TagResources).
    // `vmInfo.guid` names the new instance. A failure is a warning for the caller.
    bool AddPeripheralComponents(const VMInfoStructs::SVMInfo& vmInfo, const std::string& configText);
    // Starts the instance (no-op when Running or Starting); does not wait for Running.
    bool PowerOnInstance(const std::string& instanceId);
    // `forceStop`: power off without waiting for the guest to shut down.
    // `waitUntilStopped`: return only once the instance reports Stopped (at most 10 min).
    // `stopCharging`: release compute resources while stopped (ECS StopCharging mode).
    bool PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped, bool stopCharging);
    // Current ECS status text ("Running", "Stopped", ...).
    bool GetInstanceStatus(const std::string& instanceId, std::string& status);
    // Releases the instance and waits until ECS no longer lists it; ECS requires it to be
    // Stopped (the bridge never forces). The proxy itself is refused (RefusedProxyInstance).
    bool DeleteInstance(const std::string& instanceId);
    // The id of the ECS instance this process runs on, from the metadata service (hardened
    // token mode first, then plain). Off ECS: false and empty within about a second.
    bool GetLocalInstanceId(std::string& instanceId);

    // ---- Disks ----
    // Creates a disk and waits until it is Available (at most 15 min); `disk` receives its
    // description. Empty `snapshotId` makes an empty disk of `sizeGiB`; otherwise the disk is
    // made from the snapshot (sizeGiB 0 = the snapshot's size). Never below the category's
    // minimum size (the disk is made larger rather than refused). `diskName` is the ECS
    // DiskName (empty = none); `category` the DiskCategory (empty = cloud_essd), with
    // `disk.performanceLevel` as PerformanceLevel when set on input; `encrypted` asks for
    // an encrypted disk; `description` is the disk's description (empty = the bridge's own).
    // If the wait fails, `disk.diskId` still names the new disk so that it can be deleted.
    bool CreateDisk(const std::string& regionId, const std::string& zoneId, VMInfoStructs::SDisk& disk,
                    const std::string& snapshotId, const std::string& diskName, const std::string& category,
                    long long sizeGiB, bool encrypted, const std::string& description);
    bool GetDiskInfo(const std::string& regionId, const std::string& diskId, VMInfoStructs::SDisk& out);
    // `exists` is false (and the call succeeds) when ECS does not know the disk.
    bool DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists);
    // Attaches; with `waitUntilAttached` returns once the disk is In_use (at most 5 min). A
    // disk already attached to the instance succeeds at once. `limitReached` is set when ECS
    // answers InstanceDiskLimitExceeded (the call then fails).
    bool AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                    bool waitUntilAttached);
    // Detaches and waits until the disk is Available again (at most 10 min). An Available
    // disk succeeds at once. Empty `regionId`: found as above.
    bool DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId);
    bool DeleteDisk(const std::string& diskId);

    // ---- Snapshots and images ----
    // Starts a snapshot; `snapshot` receives snapshotId, parentDiskId, name and the disk's
    // size. `snapshotName` empty = none; `description` empty = the bridge's own.
    bool CreateSnapshot(const std::string& diskId, VMInfoStructs::SChildDisk& snapshot,
                        const std::string& snapshotName, const std::string& description);
    // `completed` is true once ECS reports the snapshot accomplished; a failed snapshot
    // makes the call fail.
    bool IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed);
    // `exists` is false (and the call succeeds) when ECS does not know the snapshot.
    bool DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists);
    // Deletes with Force (disks made from the snapshot stay usable).
    bool DeleteSnapshot(const std::string& snapshotId);
    // Builds a custom image from a system-disk snapshot (plus at most 16 data-disk
    // snapshots) and waits until it is Available (at most 90 min). `architecture`: x86_64,
    // arm64 or i386 (else x86_64). `platform` may be an OS display name ("Ubuntu 22.04 64
    // bit"); it is turned into the ECS Platform keyword ("Ubuntu", "Others Linux" when
    // unknown). Empty `imageName` lets ECS name it. `imageId` is set as soon as ECS has
    // issued it, also when the wait then fails.
    bool CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                      const std::vector<std::string>& dataSnapshotIds,
                                      const std::string& architecture, const std::string& platform,
                                      std::string& imageId, const std::string& imageName,
                                      const std::string& description);
    // `force`: delete even while instances still use the image. ECS ignores unknown ids.
    bool DeleteImage(const std::string& regionId, const std::string& imageId, bool force);

    class Impl;  // defined by each implementation of the bridge

private:
    std::unique_ptr<Impl> impl;
};

}  // namespace AliCloudSDKCppBridge
