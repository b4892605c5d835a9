// CAliCloudInfo: the Alibaba Cloud ECS plug-in object the framework drives.
//
// It turns each framework request (connect, browse, list and look up instances, mount an
// instance for backup, open its disks, restore an instance, clean up after a job) into ECS
// operations through the cloud bridge it owns. Every cloud object a job creates is recorded
// with the framework's persistent cleaner so that a later run can remove what an interrupted
// job left behind.
//
// Results: framework entry points return int 1/0, internal operations bool; a failed entry
// point leaves its reason in the last VM error. Nothing throws across this interface.
// Threads: one job thread per object; the object starts no thread of its own.
#pragma once

#include <string>
#include <vector>

#include "AliCloudCleaner.h"
#include "AliCloudDiskInfo.h"
#include "AliCloudSDKCppBridge.h"
#include "DiskMapper.h"
#include "EvDebug.h"
#include "VMInfo.h"

// The two views the browse tree offers.
enum AliCloudViewType { ALICLOUD_REGION_VIEW = 0, ALICLOUD_INSTANCE_VIEW = 1 };

// Name of the instance configuration file: "<instance id>_" + this, in the mount directory.
#define ALICLOUD_VM_CONFIG_FILE "InstanceConfig.json"

// Request flag bits the plug-in sets for the bridge.
constexpr UINT64 ALICLOUD_FLAG_WANT_INSTANCES = 0x20000000ULL;        // bit 29: fill vmList
constexpr UINT64 ALICLOUD_FLAG_WANT_ZONES = 0x0020000000000000ULL;    // bit 53: fill hostList

class CAliCloudInfo : public CVMInfo {
public:
    explicit CAliCloudInfo(VirtualServerInstanceType type);
    ~CAliCloudInfo() override;
    CAliCloudInfo(const CAliCloudInfo&) = delete;
    CAliCloudInfo& operator=(const CAliCloudInfo&) = delete;

    // ---- Session ----
    int Init() override;
    int DeInit() override;
    int Connect(const string& server, const string& user, const string& password) override;
    int Disconnect() override;
    int GetFileMountInfo(const MountCtx& ctx, vector<SMountInfoFile>& out) override;
    int CollectMetadata(const MountCtx& ctx) override;

    // ---- Region and zone caches ----
    int _RefreshDCInfoCache(UINT64 flags, int value) override;
    int _RefreshHostInfoCache(UINT64 flags, int value) override;
    int GetInventoryInfoList(vector<SInventoryInfo>& out, UINT64 flags, int value) override;
    int GetDCInfoForDC(const string& regionId, UINT64 flags, UINT64 value, SDataCenterInfo& out);
    int GetHostInfoForHost(const string& zoneId, UINT64 flags, int value, SHostInfo& out) override;
    int GetHostInfoForHost(const string& zoneId, UINT64 flags, int value, SHostInfo& out, const string& regionId);

    // ---- Browsing ----
    int BrowseInventory(const string& path, const SInventoryInfo& tree, vector<SInventoryInfo>& out, UINT64 flags,
                        int value) override;
    void BrowseView(vector<SInventoryInfo>& out);
    bool LocateCurrBrowseNodeInTree(const SInventoryInfo& node, const string& name, SInventoryInfo& found,
                                    string& regionId);
    bool BrowseAliCloudView(const string& path, const SInventoryInfo& current, vector<SInventoryInfo>& out,
                            AliCloudViewType view, UINT64 flags, int value, const string& regionId);
    bool GetDataCenterListView(vector<SInventoryInfo>& out, UINT64 flags, int value);
    bool GetDataCenterView(vector<SInventoryInfo>& out, const SInventoryInfo& region, AliCloudViewType view,
                           UINT64 flags, int value);
    bool GetHostView(vector<SInventoryInfo>& out, const SInventoryInfo& zone, UINT64 flags, int value,
                     const string& regionId);
    static bool CompareInventoryInfo(const SInventoryInfo& a, const SInventoryInfo& b);
    void DecodeCombinedStr(const string& combined, string& regionId, string& zoneId);

    // ---- Instance lists and lookups ----
    int GetVMInfoList(vector<SVMInfo>& out, UINT64 flags, int value, const vector<string>* names,
                      EFilterType filter) override;
    int GetVMInfoListForRoot(UINT64 flags, int value, vector<SVMInfo>& out);
    int GetVMInfoListForDC(const string& regionId, UINT64 flags, int value, vector<SVMInfo>& out);
    int GetVMInfoListForHost(const string& zoneId, UINT64 flags, int value, vector<SVMInfo>& out);
    int GetVMInfoListForInventoryObject(const string& name, EInventoryType type, UINT64 flags, int value,
                                        vector<SVMInfo>& out) override;
    int GetVMInfoForVM(const string& first, const string& id, const string& third, UINT64 flags, int value,
                       SVMInfo& out) override;
    bool GetVMInfoAndConfigFile(const string& id, UINT64 flags, int value, SVMInfo& out, std::string& configFile);
    int GetAvailableVMSizesForHost(const string& host, vector<SVMSizeInfo>& out, UINT64 flags, int value) override;

    // ---- Proxy identity ----
    void DetectLocalUUID();
    std::string GetProxyUUID();
    bool _InitProxyInfoForBackup(const MountCtx& ctx);
    int GetLocalVMInfo(SVMInfo& out, UINT64 flags, int value) override;
    int GetLocalHostInfo(SHostInfo& out, UINT64 flags, int value) override;

    // ---- Backup: feasibility, snapshots, disks, mount ----
    bool _InitVMInfoForBackup(const string& vmName, const string& vmGuid, const string& hostName, SVMInfo& vmInfo,
                              std::string& configText);
    bool IsBackupFeasible(const MountCtx& ctx) override;
    bool DoesOSDiskExist(const vector<SDisk>& disks);
    bool TakeSnapshots(const MountCtx& ctx);
    bool _WaitForSnapshots(const vector<SDisk>& disks);
    bool CreateDisksFromSnapshots(const string& instanceId, vector<SDisk>& disks, VM_Cleaner_Mode mode, bool& flag);
    int _AttachDiskToProxy(const SVMInfo& vmInfo, SDisk& disk, bool makeWriteable);
    bool _AttachDisksToProxy(vector<SDisk>& disks, bool makeWriteable, bool bringOffline);
    int MountVM(const MountCtx& ctx) override;
    bool _MountVM(const MountCtx& ctx, const string& configText);
    bool _InitMount();

    // ---- Mount information and configuration file ----
    int GetFullMountInfo(const MountCtx& ctx, vector<SMountInfoFull>& out) override;
    int GetFullMountInfoDisks(const MountCtx& ctx, vector<SMountInfoFull>& out);
    int GetFullMountInfoConfigFiles(const MountCtx& ctx, vector<SMountInfoFull>& out);
    bool SaveVMConfigFile(const string& mountPath, const string& instanceId, const string& configText);
    bool DeleteVMConfigFile(const MountCtx& ctx);

    // ---- Unmount and teardown ----
    int UnmountVM(const MountCtx& ctx) override;
    int CleanupVM(const MountCtx& ctx) override;
    bool _UnMountVM(const MountCtx& ctx);
    bool DetachDisks_DiskInfo(const string& instanceId, const vector<SDisk>& disks);
    bool DetachDisks_BridgeObj(const string& instanceId, const vector<SDisk>& disks);
    // `instanceId` is the VM entity's cleaner path: unregistration goes through it.
    bool DeleteDisks(const string& instanceId, const vector<SDisk>& disks);
    bool DeleteSnapshots(const string& instanceId, const vector<string>& snapshotIds);
    bool _CleanUpSnapshots(const string& instanceId);

    // ---- Disk access ----
    bool InitDiskInfo(const MountCtx& ctx);
    bool ConnectDiskInfo(const MountCtx& ctx);
    int OpenVmdk(const string& vmName, const string& vmGuid, const string& diskId, VmdkHandle& handle) override;
    bool _OpenVmdk(const SVMInfo& vmInfo, SDisk& disk, bool forRestore);
    int GetVmdkInfo(const VmdkHandle& handle, SDisk& disk) override;
    int CloseVmdk(const VmdkHandle& handle) override;

    // ---- Restore ----
    int InitRestoreVM(const RestoreCtx& ctx) override;
    bool CheckFeasibility(const RestoreCtx& ctx);
    int InitRestoreVM_AliCloudVMAsProxy(const RestoreCtx& ctx);
    bool RegisterCleanerForRestore(const RestoreCtx& ctx);
    int PreRestoreVM(const RestoreCtx& ctx) override;
    bool PrepareRestoreCtxVMInfo(const RestoreCtx& ctx);
    bool PrepareRestoreCtxVMInfoBasic(const RestoreCtx& ctx);
    // The first disk whose isOSDisk is set, as a pointer into `disks` so writes reach it.
    bool FindOSDisk(vector<SDisk>& disks, SDisk*& osDisk);
    bool FindVMConfigFile(const RestoreCtx& ctx);
    bool ReadConfigFile(const RestoreCtx& ctx);
    bool PrepareRestoreCtxVMInfoFromConfigFile(const RestoreCtx& ctx);
    bool _CreateEmptyDisks(const string& vmId, vector<SDisk>& disks, const VM_Cleaner_Mode& mode);
    bool _CreateSnapshots(const string& vmId, vector<SDisk>& disks, VM_Cleaner_Mode mode);
    int RestoreVM(const RestoreCtx& ctx) override;
    int RestoreVirtualMachine(const RestoreCtx& ctx);
    bool ParseGuestOSString(const string& guestOS, std::string& osName, std::string& architecture);
    bool CreateImage(const RestoreCtx& ctx, std::string& imageId, const string& osName, const string& architecture);
    bool HandleOverwriteOption(const RestoreCtx& ctx);
    bool WaitForInstanceState(const string& instanceId, const string& state);
    void AttachDataDisksToRestoredVM(const RestoreCtx& ctx);
    bool AddPeripheralComponents(const RestoreCtx& ctx);
    int PostRestoreVM(const RestoreCtx& ctx) override;
    int CleanupRestoreVM(const RestoreCtx& ctx) override;

    // ---- Orphan cleanup ----
    bool _CleanupAllVMs(VM_Cleaner_Mode mode);
    bool _CleanupMountedVM(VM_Cleaner_Mode mode, const string& vmGuid, bool orphansOnly, bool unregisterVM,
                           bool detachThroughDiskInfo);
    bool _CleanUpMountedDisks(const string& vmCleanerPath, bool deleteDisks, bool detachThroughDiskInfo,
                              const string& vmGuid);
    bool _CleanupImages(VM_Cleaner_Mode mode, const string& vmGuid, bool orphansOnly);
    bool _CleanupRestoreVM(std::string vmId, bool orphansOnly, bool detachThroughDiskInfo);
    bool RegisterCleanerForBackup(const MountCtx& ctx);

protected:
    // Own members, in this order.
    AliCloudSDKCppBridge::CAliCloudSDKCppBridge* bridge;  // owned; every cloud call goes through it
    EvDebug log;                       // logging context; source of the job id
    long long jobId;                   // job id of the running job (set by Init; -123456 becomes 0)
    bool localIdDetected;              // the proxy's own instance id has been detected
    std::string localInstanceId;       // the proxy's own ECS instance id (cached per object)
    SVMInfo proxyVMInfo;               // the proxy's description (region = region of all job objects)
    CDiskMapper* diskMapper;           // owned; proxy-side block-device mapper
    CAliCloudDiskInfo* diskInfo;       // owned; disk handle registry, created by the first mount
    std::string vmConfigFileContent;   // whole text of the restored instance's configuration file
    CAliCloudCleaner cleaner;          // registry of created cloud objects
    bool backupOrphansCleaned;         // the one-time orphan sweep of this object has run
};
