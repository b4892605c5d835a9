#include "AliCloudDiskInfo.h"

#include <algorithm>

#include "LogTags.h"
#include "VMInfo.h"

using namespace AliCloudDiskInfo;
using namespace AliCloudLogTags;

CAliCloudDiskInfo::CAliCloudDiskInfo(AliCloudSDKCppBridge::CAliCloudSDKCppBridge* bridgeObject)
    : bridge(bridgeObject) {}

CAliCloudDiskInfo::~CAliCloudDiskInfo() {
    for (VMHandle* vm : vmHandles) {
        for (DiskHandle* disk : vm->disks) delete disk;
        delete vm;
    }
}

bool CAliCloudDiskInfo::Initialize(const SVMInfo& proxy) {
    proxyVMInfo = proxy;
    return true;
}

VMHandle* CAliCloudDiskInfo::FindVMHandle(const std::string& guid) {
    HxCriticalSectionLock hold(lock);
    for (VMHandle* vm : vmHandles)
        if (FXString::CompareNoCase(vm->guid, guid) == 0) return vm;
    return nullptr;
}

DiskHandle* CAliCloudDiskInfo::FindVMDiskHandle(VMHandle* vmHandle, const std::string& diskId) {
    if (!vmHandle) return nullptr;
    for (DiskHandle* disk : vmHandle->disks)
        if (FXString::CompareNoCase(disk->diskId, diskId) == 0) return disk;
    return nullptr;
}

bool CAliCloudDiskInfo::Connect(const SVMInfo& vmInfo) {
    // Check and insertion are separate holds: one job connects one instance, so a double
    // listing from two threads connecting the same instance at once is accepted.
    if (FindVMHandle(vmInfo.guid)) return true;
    auto* vm = new VMHandle{vmInfo.name, vmInfo.guid, vmInfo.hostName, vmInfo.regionId, {}};
    HxCriticalSectionLock hold(lock);
    logger.Debug(kDiskInfoConnect, "VM [%s] added.", vmInfo.guid);
    vmHandles.push_back(vm);
    return true;
}

bool CAliCloudDiskInfo::Disconnect(const SVMInfo& vmInfo) {
    logger.Debug(kDiskInfoDisconnect, "Disconnecting VM [%s][%s] from AliCloudDiskInfo", vmInfo.name, vmInfo.guid);
    VMHandle* vm = FindVMHandle(vmInfo.guid);
    if (!vm) return false;
    while (!vm->disks.empty()) {
        DiskHandle* disk = vm->disks.back();
        vm->disks.pop_back();
        if (disk->state == DISK_STATE_OPEN) logger.Error(kDiskInfoDisconnect, "Disk handle is still open!");
        delete disk;
    }
    HxCriticalSectionLock hold(lock);
    vmHandles.erase(std::remove(vmHandles.begin(), vmHandles.end(), vm), vmHandles.end());
    delete vm;
    return true;
}

bool CAliCloudDiskInfo::RegisterDisk(const std::string& vmGuid, const SDisk& disk, bool forRestore) {
    logger.DebugLvl(kDiskInfoRegisterDisk, 1, "Registering disk [%s] for %s of VM [%s]", disk.diskId,
                    forRestore ? "restore" : "backup", vmGuid);
    VMHandle* vm = FindVMHandle(vmGuid);
    if (!vm) return false;
    if (FindVMDiskHandle(vm, disk.diskId)) {
        logger.Error(kDiskInfoRegisterDisk, "Disk [%s] is already registered", disk.diskId);
        return false;
    }
    auto* handle = new DiskHandle;
    handle->state = DISK_STATE_REGISTERED;
    handle->diskName = disk.diskName;
    handle->diskId = disk.diskId;
    handle->diskSize = static_cast<std::uint64_t>(disk.diskSize);
    handle->formatCode = disk.formatCode;
    handle->forRestore = forRestore;
    handle->disk = disk;
    vm->disks.push_back(handle);
    return true;
}

bool CAliCloudDiskInfo::UpdateDisk(const SVMInfo& vmInfo, const SDisk& disk) {
    DiskHandle* handle = FindVMDiskHandle(FindVMHandle(vmInfo.guid), disk.diskId);
    if (!handle) return false;
    handle->disk = disk;
    return true;
}

bool CAliCloudDiskInfo::ConnectDisk(const SVMInfo& vmInfo, SDisk& disk, bool& maxLimitReached) {
    VMHandle* vm = FindVMHandle(vmInfo.guid);
    if (!vm) {
        logger.Debug(kDiskInfoConnectDisk, "vm handle is invalid");
        return false;
    }
    DiskHandle* handle = FindVMDiskHandle(vm, disk.diskId);
    if (!handle) {
        logger.Error(kDiskInfoConnectDisk, "disk handled invalid. Disk [%s] has not registered", disk.diskId);
        return false;
    }
    if (handle->state == DISK_STATE_OPEN) {
        logger.Error(kDiskInfoConnectDisk, "Disk [%s] of VM [%s] already opened with [%s]", disk.diskId, vmInfo.guid,
                     disk.devicePath);
        return false;
    }
    handle->disk.devicePath.clear();
    disk = handle->disk;
    logger.DebugLvl(kDiskInfoConnectDisk, 1, "Attaching disk [%s][%s] of VM [%s]", handle->diskName, handle->diskId,
                    vmInfo.guid);
    maxLimitReached = false;
    bool attached = bridge->AttachDisk(proxyVMInfo.guid, handle->diskId, maxLimitReached, true);
    if (attached) handle->state = DISK_STATE_OPEN;
    return attached;
}

bool CAliCloudDiskInfo::CloseDisk(const std::string& vmGuid, const std::string& diskId) {
    logger.DebugLvl(kDiskInfoCloseDisk, 1, "Closing disk [%s] of VM [%s]", diskId, vmGuid);
    VMHandle* vm = FindVMHandle(vmGuid);
    if (!vm) {
        logger.Debug(kDiskInfoCloseDisk, "vm handle is invalid");
        return false;
    }
    DiskHandle* handle = FindVMDiskHandle(vm, diskId);
    if (!handle) {
        logger.Error(kDiskInfoCloseDisk, "Disk [%s] has not opened", diskId);
        return false;
    }
    if (handle->state != DISK_STATE_OPEN) return true;
    return _CloseDisk(vm, handle);
}

bool CAliCloudDiskInfo::_CloseDisk(VMHandle* vmHandle, DiskHandle* diskHandle) {
    if (!_DisconnectDisk(vmHandle, diskHandle)) return false;
    diskHandle->state = DISK_STATE_CLOSED;
    return true;
}

bool CAliCloudDiskInfo::_DisconnectDisk(VMHandle* vmHandle, DiskHandle* diskHandle) {
    if (diskHandle->state != DISK_STATE_OPEN) {
        logger.Error(kDiskInfo_DisconnectDisk, "Disk [%s] of VM [%s] has not opened", diskHandle->diskId, vmHandle->guid);
        return false;
    }
    if (!bridge->DetachDisk(proxyVMInfo.guid, diskHandle->diskId, proxyVMInfo.regionId)) {
        logger.Error(kDiskInfo_DisconnectDisk, "Failed to detach disk [%s], Error: [%s]", diskHandle->diskId,
                     bridge->GetLastError());
        return false;
    }
    diskHandle->disk.mappedDevice.clear();
    diskHandle->disk.devicePath.clear();
    return true;
}

bool CAliCloudDiskInfo::GetDiskHandle(const std::string& vmName, const std::string& vmGuid, const std::string& diskId,
                                      VmdkHandle& handle) {
    VMHandle* vm = FindVMHandle(vmGuid);
    if (!vm) {
        logger.Error(kDiskInfoGetDiskHandle, "Unable to find open VM Handle for %s", vmName);
        return false;
    }
    DiskHandle* disk = FindVMDiskHandle(vm, diskId);
    if (!disk) {
        logger.Error(kDiskInfoGetDiskHandle, "Unable to find open Disk Handle for VM[%s] Disk[%s]", vmName, diskId);
        return false;
    }
    handle.vmHandle = vm;
    handle.diskHandle = disk;
    return true;
}

bool CAliCloudDiskInfo::GetDiskInfo(const VmdkHandle& handle, SDisk& disk, bool& forRestore) {
    if (!handle.diskHandle) {
        logger.Error(kDiskInfoGetDiskInfo, "Disk handle passed is NULL.");
        return false;
    }
    return ::GetDiskInfo(handle, disk, forRestore);
}

bool CAliCloudDiskInfo::GetVMInfo(const VmdkHandle& handle, const std::string& vmGuid, SVMInfo& vmInfo) {
    // With no id the handle's own instance is used, even if it has left the list since.
    VMHandle* vm = vmGuid.empty() ? static_cast<VMHandle*>(handle.vmHandle) : FindVMHandle(vmGuid);
    if (!vm) {
        logger.Error(kDiskInfoGetVMInfo, "VM Handle is invalid");
        return false;
    }
    vmInfo.name = vm->name;
    vmInfo.guid = vm->guid;
    vmInfo.hostName = vm->hostName;
    vmInfo.regionId = vm->regionId;
    return true;
}

bool GetDiskInfo(const VmdkHandle& handle, SDisk& disk, bool& forRestore) {
    if (!handle.diskHandle) return false;
    const auto* diskHandle = static_cast<const DiskHandle*>(handle.diskHandle);
    disk = diskHandle->disk;
    forRestore = diskHandle->forRestore;
    return true;
}
