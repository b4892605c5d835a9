// The restore driver: from the written, detached OS disk to a new ECS instance (snapshot,
// custom image, instance), then its data disks and extra components.
#include "AliCloudInfo.h"
#include "AliCloudRestoreContext.h"
#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

int CAliCloudInfo::RestoreVM(const RestoreCtx& ctx) {
    log.Debug(kRestoreVM, "Creating VM [%s].", ctx.vmName);
    if (!RestoreVirtualMachine(ctx)) return 0;
    // Once the instance exists the restore has succeeded: what follows only completes it,
    // and its failures are logged by the steps themselves.
    WaitForInstanceState(ctx.vmInfo.guid, "Stopped");  // a new instance comes up stopped
    AttachDataDisksToRestoredVM(ctx);
    AddPeripheralComponents(ctx);
    return 1;
}

int CAliCloudInfo::RestoreVirtualMachine(const RestoreCtx& ctx) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    SDisk* osDisk = nullptr;
    if (!FindOSDisk(job.disks, osDisk)) {
        const std::string text = "OS disk was not found. Please check if the OS disk was filtered as part of backup.";
        SetLastVMError(VMINFO_ERR_RESTORE_VM);
        SetLastVMErrorDetails(text);
        log.Error(kRestoreVirtualMachine, "%s", text);
        return 0;
    }
    // Only the system disk becomes the image; the data disks go to the instance as they are.
    vector<SDisk> osOnly{*osDisk};
    if (!_CreateSnapshots(job.tempVMId, osOnly, VM_CLEANER_MODE_RESTORE)) return 0;
    osDisk->snapshotId = osOnly.front().snapshotId;

    // After the snapshot id is copied, so that the OS disk in vmInfo.disks carries it.
    if (!PrepareRestoreCtxVMInfo(ctx)) return 0;

    std::string osName;
    std::string architecture;
    if (ParseGuestOSString(job.vmInfo.guestOS, osName, architecture)) {
        log.Debug(kRestoreVirtualMachine, "Obtained OS : [%s] and architecture [%s].", osName, architecture);
    } else {
        // The image is still requested; the cloud then applies its own defaults.
        log.Error(kRestoreVirtualMachine, "WARNING : Failed to get OS name and architecture.");
    }

    if (!_WaitForSnapshots(osOnly)) {
        if (IsJobCancelled()) {
            log.Debug(kRestoreVirtualMachine, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
        } else {
            const std::string error = bridge->GetLastError();
            log.Error(kRestoreVirtualMachine, "Failed to get snapshot status. Error [%s]", error);
            SetLastVMError(VMINFO_ERR_RESTORE_VM);
            SetLastVMErrorDetails(error);
        }
        return 0;
    }

    std::string imageId;
    if (!CreateImage(ctx, imageId, osName, architecture)) return 0;

    std::string instanceId;
    if (!bridge->CreateInstance(job.vmInfo, imageId, vmConfigFileContent, instanceId)) {
        // The image stays registered; the restore clean-up removes it.
        SetLastVMError(VMINFO_ERR_RESTORE_VM);
        SetLastVMErrorDetails(bridge->GetLastError());
        return 0;
    }
    job.vmInfo.guid = instanceId;
    log.Debug(kRestoreVirtualMachine, "Restored instance : [%s].", instanceId);
    return 1;
}

// "<OS name>;<architecture>", exactly two parts; the parts are taken as they stand.
bool CAliCloudInfo::ParseGuestOSString(const string& guestOS, std::string& osName, std::string& architecture) {
    std::vector<std::string> parts;
    if (FXString::Split(guestOS, ";", parts, 0) != 2) {
        log.Error(kParseGuestOSString, "Guest OS name not in proper format. Value is [%s].", guestOS);
        return false;
    }
    osName = parts[0];
    architecture = parts[1];
    return true;
}

bool CAliCloudInfo::CreateImage(const RestoreCtx& ctx, std::string& imageId, const string& osName,
                                const string& architecture) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    SDisk* osDisk = nullptr;
    if (!FindOSDisk(job.disks, osDisk)) {
        const std::string text = "OS disk not found. Please check if the OS disk was filtered as part of the backup.";
        SetLastVMError(VMINFO_ERR_RESTORE_VM);
        SetLastVMErrorDetails(text);
        log.Error(kCreateImage, "%s", text);
        return false;
    }
    // Names the job and the proxy that made the image, so a leftover can be traced.
    const std::string description = "Snapshot Created by Tarnelo for Job " + std::to_string(log.getJobId()) +
                                     " from " + proxyVMInfo.name + "(" + proxyVMInfo.guid + ")";
    // Built from the system-disk snapshot alone, unnamed: the cloud names it.
    if (!bridge->CreateImageFromDiskSnapshots(job.regionName, osDisk->snapshotId, {}, architecture, osName, imageId,
                                              "", description)) {
        SetLastVMError(VMINFO_ERR_RESTORE_VM);
        SetLastVMErrorDetails(bridge->GetLastError());
        return false;
    }
    log.Debug(kCreateImage, "Created image [%s] for restore.", imageId);
    if (!cleaner.RegisterTemplate(VM_CLEANER_MODE_RESTORE, job.tempVMId, imageId))
        log.Error(kCreateImage, "Failed to register image [%s] with cleaner.", imageId);
    return true;
}
