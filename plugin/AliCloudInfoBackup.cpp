// Backup mount: the instance's record, the feasibility checks and the mount driver.
//
// A mount snapshots every disk, waits for the snapshots, makes one new disk from each and
// saves the instance's configuration text beside the backup. The new disks are attached
// later, one at a time, when the agent opens them. Nothing a failed phase created is undone
// here: everything is registered with the cleaner and removed by unmount, cleanup or the
// orphan sweep.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
// Lookup arguments the bridge expects when describing an instance for backup.
constexpr UINT64 kBackupLookupFlags = 16;
constexpr int kBackupLookupValue = 0;
}  // namespace

bool CAliCloudInfo::_InitVMInfoForBackup(const string& /*vmName: logs use the id*/, const string& vmGuid,
                                         const string& /*hostName: the bridge finds the zone itself*/,
                                         SVMInfo& vmInfo, std::string& configText) {
    // The mount driver passes ctx.vmInfo.guid together with ctx.vmInfo as the output record:
    // keep our own copy of the id so the lookup and the error line survive the overwrite.
    const std::string instanceId = vmGuid;
    if (GetVMInfoAndConfigFile(instanceId, kBackupLookupFlags, kBackupLookupValue, vmInfo, configText)) return true;
    SetLastVMError(VMINFO_ERR_VM_NOT_FOUND);
    log.Error(k_InitVMInfoForBackup, "Source instance [%s] is not found.", instanceId);
    return false;
}

bool CAliCloudInfo::IsBackupFeasible(const MountCtx& ctx) {
    // The proxy's id is detected per object, but its description is cached per process: a
    // later object that took the description from the cache has not detected the id yet.
    // The cached description names the same instance, so it stands in for the id then.
    const std::string& proxyId = localInstanceId.empty() ? proxyVMInfo.guid : localInstanceId;
    if (ctx.vmInfo.guid == proxyId) {
        log.Error(kIsBackupFeasible, "Proxy VM can't backup itself.");
        SetLastVMError(VMINFO_ERR_PROXY_SELF_BACKUP);
        return false;
    }
    // Cloud disks attach only to an instance of their own zone, so the proxy must share the
    // instance's zone. Zone ids are compared exactly, as ECS issues them.
    if (proxyVMInfo.hostName != ctx.vmInfo.hostName) {
        SetLastVMError(VMINFO_ERR_ZONE_MISMATCH);
        // Both values are zones; the wording of the message is the product's own.
        const CZuString message = CZuString::Format("Proxy region [{1}] and instance zone [{2}] are different.",
                                                    proxyVMInfo.hostName, ctx.vmInfo.hostName);
        SetLastVMErrorDetails(message.str());
        log.Error(kIsBackupFeasible, "%s", message.str());
        return false;
    }
    // Filtered disks still count here: the snapshot phase decides what to do with them.
    if (ctx.vmInfo.disks.empty()) {
        SetLastVMError(VMINFO_ERR_NO_DISKS);
        log.Error(kIsBackupFeasible, "Empty disk list for instance. nothing to backup");
        return false;
    }
    return true;
}

bool CAliCloudInfo::DoesOSDiskExist(const vector<SDisk>& disks) {
    for (const SDisk& disk : disks)
        if (disk.isOSDisk) return true;
    return false;
}

int CAliCloudInfo::MountVM(const MountCtx& ctx) {
    SetLastVMError(VMINFO_ERR_NONE);
    // The context is the job's record: later calls of the same job read what the mount writes.
    MountCtx& job = const_cast<MountCtx&>(ctx);
    job.vmInfo.guid = ctx.vmGuid;
    log.Debug(kMountVM, "VM to be mounted is [%s].", ctx.vmInfo.guid);

    std::string configText;
    if (!_InitVMInfoForBackup(ctx.vmName, ctx.vmInfo.guid, "", job.vmInfo, configText)) return 0;
    if (!_InitProxyInfoForBackup(ctx)) return 0;
    if (!IsBackupFeasible(ctx)) return 0;
    if (!_InitMount()) return 0;
    if (!RegisterCleanerForBackup(ctx)) return 0;

    log.Debug(kMountVM, "Mounting VM [%s]: Id: [%s], mount path: [%s]", ctx.vmName, ctx.vmInfo.guid, ctx.mountPath);
    if (!_MountVM(ctx, configText)) {
        log.Error(kMountVM, "VM [%s] failed to mount.", ctx.vmInfo.guid);
        return 0;
    }
    log.Debug(kMountVM, "VM [%s] mounted successfully.", ctx.vmInfo.guid);
    return 1;
}

bool CAliCloudInfo::_MountVM(const MountCtx& ctx, const string& configText) {
    MountCtx& job = const_cast<MountCtx&>(ctx);  // written on purpose, see MountVM
    if (!ConnectDiskInfo(ctx)) {
        log.Error(k_MountVM, "Failed to initialize diskInfo.");
        return false;
    }
    if (_PrepareMountPathDirectory(ctx.mountPath, true) == 0) return false;
    if (!TakeSnapshots(ctx)) return false;
    if (!_WaitForSnapshots(ctx.vmInfo.disks)) {
        // The wait itself stays silent on a cancel; tell the two causes apart here.
        if (IsJobCancelled()) {
            log.Debug(k_MountVM, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            return false;
        }
        const std::string error = bridge->GetLastError();
        log.Error(k_MountVM, "Failed to get snapshot status. Error [%s]", error);
        SetLastVMError(VMINFO_ERR_DISK_CREATE);
        SetLastVMErrorDetails(error);
        return false;
    }
    bool flag = false;  // not read afterwards; the routine's contract keeps the argument
    if (!CreateDisksFromSnapshots(ctx.vmGuid, job.vmInfo.disks, VM_CLEANER_MODE_BACKUP, flag)) return false;
    // The configuration text is what a restore rebuilds the instance from: without it the
    // backup is incomplete, so a failed write fails the mount.
    return SaveVMConfigFile(ctx.mountPath, ctx.vmInfo.guid, configText);
}

bool CAliCloudInfo::_InitMount() {
    if (!diskMapper->Init()) {
        log.Debug(k_InitMount, "Disk mapper initialization failed.");
        return false;
    }
    const std::string proxyId = GetProxyUUID();
    if (proxyId.empty()) {
        log.Error(k_InitMount,
                  "Failed to get proxy instance Id. Please check whether the proxy is an Alibaba Cloud instance.");
        return false;
    }
    // The cleaner's registry is keyed by the proxy: a later run on the same proxy finds
    // what this one leaves behind.
    if (!cleaner.Init(proxyId)) {
        log.Debug(k_InitMount, "Cleaner initialization failed.");
        return false;
    }
    log.Debug(k_InitMount, "Cleaner initialized with [%s] ID", proxyId);
    return true;
}
