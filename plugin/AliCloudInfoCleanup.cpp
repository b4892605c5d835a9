// Orphan cleanup: removing, from the cloud and from the cleaner's registry, what a job
// registered for an instance (disks, snapshots, custom images, then the instance's own
// entry), and the once-per-object sweep of what earlier processes on this proxy left.
//
// Not finding an instance or a child list counts as success. A failed deletion makes the
// result false and leaves the entry (and the instance's entry) registered, so that a later
// sweep tries again; a failed unregistration is only logged.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

bool CAliCloudInfo::_CleanupAllVMs(VM_Cleaner_Mode mode) {
    if (!cleaner.IsAllVMCleanupRequired()) return true;
    vector<CleanerEntity> orphans;
    // Unreadable list: do not record the sweep, so that the next object tries again.
    if (!cleaner.GetOrphanedRootEntityListByType(mode, VM_CLEANER_ENTITY_VM, "", orphans)) return true;
    if (!orphans.empty()) log.Debug(k_CleanupAllVMs, "Cleaning up [%d] VMs", orphans.size());
    size_t cleaned = 0;
    for (const CleanerEntity& orphan : orphans) {
        bool ok = false;
        if (mode == VM_CLEANER_MODE_BACKUP)
            ok = _CleanupMountedVM(VM_CLEANER_MODE_BACKUP, orphan.entityId, true, true, false);
        else if (mode == VM_CLEANER_MODE_RESTORE)
            ok = _CleanupRestoreVM(orphan.entityId, true, false);
        if (ok) ++cleaned;
    }
    if (!orphans.empty()) log.Debug(k_CleanupAllVMs, "Cleaned up [%d] of [%d] VMs", cleaned, orphans.size());
    cleaner.PostAllVMCleanup();
    return true;  // a failed orphan stays registered for the next sweep; the job goes on
}

bool CAliCloudInfo::_CleanupMountedVM(VM_Cleaner_Mode mode, const string& vmGuid, bool orphansOnly, bool unregisterVM,
                                      bool detachThroughDiskInfo) {
    log.Debug(k_CleanupMountedVM, "Cleaning up VM [%s].", vmGuid);
    bool result = true;
    std::string cleanerPath;
    if (!cleaner.GetRegisteredVM(mode, vmGuid, cleanerPath, orphansOnly)) {
        log.Debug(k_CleanupMountedVM, "Couldn't find vm [%s] registered with cleaner.", vmGuid);
        return true;
    }
    if (!_CleanUpMountedDisks(cleanerPath, true, detachThroughDiskInfo, vmGuid)) {
        SetLastVMError(VMINFO_ERR_DISK_CLEANUP);
        SetLastVMErrorDetails(bridge->GetLastError());
        result = false;
    }
    // Snapshots are independent of the disks: clean them even when a disk could not go.
    if (!_CleanUpSnapshots(cleanerPath)) {
        SetLastVMError(VMINFO_ERR_SNAPSHOT_CLEANUP);
        SetLastVMErrorDetails(bridge->GetLastError());
        result = false;
    }
    if (result && unregisterVM && !cleaner.UnRegisterVM(cleanerPath))
        log.Debug(k_CleanupMountedVM, "Failed to unregister VM [%s]", vmGuid);
    return result;
}

bool CAliCloudInfo::_CleanUpMountedDisks(const string& vmCleanerPath, bool deleteDisks, bool detachThroughDiskInfo,
                                         const string& vmGuid) {
    vector<SDisk> disks;
    if (!cleaner.GetRegisteredDisks(vmCleanerPath, disks)) {
        log.Debug(k_CleanUpMountedDisks, "Couldn't find any disks registered with cleaner for VM [%s].", vmCleanerPath);
        return true;
    }
    if (disks.empty()) return true;
    // The detach result does not matter: a disk that is still attached fails its deletion
    // and stays registered.
    if (detachThroughDiskInfo)
        DetachDisks_DiskInfo(vmGuid, disks);
    else
        DetachDisks_BridgeObj(GetProxyUUID(), disks);
    if (deleteDisks && !DeleteDisks(vmCleanerPath, disks)) return false;
    return true;
}

bool CAliCloudInfo::_CleanupImages(VM_Cleaner_Mode mode, const string& vmGuid, bool orphansOnly) {
    std::string cleanerPath;
    if (!cleaner.GetRegisteredVM(mode, vmGuid, cleanerPath, orphansOnly)) {
        log.Debug(k_CleanupImages, "Couldn't find any VM registered with cleaner for [%s].", vmGuid);
        return true;
    }
    vector<string> imageIds;
    if (!cleaner.GetRegisteredTemplates(cleanerPath, imageIds)) {
        log.Debug(k_CleanupImages, "Couldn't find any template registered with cleaner for [%s].", vmGuid);
        return true;
    }
    bool result = true;
    for (const std::string& imageId : imageIds) {
        if (!bridge->DeleteImage(proxyVMInfo.regionId, imageId, true)) {
            log.Error(k_CleanupImages, "Failed to delete image [%s].", imageId);
            result = false;
            continue;
        }
        if (!cleaner.UnRegisterTemplate(cleanerPath, imageId))
            log.Error(k_CleanupImages, "Failed to unregister template [%s].", imageId);
    }
    return result;
}

bool CAliCloudInfo::_CleanupRestoreVM(std::string vmId, bool orphansOnly, bool detachThroughDiskInfo) {
    std::string cleanerPath;
    if (!cleaner.GetRegisteredVM(VM_CLEANER_MODE_RESTORE, vmId, cleanerPath, false)) {
        log.Error(k_CleanupRestoreVM, "VM [%s] not found with cleaner. WARNING: Cleanup not be done!!", vmId);
        return false;
    }
    bool result = true;
    // Images first: an image still refers to the snapshot it was built from.
    if (!_CleanupImages(VM_CLEANER_MODE_RESTORE, vmId, orphansOnly)) result = false;
    if (!_CleanupMountedVM(VM_CLEANER_MODE_RESTORE, vmId, orphansOnly, false, detachThroughDiskInfo)) result = false;
    if (result && !cleaner.UnRegisterVM(cleanerPath)) log.Debug(k_CleanupRestoreVM, "Failed to unregister VM [%s]", vmId);
    return result;
}

bool CAliCloudInfo::RegisterCleanerForBackup(const MountCtx& ctx) {
    // Once per object, whatever the sweep gives: a sweep that cannot finish should not slow
    // every mount of the job; the framework's own bookkeeping decides when it is due again.
    if (!backupOrphansCleaned) {
        _CleanupAllVMs(VM_CLEANER_MODE_BACKUP);
        backupOrphansCleaned = true;
    }
    if (cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, ctx.vmGuid)) return true;
    // Without its root entry nothing the mount creates could be registered (nor cleaned up
    // after a crash), so this ends the mount; the line is a trace, the caller fails.
    log.Debug(kRegisterCleanerForBackup, "Failed to register VM [%s]", ctx.vmGuid);
    return false;
}
