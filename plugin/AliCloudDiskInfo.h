// CAliCloudDiskInfo: the registry of the instances whose disks are being read (backup) or
// written (restore) through the proxy, and of each disk's attach state. It attaches and
// detaches disks to and from the proxy instance on request and hands out VmdkHandle values
// that point into it.
//
// Ownership: the registry owns its VMHandle records, each VMHandle owns its DiskHandles;
// a VmdkHandle only points at them and stays valid until the instance is disconnected.
// Lookups compare instance and disk ids without regard to case; the first match wins.
// Concurrency: `lock` guards the list of instances only; one job thread works on one
// instance's disks.
#pragma once

#include <string>
#include <vector>

#include "AliCloudSDKCppBridge.h"
#include "EvDebug.h"
#include "FxUtil.h"
#include "VMInfoStructs.h"

struct VmdkHandle;

namespace AliCloudDiskInfo {

// Disk states.
enum : std::uint32_t {
    DISK_STATE_NEW = 0,         // constructed
    DISK_STATE_REGISTERED = 1,  // registered, not attached
    DISK_STATE_OPEN = 2,        // attached to the proxy
    DISK_STATE_CLOSED = 3,      // detached after having been open
};

struct DiskHandle {
    std::uint32_t state = DISK_STATE_NEW;
    std::string diskName;
    std::string diskId;            // lookup key within the instance
    std::uint64_t diskSize = 0;    // copied from the disk record at registration (GiB)
    std::int32_t formatCode = 0;   // copied from the disk record at registration
    bool forRestore = false;       // registered for restore (true) or backup (false)
    VMInfoStructs::SDisk disk;     // full copy; devicePath/mappedDevice cleared when detached
};

struct VMHandle {
    std::string name;
    std::string guid;  // lookup key
    std::string hostName;
    std::string regionId;
    std::vector<DiskHandle*> disks;  // owned, in registration order
};

}  // namespace AliCloudDiskInfo

class CAliCloudDiskInfo {
public:
    // `bridge` is not owned and must outlive the registry.
    explicit CAliCloudDiskInfo(AliCloudSDKCppBridge::CAliCloudSDKCppBridge* bridge);
    // Frees the instances still listed and their disk handles (a job that failed before its
    // unmount leaves them listed); nothing is detached here.
    virtual ~CAliCloudDiskInfo();
    CAliCloudDiskInfo(const CAliCloudDiskInfo&) = delete;
    CAliCloudDiskInfo& operator=(const CAliCloudDiskInfo&) = delete;

    bool Initialize(const VMInfoStructs::SVMInfo& proxyVMInfo);
    bool Connect(const VMInfoStructs::SVMInfo& vmInfo);
    bool Disconnect(const VMInfoStructs::SVMInfo& vmInfo);
    bool RegisterDisk(const std::string& vmGuid, const VMInfoStructs::SDisk& disk, bool forRestore);
    bool UpdateDisk(const VMInfoStructs::SVMInfo& vmInfo, const VMInfoStructs::SDisk& disk);
    // Attaches a registered disk to the proxy; `maxLimitReached` reports a full proxy.
    bool ConnectDisk(const VMInfoStructs::SVMInfo& vmInfo, VMInfoStructs::SDisk& disk, bool& maxLimitReached);
    bool CloseDisk(const std::string& vmGuid, const std::string& diskId);
    bool GetDiskHandle(const std::string& vmName, const std::string& vmGuid, const std::string& diskId,
                       VmdkHandle& handle);
    bool GetDiskInfo(const VmdkHandle& handle, VMInfoStructs::SDisk& disk, bool& forRestore);
    bool GetVMInfo(const VmdkHandle& handle, const std::string& vmGuid, VMInfoStructs::SVMInfo& vmInfo);
    AliCloudDiskInfo::VMHandle* FindVMHandle(const std::string& guid);
    AliCloudDiskInfo::DiskHandle* FindVMDiskHandle(AliCloudDiskInfo::VMHandle* vmHandle, const std::string& diskId);

private:
    bool _CloseDisk(AliCloudDiskInfo::VMHandle* vmHandle, AliCloudDiskInfo::DiskHandle* diskHandle);
    bool _DisconnectDisk(AliCloudDiskInfo::VMHandle* vmHandle, AliCloudDiskInfo::DiskHandle* diskHandle);

    EvDebug logger;
    AliCloudSDKCppBridge::CAliCloudSDKCppBridge* bridge;
    VMInfoStructs::SVMInfo proxyVMInfo;
    std::vector<AliCloudDiskInfo::VMHandle*> vmHandles;  // owned, in insertion order
    HxCriticalSection lock;
};

// The framework's device layer asks what a handle stands for. False when the handle has
// no disk. Exported from the plug-in library.
extern "C++" __attribute__((visibility("default"))) bool GetDiskInfo(const VmdkHandle& handle,
                                                                      VMInfoStructs::SDisk& disk, bool& forRestore);
