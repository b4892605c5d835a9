// Unmount and teardown: removing what a mount created (attachments, disk copies,
// snapshots, the configuration file). Both entry points work from the cleaner's registry,
// not from the job's memory, so they also remove what a failed or interrupted mount left.
//
// Best effort throughout: every item is tried, a failure only makes the result false, an
// object that is already gone counts as removed, and an entry leaves the registry only
// when its object was deleted or found gone, so that a later run tries again.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

int CAliCloudInfo::UnmountVM(const MountCtx& ctx) {
    log.DebugLvl(kUnmountVM, 2, "<<Start");
    log.Debug(kUnmountVM, "Unmounting VM [%s]", ctx.vmInfo.guid);
    if (!_InitProxyInfoForBackup(ctx)) return 0;
    if (!_InitMount()) return 0;
    const bool unmounted = _UnMountVM(ctx);
    if (unmounted)
        log.Debug(kUnmountVM, "VM [%s] unmounted successfully", ctx.vmInfo.guid);
    else
        log.Debug(kUnmountVM, "VM [%s] failed to unmount.", ctx.vmInfo.guid);
    return unmounted ? 1 : 0;
}

bool CAliCloudInfo::_UnMountVM(const MountCtx& ctx) {
    // This object opened the disks, so its registry detaches them.
    const bool cleaned = _CleanupMountedVM(VM_CLEANER_MODE_BACKUP, ctx.vmInfo.guid, false, true, true);
    if (diskInfo && !diskInfo->Disconnect(ctx.vmInfo)) log.Error(k_UnMountVM, "DiskInfo Disconnect() failed.");
    DeleteVMConfigFile(ctx);  // the backup has its own copy by now; a leftover file harms nothing
    return cleaned;
}

int CAliCloudInfo::CleanupVM(const MountCtx& ctx) {
    SetLastVMError(VMINFO_ERR_NONE);
    log.Debug(kCleanupVM, "Doing clean up for VM [%s]", ctx.vmGuid);
    if (!_InitProxyInfoForBackup(ctx)) return 0;
    if (!_InitMount()) return 0;
    // Called on its own by the framework, possibly by another object than the mount's:
    // detach through the bridge, and leave the registry and the file to the unmount.
    if (!_CleanupMountedVM(VM_CLEANER_MODE_BACKUP, ctx.vmGuid, true, true, false)) {
        log.Debug(kCleanupVM, "Cleaning up VM [%s] failed.", ctx.vmGuid);
        return 0;
    }
    log.Debug(kCleanupVM, "Cleaning up VM [%s] succeeded.", ctx.vmGuid);
    log.DebugLvl(kCleanupVM, 2, "<<End");
    return 1;
}

namespace {
// The detach pass both detach routines share: every cloud disk that is not filtered, each
// between the mapper's pre- and post-detach calls, with the lines written under `tag`.
// `detach` does the detaching itself; its failure makes the pass false but never stops it.
template <class Detach>
bool DetachEach(EvDebug& log, CDiskMapper& mapper, const char* tag, const vector<SDisk>& disks, Detach detach) {
    bool ok = true;
    for (const SDisk& disk : disks) {
        if (disk.diskType != 1 || disk.filtered) continue;
        log.Debug(tag, "Detaching disk [%s]", disk.diskId);
        if (!mapper.PreDetatchDisk("")) {
            log.Error(tag, "DiskMapper PreDetach() failed for disk [%s].", disk.diskId);
            continue;
        }
        if (!detach(disk)) {
            log.Debug(tag, "Failed to detach disk [%s]", disk.diskId);
            ok = false;
        }
        if (!mapper.PostDetatchDisk()) log.Error(tag, "DiskMapper PostDetach() failed for disk [%s].", disk.diskId);
    }
    return ok;
}
}  // namespace

bool CAliCloudInfo::DetachDisks_DiskInfo(const string& instanceId, const vector<SDisk>& disks) {
    // Through this object's registry, which updates its view of the disk too. Without a
    // registry this object opened nothing; the deletion that follows decides.
    return DetachEach(log, *diskMapper, kDetachDisks_DiskInfo, disks,
                      [&](const SDisk& disk) { return diskInfo && diskInfo->CloseDisk(instanceId, disk.diskId); });
}

bool CAliCloudInfo::DetachDisks_BridgeObj(const string& instanceId, const vector<SDisk>& disks) {
    // By cloud id alone: needs no registry entry.
    return DetachEach(log, *diskMapper, kDetachDisks_BridgeObj, disks, [&](const SDisk& disk) {
        return bridge->DetachDisk(instanceId, disk.diskId, proxyVMInfo.regionId);
    });
}

bool CAliCloudInfo::DeleteDisks(const string& instanceId, const vector<SDisk>& disks) {
    bool ok = true;
    for (const SDisk& disk : disks) {
        if (disk.diskType != 1 || disk.filtered) continue;
        log.Debug(kDeleteDisks, "Deleting disk [%s]", disk.diskId);
        bool exists = false;
        if (bridge->DoesDiskExist(proxyVMInfo.regionId, disk.diskId, exists)) {
            if (!exists) {
                log.Debug(kDeleteDisks, "Disk [%s] not found in region [%s]. Skipping deletion...", disk.diskId,
                          proxyVMInfo.regionId);
                if (!cleaner.UnRegisterDisk(instanceId, disk.diskId))
                    log.Debug(kDeleteDisks, "Failed to unregister disk [%s] ", disk.diskId);
                continue;
            }
        } else {
            // Unknown is treated as present: trying the deletion costs one call at most.
            log.Error(kDeleteDisks, "Failed to determine if disk [%s] exists.", disk.diskId);
        }
        if (!bridge->DeleteDisk(disk.diskId)) {
            log.Debug(kDeleteDisks, "Failed to delete disk [%s]", disk.diskId);
            ok = false;
            continue;
        }
        if (!cleaner.UnRegisterDisk(instanceId, disk.diskId))
            log.Debug(kDeleteDisks, "Failed to unregister disk [%s] ", disk.diskId);
    }
    return ok;
}

bool CAliCloudInfo::DeleteSnapshots(const string& instanceId, const vector<string>& snapshotIds) {
    bool ok = true;
    for (const std::string& id : snapshotIds) {
        log.Debug(kDeleteSnapshots, "Deleting snapshot [%s].", id);
        bool exists = false;
        if (bridge->DoesSnapshotExist(proxyVMInfo.regionId, id, exists)) {
            if (!exists) {
                log.Debug(kDeleteSnapshots, "Snapshot [%s] not found in region [%s]. Skipping deletion...", id,
                          proxyVMInfo.regionId);
                if (!cleaner.UnRegisterSnapshot(instanceId, id))
                    log.Debug(kDeleteSnapshots, "Failed to unregister Snapshot [%s] ", id);
                continue;
            }
        } else {
            log.Error(kDeleteSnapshots, "Failed to determine if Snapshot [%s] exists.", id);
        }
        if (!bridge->DeleteSnapshot(id)) {
            log.Error(kDeleteSnapshots, "Failed to delete snapshot [%s].", id);
            ok = false;
            continue;
        }
        if (!cleaner.UnRegisterSnapshot(instanceId, id))
            log.Error(kDeleteSnapshots, "Failed to unregister snapshot [%s] for VM [%s]", id, instanceId);
    }
    return ok;
}

bool CAliCloudInfo::_CleanUpSnapshots(const string& instanceId) {
    vector<string> ids;
    if (!cleaner.GetRegisteredSnapshots(instanceId, ids)) {
        // Nothing registered is nothing to do.
        log.Debug(k_CleanUpSnapshots, "Couldn't find any snapshots registered with cleaner for VM [%s].", instanceId);
        return true;
    }
    return DeleteSnapshots(instanceId, ids);
}
