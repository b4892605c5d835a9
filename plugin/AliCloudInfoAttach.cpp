// Disks made from snapshots, and attaching disks to the proxy instance so that the
// framework's disk mapper can turn them into local block devices.
//
// Every successful PreAttachDisk is closed by a PostAttachDisk: on every path of the
// single-disk attach, and once at the end of a failed list pass.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

bool CAliCloudInfo::CreateDisksFromSnapshots(const string& instanceId, vector<SDisk>& disks,
                                             VM_Cleaner_Mode /*mode: copies of a backup are always backup objects*/,
                                             bool& flag) {
    flag = false;
    for (SDisk& disk : disks) {
        if (IsJobCancelled()) {
            log.Debug(kCreateDisksFromSnapshots, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            return false;
        }
        if (disk.diskType != 1) continue;
        if (disk.filtered) {
            log.Debug(kCreateDisksFromSnapshots, "Not creating new disk for filtered disk [%s].", disk.diskId);
            continue;
        }
        if (disk.snapshotId.empty()) {
            log.Debug(kCreateDisksFromSnapshots, "Snapshot does not exists for disk [%s]. Skipping it.", disk.diskId);
            continue;
        }
        log.Debug(kCreateDisksFromSnapshots, "Creating disk out of snapshot [%s].", disk.snapshotId);
        // The copy lives in the source disk's zone (which feasibility made the proxy's zone)
        // and keeps its storage category; size 0 takes the snapshot's size.
        SDisk newDisk;
        if (!bridge->CreateDisk(proxyVMInfo.regionId, disk.zone, newDisk, disk.snapshotId, "", disk.category, 0, false,
                                "")) {
            // Copies made before this one stay registered; teardown removes them.
            const std::string error = bridge->GetLastError();
            log.Error(kCreateDisksFromSnapshots, "Failed to create disk from snapshot [%s],Error [%s]", disk.snapshotId,
                      error);
            SetLastVMError(VMINFO_ERR_DISK_CREATE);
            SetLastVMErrorDetails(error);
            return false;
        }
        // A copy the cleaner does not know only matters after a crash: go on.
        if (!cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, instanceId, newDisk.diskId))
            log.Error(kCreateDisksFromSnapshots, "Failed to register disk [%s] with cleaner!! disk may not be cleaned up.",
                      newDisk.diskId);
        // Until the attach names the block device, the device path holds the copy's id.
        disk.devicePath = newDisk.diskId;
        disk.newDiskId = newDisk.diskId;
        // Without a registry entry the agent could never open the copy: that ends the mount.
        if (!diskInfo || !diskInfo->RegisterDisk(instanceId, newDisk, false)) {
            log.Error(kCreateDisksFromSnapshots, "Failed to register disk [%s][%s]", newDisk.diskId, newDisk.diskName);
            SetLastVMError(VMINFO_ERR_DISK_HANDLE);
            return false;
        }
        log.Debug(kCreateDisksFromSnapshots, "Disk [%s] created from snapshot [%s].", newDisk.diskId, disk.snapshotId);
    }
    return true;
}

int CAliCloudInfo::_AttachDiskToProxy(const SVMInfo& vmInfo, SDisk& disk, bool makeWriteable) {
    if (!diskMapper) {
        log.Error(k_AttachDiskToProxy, "disk mapper is null..");
        return 0;
    }
    if (!diskMapper->PreAttachDisk()) {
        log.Error(k_AttachDiskToProxy, "Pre attach disk operations failed.");
        return 0;
    }
    bool inUse = false;
    if (!diskInfo || !diskInfo->ConnectDisk(vmInfo, disk, inUse)) {
        const std::string error = bridge->GetLastError();
        log.Error(k_AttachDiskToProxy, "Failed in attaching disk [%s][%s] to proxy, Error [%s].", disk.diskId,
                  disk.diskLabel, error);
        long long size = disk.size;
        diskMapper->PostAttachDisk(disk.diskId, disk.devicePath, size, true);
        disk.size = size;
        // A full proxy is reported apart: a backup waits for a free slot, a restore gives up.
        if (inUse)
            SetLastVMError(VMINFO_ERR_PROXY_DISK_LIMIT);
        else
            SetLastVMError(VMINFO_ERR_DISK_ATTACH, error);
        return 0;
    }
    long long size = disk.size;  // the record's 64-bit field is not the mapper's type
    const bool mapped = diskMapper->PostAttachDisk(disk.diskId, disk.devicePath, size, false);
    disk.size = size;
    if (!mapped) {
        // The disk stays attached and open in the registry; closing or teardown detaches it.
        log.Error(k_AttachDiskToProxy, "Post attach disk operation failed.");
        SetLastVMError(VMINFO_ERR_DISK_ATTACH);
        return 0;
    }
    log.Debug(k_AttachDiskToProxy, "Disk [%s] attached to proxy", disk.diskId);
    diskInfo->UpdateDisk(vmInfo, disk);  // the registry now knows the block device
    log.DebugLvl(k_AttachDiskToProxy, 2, "Dumping disk info : disk [%s] disk logical name [%s]", disk.diskId,
                 disk.devicePath);
    if (makeWriteable && !diskMapper->MakeDiskWriteable(disk.devicePath))
        log.Error(k_AttachDiskToProxy, "DiskMapper MakleDiskWriteable failed for disk [%s][%s].", disk.diskLabel,
                  disk.devicePath);
    // The agent reads and writes the raw device; keep the proxy's OS away from it.
    diskMapper->BringDiskOffline(disk.devicePath);
    return 1;
}

bool CAliCloudInfo::_AttachDisksToProxy(vector<SDisk>& disks, bool makeWriteable, bool bringOffline) {
    bool ok = true;
    for (SDisk& disk : disks) {
        if (IsJobCancelled()) {
            log.Debug(k_AttachDisksToProxy, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            ok = false;
            break;
        }
        if (disk.diskType != 1) continue;
        if (disk.filtered) {
            log.Debug(k_AttachDisksToProxy, "Not attaching filtered disk [%s]", disk.diskId);
            continue;
        }
        if (disk.newDiskId.empty()) {
            log.Error(k_AttachDisksToProxy, "New disk to attach is empty for [%s]", disk.diskId);
            ok = false;
            break;
        }
        if (!diskMapper->PreAttachDisk()) {
            log.Error(k_AttachDisksToProxy, "Pre attach disk operations failed.");
            ok = false;
            break;
        }
        bool inUse = false;  // a full proxy is just a failure here: the list path has no wait
        if (!bridge->AttachDisk(GetProxyUUID(), disk.newDiskId, inUse, true)) {
            log.Error(k_AttachDisksToProxy, "Failed in attaching disk [%s] to proxy, Error [%s].", disk.newDiskId,
                      bridge->GetLastError());
            SetLastVMError(VMINFO_ERR_DISK_ATTACH);
            ok = false;
            break;
        }
        log.Debug(k_AttachDisksToProxy, "Disk [%s] attached to proxy", disk.newDiskId);
        long long size = disk.size;  // the record's 64-bit field is not the mapper's type
        const bool mapped = diskMapper->PostAttachDisk(disk.newDiskId, disk.devicePath, size, false);
        disk.size = size;
        if (!mapped) {
            log.Error(k_AttachDisksToProxy, "Post attach disk operation failed.");
            SetLastVMError(VMINFO_ERR_DISK_ATTACH);
            ok = false;
            break;
        }
        log.DebugLvl(k_AttachDisksToProxy, 2, "Dumping disk info : disk [%s] disk logical name [%s]", disk.newDiskId,
                     disk.devicePath);
        if (makeWriteable) diskMapper->MakeDiskWriteable(disk.devicePath);
        if (bringOffline) diskMapper->BringDiskOffline(disk.devicePath);
    }
    if (!ok) {
        // Close the mapper's bracket once; disks attached before the failure stay attached
        // and are detached by the caller's cleanup.
        std::string scratchName;
        long long scratchSize = 0;
        diskMapper->PostAttachDisk("", scratchName, scratchSize, true);
    }
    return ok;
}
