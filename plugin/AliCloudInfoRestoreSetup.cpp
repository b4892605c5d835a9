// Restore set-up: the feasibility check, the cleaner registration of the restore, the empty
// disks attached to the proxy for the agent to write, their detach, and the properties of
// the instance the restore will create.
#include "AliCloudInfo.h"
#include "AliCloudRestoreContext.h"
#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
// The only restore flavour there is: the proxy is an ECS instance in the destination zone
// and the disks are written by attaching them to it.
constexpr std::uint32_t kFlavorProxyHotAdd = 1;
// Disk kind that takes part in a restore: a cloud disk.
constexpr std::uint32_t kCloudDisk = 1;
// Lookup flags for the proxy's own description, as the framework defines them.
constexpr UINT64 kProxyLookupFlags = 16;
}  // namespace

int CAliCloudInfo::InitRestoreVM(const RestoreCtx& ctx) {
    SetLastVMError(VMINFO_ERR_NONE);
    if (IsJobCancelled()) {
        log.Debug(kInitRestoreVM, "Quit flag set, terminating JobWait");
        SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
        return 0;
    }
    log.Debug(kInitRestoreVM, "Original VMName : [%s] Restore VMName  : [%s]", ctx.sourceVMName, ctx.vmName);
    log.Debug(kInitRestoreVM, "Restoring VM to Alibaba Cloud Zone : [%s], Alibaba Cloud Region : [%s]", ctx.zoneName,
              ctx.regionName);
    if (!CheckFeasibility(ctx)) return 0;
    if (ctx.restoreFlavor != kFlavorProxyHotAdd) {
        // No error code: the framework only offers flavours the plug-in announced.
        log.Debug(kInitRestoreVM, "Restore flavor [%d] not implemented.", ctx.restoreFlavor);
        return 0;
    }
    if (!HandleOverwriteOption(ctx)) return 0;
    return InitRestoreVM_AliCloudVMAsProxy(ctx);
}

bool CAliCloudInfo::CheckFeasibility(const RestoreCtx& ctx) {
    if (ctx.snapRestore) {
        log.Debug(kCheckFeasibility, "Snap restore is currently not supported.");
        return false;
    }
    const std::string proxyId = GetProxyUUID();
    if (proxyId.empty()) {
        log.Debug(kCheckFeasibility, "Proxy is not Alibaba Cloud Instance. Hotadd restore is not possible.");
        return false;
    }
    log.Debug(kCheckFeasibility, "Instance id of proxy [%s]", proxyId);
    if (!GetVMInfoForVM("", proxyId, "", kProxyLookupFlags, 0, proxyVMInfo)) {
        SetLastVMError(VMINFO_ERR_PROXY_INFO);
        SetLastVMErrorDetails(bridge->GetLastError());
        log.Error(kCheckFeasibility, "Failed to get proxy VM Info.");
        return false;
    }
    // The disks are written through the proxy, so they must live in its zone; the region
    // follows from the zone and is not compared.
    if (proxyVMInfo.hostName != ctx.zoneName) {
        SetLastVMError(VMINFO_ERR_ZONE_MISMATCH);
        log.Debug(kCheckFeasibility,
                  "Proxy zone [%s] and restore VM destination zone [%s] is different. Hotadd restore is not possible.",
                  proxyVMInfo.hostName, ctx.zoneName);
        return false;
    }
    return true;
}

int CAliCloudInfo::InitRestoreVM_AliCloudVMAsProxy(const RestoreCtx& ctx) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    SDisk* osDisk = nullptr;
    if (!FindOSDisk(job.disks, osDisk)) {
        const std::string text = "OS disk not found. Please check if the OS disk was filtered as part of backup.";
        log.Error(kInitRestoreVM_AliCloudVMAsProxy, "%s", text);
        SetLastVMError(VMINFO_ERR_RESTORE_VM);
        SetLastVMErrorDetails(text);
        return 0;
    }
    if (!RegisterCleanerForRestore(ctx)) return 0;
    // Nothing made below is removed here on failure: every disk is registered with the
    // cleaner, and the framework's CleanupRestoreVM removes it.
    if (!_CreateEmptyDisks(job.tempVMId, job.disks, VM_CLEANER_MODE_RESTORE)) return 0;
    if (!_AttachDisksToProxy(job.disks, true, true)) return 0;
    return 1;
}

bool CAliCloudInfo::RegisterCleanerForRestore(const RestoreCtx& ctx) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    // A restarted job keeps its id so that what the earlier attempt registered stays under
    // the same VM entity (and its disks can be reused).
    if (job.tempVMId.empty()) job.tempVMId = CreateGuid();
    log.Debug(kRegisterCleanerForRestore, "Using temporary Id [%s] for VM [%s].", job.tempVMId, job.vmName);
    if (!_InitMount()) return false;
    if (!backupOrphansCleaned) {
        // One sweep per plug-in object, whichever job kind registers first.
        _CleanupAllVMs(VM_CLEANER_MODE_RESTORE);
        backupOrphansCleaned = true;
    }
    // A failed registration does not stop the restore: the user gets the instance; only the
    // automatic removal of the temporary objects is lost (later registrations log it).
    if (!cleaner.RegisterVM(VM_CLEANER_MODE_RESTORE, job.tempVMId))
        log.Error(kRegisterCleanerForRestore, "Failed to register VM [%s].", job.tempVMId);
    return true;
}

int CAliCloudInfo::PreRestoreVM(const RestoreCtx& ctx) {
    log.Debug(kPreRestoreVM, "Doing PreRestoreVM.");
    // The written disks stay registered with the cleaner until the restore is finished.
    return DetachDisks_BridgeObj(proxyVMInfo.guid, ctx.disks) ? 1 : 0;
}

bool CAliCloudInfo::PrepareRestoreCtxVMInfo(const RestoreCtx& ctx) {
    if (ctx.restoreFlavor != kFlavorProxyHotAdd) {
        log.Error(kPrepareRestoreCtxVMInfo, "Restore flavor [%d] not implemented.", ctx.restoreFlavor);
        return false;
    }
    const bool fromConfig = PrepareRestoreCtxVMInfoFromConfigFile(ctx);
    // The job's own choices are laid over whatever the file gave, even when it gave nothing.
    PrepareRestoreCtxVMInfoBasic(ctx);
    return fromConfig;
}

bool CAliCloudInfo::PrepareRestoreCtxVMInfoBasic(const RestoreCtx& ctx) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    SVMInfo& vm = job.vmInfo;
    vm.guid.clear();
    vm.disks.clear();
    vm.hostName = job.zoneName;
    vm.name = job.vmName;
    vm.regionId = job.regionName;
    if (!job.vmProfileOverride.empty()) vm.vmProfile = job.vmProfileOverride;
    if (!job.guestOSOverride.empty()) vm.guestOS = job.guestOSOverride;
    if (!job.keepConfigNetworkSettings) {
        // Cards chosen for the destination replace the backed-up ones even when none were
        // chosen: the backed-up cards belong to the source network. Security groups are
        // only replaced when the job names some, so an instance never ends up without one.
        vm.networkCards = job.networkCards;
        if (!job.securityGroups.empty()) vm.securityGroups = job.securityGroups;
    }
    for (const SDisk& disk : job.disks)
        if (disk.diskType == kCloudDisk) vm.disks.push_back(disk);
    return true;
}

bool CAliCloudInfo::FindOSDisk(vector<SDisk>& disks, SDisk*& osDisk) {
    // The first system disk wins; diskType and filtered are deliberately not looked at.
    for (SDisk& disk : disks) {
        if (disk.isOSDisk) {
            osDisk = &disk;
            return true;
        }
    }
    return false;
}
