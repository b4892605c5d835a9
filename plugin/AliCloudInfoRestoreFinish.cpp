// Finishing a restored instance: its data disks and extra components, power-on, and the
// removal of the restore's temporary objects (written OS disk, its snapshot, the image).
//
// The rule: whatever must outlive the restore is unregistered from the cleaner (the data
// disks once attached; the instance is never registered), and everything still registered
// under the restore's temporary VM id is deleted at the end.
#include "AliCloudInfo.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
constexpr std::uint32_t kFlavorProxyHotAdd = 1;
constexpr std::uint32_t kCloudDisk = 1;
}  // namespace

void CAliCloudInfo::AttachDataDisksToRestoredVM(const RestoreCtx& ctx) {
    std::string cleanerPath;
    // Without the VM entity the disks are still attached; only their unregistration fails
    // (and is logged), which at worst lets a later clean-up try to delete an attached disk.
    if (!cleaner.GetRegisteredVM(VM_CLEANER_MODE_RESTORE, ctx.tempVMId, cleanerPath, false))
        log.Error(kAttachDataDisksToRestoredVM, "Could not find VM [%s] registered with cleaner.", ctx.tempVMId);
    for (const SDisk& disk : ctx.disks) {
        if (disk.diskType != kCloudDisk || disk.isOSDisk) continue;
        bool limitReached = false;
        if (bridge->AttachDisk(ctx.vmInfo.guid, disk.diskId, limitReached, true)) {
            if (!cleaner.UnRegisterDisk(cleanerPath, disk.diskId))
                log.Error(kAttachDataDisksToRestoredVM, "Failed to unregister disk [%s].", disk.diskId);
            continue;
        }
        // A disk the instance cannot take costs the instance that disk, not the restore; an
        // unattached written disk is of no use to the user and would only cost money.
        log.Error(kAttachDataDisksToRestoredVM, "Failed to attach data disk [%s] to instance [%s].", disk.diskId,
                  ctx.vmInfo.guid);
        log.Debug(kAttachDataDisksToRestoredVM, "Deleting disk [%s].", disk.diskId);
        if (!bridge->DeleteDisk(disk.diskId)) {
            // Stays registered: the clean-up tries again.
            log.Error(kAttachDataDisksToRestoredVM, "Failed to delete disk [%s].", disk.diskId);
            continue;
        }
        if (!cleaner.UnRegisterDisk(cleanerPath, disk.diskId))
            log.Error(kAttachDataDisksToRestoredVM, "Failed to unregister disk [%s].", disk.diskId);
    }
}

bool CAliCloudInfo::AddPeripheralComponents(const RestoreCtx& ctx) {
    if (bridge->AddPeripheralComponents(ctx.vmInfo, vmConfigFileContent)) return true;
    log.Error(kAddPeripheralComponents, "WARNING!! Failed to add peripheral components. Error - [%s]",
              bridge->GetLastError());
    return false;
}

int CAliCloudInfo::PostRestoreVM(const RestoreCtx& ctx) {
    // The instance exists and holds the data: neither a failed power-on nor leftovers of the
    // clean-up (which stay registered for a later run) make the restore a failure.
    if (ctx.powerOnAfterRestore && !bridge->PowerOnInstance(ctx.vmInfo.guid))
        log.Error(kPostRestoreVM, "Failed to power on instance [%s].", ctx.vmInfo.guid);
    if (!_CleanupRestoreVM(ctx.tempVMId, false, false)) log.Error(kPostRestoreVM, "WARNING!! Cleanup not successful.");
    return 1;
}

int CAliCloudInfo::CleanupRestoreVM(const RestoreCtx& ctx) {
    if (ctx.restoreFlavor != kFlavorProxyHotAdd) {
        log.Debug(kCleanupRestoreVM, "Restore flavor [%d] not implemented.", ctx.restoreFlavor);
        return 0;
    }
    SetLastVMError(VMINFO_ERR_NONE);
    log.Debug(kCleanupRestoreVM, "Cleaning up VM [%s].", ctx.tempVMId);
    if (!_InitMount()) return 0;
    return _CleanupRestoreVM(ctx.tempVMId, false, false) ? 1 : 0;
}
