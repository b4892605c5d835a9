// The cloud bridge: every Elastic Compute Service operation the ECS plug-in needs, as
// synchronous calls on one object. The plug-in never builds a cloud request itself.
//
// Contract for every operation:
//  - returns true on success; on failure returns false and GetLastError() describes the
//    failure until the next call on the same object;
//  - never throws;
//  - is called from one thread at a time per object.
// Region arguments name the region the object lives in; operations that take none find it
// themselves (see the implementation's header for how).
//
// Units: SDisk::size is bytes, SDisk::diskSize and CreateDisk's `sizeGiB` are GiB.
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
    // Authenticates with an AccessKey id and secret; later calls use them.
    bool Connect(const std::string& userName, const std::string& password);
    // Ends the connection; the object can connect again.
    bool Disconnect();
    // Text of the last failure of any other operation, "Code: Message (RequestId ...)".
    // Never contains a secret.
    std::string GetLastError();

    // ---- Inventory ----
    // One record per region. `flags`: bit 29 (0x20000000) fills each region's vmList, bit 53
    // (0x0020000000000000) fills each region's hostList.
    bool GetDCInfoList(std::vector<VMInfoStructs::SDataCenterInfo>& out, UINT64 flags, UINT64 value);
    // One region, with zones and/or instances as the flags ask.
    bool GetDCInfoForDC(const std::string& regionId, UINT64 flags, UINT64 value,
                        VMInfoStructs::SDataCenterInfo& out);
    // One record per zone of every region.
    bool GetHostInfoList(std::vector<VMInfoStructs::SHostInfo>& out, UINT64 flags, UINT64 value);
    // One zone, with its instances when bit 29 is asked. `regionId` may be empty.
    bool GetHostInfoForHost(const std::string& zoneId, UINT64 flags, UINT64 value,
                            VMInfoStructs::SHostInfo& out, const std::string& regionId);
    // The instances of the bridge's instance cache (may be empty before RefreshVMInfoCache).
    bool GetVMInfoList(std::vector<VMInfoStructs::SVMInfo>& out);
    // Re-reads all instances of all regions into the cache.
    bool RefreshVMInfoCache();
    // Instances of the region that bear the name.
    bool GetVMInfoListForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMInfo>& out,
                                const std::string& instanceName);
    // Instance types available in the zone (name only is guaranteed).
    bool GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                 std::vector<VMInfoStructs::SVMSizeInfo>& out);
    // Instance types of the region with their numeric attributes.
    bool GetInstanceTypesForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMSizeInfo>& out);

    // ---- Instances ----
    bool GetVMInfoForVM(const std::string& instanceId, VMInfoStructs::SVMInfo& out, UINT64 flags, int value);
    // Describes the instance and produces its configuration document (the text a restore
    // hands back to GetVMInfoFromConfigFile, CreateInstance and AddPeripheralComponents).
    bool GetVMInfoAndConfigFile(const std::string& instanceId, UINT64 flags, int value,
                                VMInfoStructs::SVMInfo& out, std::string& configText);
    // Rebuilds an instance description from a configuration document.
    bool GetVMInfoFromConfigFile(const std::string& configText, VMInfoStructs::SVMInfo& out);
    // Creates a stopped instance from `vmInfo` (name, zone, region, instance type, network
    // cards, security groups) and the image, completing it from the configuration document.
    bool CreateInstance(const VMInfoStructs::SVMInfo& vmInfo, const std::string& imageId,
                        const std::string& configText, std::string& newInstanceId);
    // Adds what the configuration document describes beyond the instance itself (tags,
    // description). A failure is a warning for the caller.
    bool AddPeripheralComponents(const VMInfoStructs::SVMInfo& vmInfo, const std::string& configText);
    bool PowerOnInstance(const std::string& instanceId);
    // `forceStop`: power off without waiting for the guest to shut down.
    // `waitUntilStopped`: return only once the instance reports Stopped (bounded wait).
    // `stopCharging`: release compute resources while stopped (ECS StopCharging mode).
    bool PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped, bool stopCharging);
    // Current ECS status text ("Running", "Stopped", ...).
    bool GetInstanceStatus(const std::string& instanceId, std::string& status);
    bool DeleteInstance(const std::string& instanceId);
    // The id of the ECS instance this process runs on; empty when it is not one.
    bool GetLocalInstanceId(std::string& instanceId);

    // ---- Disks ----
    // Creates a disk and waits until it is Available; its id (and description) land in
    // `disk`. Empty `snapshotId` makes an empty disk of `sizeGiB`; otherwise the disk is made
    // from the snapshot (sizeGiB 0 = the snapshot's size). `encrypted` asks for an
    // encrypted disk. `description` is the disk's description (empty = the bridge's own).
    bool CreateDisk(const std::string& regionId, const std::string& zoneId, VMInfoStructs::SDisk& disk,
                    const std::string& snapshotId, const std::string& diskName, const std::string& category,
                    long long sizeGiB, bool encrypted, const std::string& description);
    bool GetDiskInfo(const std::string& regionId, const std::string& diskId, VMInfoStructs::SDisk& out);
    // `exists` is false (and the call succeeds) when ECS does not know the disk.
    bool DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists);
    // Attaches; with `waitUntilAttached` returns once the disk is In_use. `limitReached` is
    // set when the instance cannot take another disk (the call then fails).
    bool AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                    bool waitUntilAttached);
    // Detaches and waits until the disk is Available again.
    bool DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId);
    bool DeleteDisk(const std::string& diskId);

    // ---- Snapshots and images ----
    // Starts a snapshot; its id lands in `snapshot.snapshotId`.
    bool CreateSnapshot(const std::string& diskId, VMInfoStructs::SChildDisk& snapshot,
                        const std::string& snapshotName, const std::string& description);
    bool IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed);
    // `exists` is false (and the call succeeds) when ECS does not know the snapshot.
    bool DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists);
    bool DeleteSnapshot(const std::string& snapshotId);
    // Builds a custom image from a system-disk snapshot (plus data-disk snapshots) and waits
    // until it is Available. Empty `imageName` lets ECS name it.
    bool CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                      const std::vector<std::string>& dataSnapshotIds,
                                      const std::string& architecture, const std::string& platform,
                                      std::string& imageId, const std::string& imageName,
                                      const std::string& description);
    // `force`: delete even while instances still use the image.
    bool DeleteImage(const std::string& regionId, const std::string& imageId, bool force);

    class Impl;  // defined by each implementation of the bridge

private:
    std::unique_ptr<Impl> impl;
};

}  // namespace AliCloudSDKCppBridge
