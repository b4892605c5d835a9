// The empty cloud disks a restore writes the backed-up data into.
#include "AliCloudInfo.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
constexpr std::uint32_t kCloudDisk = 1;
// Description of every disk a restore creates, so that it can be recognised in the console.
constexpr const char kRestoreDiskDescription[] = "Created by Halvorix for restore";
}  // namespace

// Contract: for every selected, unfiltered cloud disk of `disks`, diskId (and newDiskId)
// name an existing empty disk in the proxy's zone on a true return. A disk an earlier attempt
// of the same job made (newDiskId set) is reused while it still exists. Created disks are
// registered under `vmId` unless `mode` is VM_CLEANER_MODE_NONE. Nothing is rolled back on
// failure: whatever was made is registered and the restore clean-up removes it.
bool CAliCloudInfo::_CreateEmptyDisks(const string& vmId, vector<SDisk>& disks, const VM_Cleaner_Mode& mode) {
    for (SDisk& disk : disks) {
        if (IsJobCancelled()) {
            log.Debug(k_CreateEmptyDisks, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            return false;
        }
        if (disk.diskType != kCloudDisk) continue;
        if (disk.filtered) {
            log.Debug(k_CreateEmptyDisks, "Not creating new disk for filtered [%s]", disk.diskId);
            continue;
        }
        if (!disk.newDiskId.empty()) {
            // Only existence is checked: the earlier attempt made it from this very entry, and
            // it is already registered with the cleaner.
            disk.diskId = disk.newDiskId;
            SDisk existing;
            if (bridge->GetDiskInfo(proxyVMInfo.regionId, disk.diskId, existing)) {
                log.Debug(k_CreateEmptyDisks, "Found the disk [%s], will be reusing it.", disk.diskId);
                continue;
            }
            log.Debug(k_CreateEmptyDisks, "Failed to get information of disk [%s]. will re-create new disk. Error [%s] ",
                      disk.diskId, bridge->GetLastError());
        }
        // Always in the proxy's zone, which the feasibility check made the destination zone.
        SDisk created;
        if (!bridge->CreateDisk(proxyVMInfo.regionId, proxyVMInfo.hostName, created, "", "", disk.category,
                                disk.diskSize, disk.createFlag, kRestoreDiskDescription)) {
            log.Error(k_CreateEmptyDisks, "Failed to create new disk.");
            SetLastVMError(VMINFO_ERR_DISK_CREATE);
            SetLastVMErrorDetails(bridge->GetLastError());
            return false;
        }
        disk.diskId = created.diskId;
        disk.newDiskId = disk.diskId;  // a retried job reuses it
        log.Debug(k_CreateEmptyDisks, "Disk [%s] created successfully in zone [%s].", disk.diskId, disk.zone);
        // An unregistered disk is accepted: losing its automatic removal is better than
        // failing a restore whose disk exists.
        if (mode != VM_CLEANER_MODE_NONE && !cleaner.RegisterDisk(mode, vmId, disk.diskId))
            log.Error(k_CreateEmptyDisks, "Failed in registering disk [%s].", disk.diskId);
    }
    return true;
}
