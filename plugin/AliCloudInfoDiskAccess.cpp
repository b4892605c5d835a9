// Disk access: the disk handle registry for the job's instance, and the open, describe and
// close operations through which the agent reaches a disk's block device on the proxy.
#include "AliCloudInfo.h"

#include <new>

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
// How long a backup waits for a free disk slot on the proxy before trying again.
constexpr unsigned kProxyFullRetryMs = 20 * 1000;
}  // namespace

bool CAliCloudInfo::InitDiskInfo(const MountCtx& ctx) {
    if (diskInfo) return true;
    // Once made, the registry lives as long as this object, also when the steps below fail:
    // the proxy is the same machine for every job of the object, and the mount driver has
    // always described it before it gets here.
    diskInfo = new (std::nothrow) CAliCloudDiskInfo(bridge);
    if (!diskInfo) {
        log.Error(kInitDiskInfo, "Failed to allocate memory for AliCloudDiskInfo");
        return false;
    }
    if (!_InitProxyInfoForBackup(ctx)) {
        log.Error(kInitDiskInfo, "Failed to get proxy info.");
        return false;
    }
    if (!diskInfo->Initialize(proxyVMInfo)) {
        log.Error(kInitDiskInfo, "Failed to initialize AliCloudDiskInfo");
        return false;
    }
    return true;
}

bool CAliCloudInfo::ConnectDiskInfo(const MountCtx& ctx) {
    if (!InitDiskInfo(ctx)) {
        log.Error(kConnectDiskInfo, "Failed to initialize DiskInfo!");
        return false;
    }
    log.Debug(kConnectDiskInfo, "Connecting to VM [%s][%s] for disk access.", ctx.vmInfo.name, ctx.vmInfo.guid);
    if (!diskInfo->Connect(ctx.vmInfo)) {
        SetLastVMError(VMINFO_ERR_DISKINFO_CONNECT);
        return false;
    }
    return true;
}

int CAliCloudInfo::OpenVmdk(const string& vmName, const string& vmGuid, const string& diskId, VmdkHandle& handle) {
    if (diskId.empty()) {
        log.Error(kOpenVmdk, "Cannot open disk handle for empty disk id");
        return 0;
    }
    SetLastVMError(VMINFO_ERR_NONE);
    log.Debug(kOpenVmdk, "Opening disk [%s] of Instance: [%s][%s]", diskId, vmName, vmGuid);
    if (!diskInfo || !diskInfo->GetDiskHandle(vmName, vmGuid, diskId, handle)) {
        SetLastVMError(VMINFO_ERR_DISK_HANDLE);
        log.Error(kOpenVmdk, "Unable to get disk handle of the opened disk [%s] of VM [%s]", diskId, vmName);
        return 0;
    }
    SDisk disk;
    bool forRestore = false;
    if (!diskInfo->GetDiskInfo(handle, disk, forRestore)) {
        SetLastVMError(VMINFO_ERR_DISK_HANDLE);
        log.Error(kOpenVmdk, "Unable to get disk info of the opened disk [%s] for VM [%s] to attach", diskId, vmName);
        return 0;
    }
    SVMInfo vmInfo;
    if (!diskInfo->GetVMInfo(handle, vmGuid, vmInfo)) {
        log.Error(kOpenVmdk, "Invalid vmdk handle for disk [%s] of VM [%s]", diskId, vmName);
        SetLastVMError(VMINFO_ERR_DISK_HANDLE);
        return 0;
    }
    return _OpenVmdk(vmInfo, disk, forRestore) ? 1 : 0;
}

bool CAliCloudInfo::_OpenVmdk(const SVMInfo& vmInfo, SDisk& disk, bool forRestore) {
    // A backup waits for a free slot as long as it takes: other jobs on this proxy close
    // their disks sooner or later. A restore cannot wait on a proxy it fills itself.
    for (;;) {
        SetLastVMError(VMINFO_ERR_NONE);
        log.DebugLvl(k_OpenVmdk, 1, "Attaching  disk [%s][%s] of VM [%s][%s] to proxy", disk.diskName, disk.diskId,
                     vmInfo.name, vmInfo.guid);
        const int attached = _AttachDiskToProxy(vmInfo, disk, forRestore);
        // Checked after every attempt, successful or not: a cancelled job stops within one wait.
        if (IsJobCancelled()) {
            log.Debug(k_OpenVmdk, "Detected quit flag during attach disk [%s][%s]", disk.diskLabel, disk.diskId);
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            return false;
        }
        if (attached) {
            log.Debug(k_OpenVmdk, "Volume [%s][%s] of VM [%s] is opened successfully for %s", disk.diskLabel,
                      disk.diskId, vmInfo.name, forRestore ? "writing" : "reading");
            return true;
        }
        if (GetLastVMError() != VMINFO_ERR_PROXY_DISK_LIMIT) {
            log.Error(k_OpenVmdk, "Failed to attach disk [%s][%s] of VM [%s] to proxy", disk.diskLabel, disk.diskId,
                      vmInfo.name);
            return false;
        }
        log.Error(k_OpenVmdk, "Proxy has reached max limit while attaching disk [%s][%s] of VM [%s]", disk.diskLabel,
                  disk.diskId, vmInfo.name);
        if (forRestore) {
            SetLastVMError(VMINFO_ERR_PROXY_DISK_LIMIT);
            log.Error(k_OpenVmdk, "Cannot restore VM [%s] due to max disk limit", vmInfo.name);
            return false;
        }
        ZUSLEEP_InTeRnAl(kProxyFullRetryMs, __FILE__, __LINE__);
    }
}

int CAliCloudInfo::GetVmdkInfo(const VmdkHandle& handle, SDisk& disk) {
    SetLastVMError(VMINFO_ERR_NONE);
    if (!handle.vmHandle || !handle.diskHandle) {
        log.Debug(kGetVmdkInfo, "vm handle or disk handle are NULL ");
        return 0;
    }
    bool forRestore = false;  // not part of the answer
    if (!diskInfo) return 0;  // a handle cannot point into a registry that was never made
    return diskInfo->GetDiskInfo(handle, disk, forRestore) ? 1 : 0;
}

int CAliCloudInfo::CloseVmdk(const VmdkHandle& handle) {
    SetLastVMError(VMINFO_ERR_NONE);
    if (!handle.vmHandle) {
        log.Error(kCloseVmdk, "Invalid vm handle");
        return 0;
    }
    if (!handle.diskHandle) {
        log.Error(kCloseVmdk, "Invalid disk handle");
        return 0;
    }
    SVMInfo vmInfo;
    // An empty id makes the registry use the handle's own instance.
    if (!diskInfo || !diskInfo->GetVMInfo(handle, "", vmInfo)) {
        log.Error(kCloseVmdk, "Failed to get VMInfo from vmdk handle for disk");
        SetLastVMError(VMINFO_ERR_DISK_HANDLE);
        return 0;
    }
    SDisk disk;
    bool forRestore = false;
    if (!diskInfo->GetDiskInfo(handle, disk, forRestore)) {
        log.Error(kCloseVmdk, "Failed to get Disk Info to close disk");
        return 0;
    }
    if (!diskMapper->PreDetatchDisk("")) {
        // The device may still be in use: leave the disk attached and open.
        log.Error(kCloseVmdk, "DiskMapper PreDetach failed ");
        return 0;
    }
    const bool closed = diskInfo->CloseDisk(vmInfo.guid, disk.diskId);
    if (!closed) log.Error(kCloseVmdk, "Failed to detach disk [%s][%s]", disk.diskName, disk.diskId);
    // Refresh the proxy's device view whatever the detach gave.
    if (!diskMapper->PostDetatchDisk()) log.Error(kCloseVmdk, "DiskMapper PostDetach failed.");
    if (!closed) return 0;
    log.Debug(kCloseVmdk, "Disk [%s][%s] is closed successfully", disk.diskName, disk.diskId);
    return 1;
}
