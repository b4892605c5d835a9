// The framework's hypervisor plug-in interface: IVMInfo (what a factory hands out) and
// CVMInfo (the base class every plug-in derives from, with default operations and the
// framework services a plug-in uses).
//
// Results: operations return int 1 for success and 0 for failure; on failure the reason is
// the last VM error (GetLastVMError / GetLastVMErrorDetails). No operation throws.
#pragma once

#include <string>
#include <vector>

#include "EvDebug.h"
#include "VMInfoStructs.h"

using std::string;
using std::vector;
using namespace VMInfoStructs;

// The kind of virtual server a plug-in handles; handed to the factory and kept by CVMInfo.
enum VirtualServerInstanceType : std::uint32_t {
    VSI_TYPE_UNKNOWN = 0,
    VSI_TYPE_ALIBABA_CLOUD_ECS = 12,
};

// What a plug-in factory hands out. Every IVMInfo handed out by a plug-in factory is a
// CVMInfo; the framework reaches the operations through that class.
class IVMInfo {
public:
    virtual ~IVMInfo() = default;
};

class CVMInfo : public IVMInfo {
public:
    explicit CVMInfo(VirtualServerInstanceType type);
    ~CVMInfo() override;

    // ---- Operations, in the order of the framework's table. Defaults fail (0) unless said. ----
    virtual int Connect(const string& server, const string& user, const string& password);
    virtual int Connect(const string& server, const string& user, const string& password, const string& extra);
    virtual int Disconnect();
    virtual int BrowseInventory(const string& path, const SInventoryInfo& tree, vector<SInventoryInfo>& out,
                                UINT64 flags, int value);
    virtual int GetVMInfoForVM(const string& first, const string& id, const string& third, UINT64 flags, int value,
                               SVMInfo& out);
    virtual int GetHostInfoForHost(const string& zoneId, UINT64 flags, int value, SHostInfo& out);
    virtual int GetVMInfoListForInventoryObject(const string& name, EInventoryType type, UINT64 flags, int value,
                                                vector<SVMInfo>& out);
    virtual int GetLocalHostInfo(SHostInfo& out, UINT64 flags, int value);
    virtual int GetLocalVMInfo(SVMInfo& out, UINT64 flags, int value);
    virtual int GetVMInfoList(vector<SVMInfo>& out, UINT64 flags, int value, const vector<string>* names,
                              EFilterType filter);
    virtual int GetInventoryInfoList(vector<SInventoryInfo>& out, UINT64 flags, int value);
    virtual int GetAvailableVMSizesForHost(const string& host, vector<SVMSizeInfo>& out, UINT64 flags, int value);
    virtual bool IsBackupFeasible(const MountCtx& ctx);  // default: true
    virtual int MountVM(const MountCtx& ctx);
    virtual int UnmountVM(const MountCtx& ctx);
    virtual int CleanupVM(const MountCtx& ctx);
    virtual int GetFileMountInfo(const MountCtx& ctx, vector<SMountInfoFile>& out);
    virtual int GetFullMountInfo(const MountCtx& ctx, vector<SMountInfoFull>& out);
    virtual int CollectMetadata(const MountCtx& ctx);
    virtual int InitRestoreVM(const RestoreCtx& ctx);
    virtual int PreRestoreVM(const RestoreCtx& ctx);
    virtual int RestoreVM(const RestoreCtx& ctx);
    virtual int PostRestoreVM(const RestoreCtx& ctx);
    virtual int CloseRestoreVM(const RestoreCtx& ctx);  // default: 1
    virtual int CleanupRestoreVM(const RestoreCtx& ctx);
    virtual int OpenVmdk(const string& vmName, const string& vmGuid, const string& diskId, VmdkHandle& handle);
    virtual int CloseVmdk(const VmdkHandle& handle);
    virtual int GetVmdkInfo(const VmdkHandle& handle, SDisk& disk);
    virtual int _RefreshHostInfoCache(UINT64 flags, int value);
    virtual int _RefreshDCInfoCache(UINT64 flags, int value);
    virtual int Init();                       // default: 1
    virtual int Init(unsigned long options);  // default: Init()
    virtual int DeInit();                     // default: 1
    virtual int DeInit(bool force);           // default: DeInit()

    // ---- Last error ----
    // Sets the code reported for the failed operation (0 clears it and its details).
    virtual void SetLastVMError(EVMInfoError code);
    // Sets the code and its detail text.
    virtual void SetLastVMError(EVMInfoError code, const string& details);
    // Attaches a text to the code already set.
    virtual void SetLastVMErrorDetails(const string& details);
    EVMInfoError GetLastVMError() const { return lastError_; }
    const string& GetLastVMErrorDetails() const { return lastErrorDetails_; }

    // ---- Job services ----
    // True once the running job has been told to stop.
    bool IsJobCancelled();
    // The instances of `list` that the names select under `filter` (see EFilterType).
    static vector<SVMInfo> _FilterVMInfoList(const vector<SVMInfo>& list, const vector<string>& names,
                                             EFilterType filter);
    // Whether the job's filters (ctx.excludedDisks) exclude `disk`.
    static bool IsDiskFiltered(const MountCtx& ctx, const SDisk& disk);
    // Makes sure the mount directory exists (created with owner-only permissions when
    // `create` is set and it is missing). Returns 1 when it is ready, 0 otherwise.
    int _PrepareMountPathDirectory(const string& path, bool create);

    VirtualServerInstanceType GetInstanceType() const { return instanceType_; }

protected:
    vector<SDataCenterInfo> dcInfoCache;  // one record per region
    vector<SHostInfo> hostInfoCache;      // one record per zone
    string userName;                      // AccessKey id given to Connect
    string password;                      // AccessKey secret given to Connect; never logged

private:
    VirtualServerInstanceType instanceType_;
    EVMInfoError lastError_ = VMINFO_ERR_NONE;
    string lastErrorDetails_;
};

// The factory every plug-in library exports under its own name, e.g.
// extern "C" int CreateAliCloudInfoObject(VirtualServerInstanceType, IVMInfo**).
typedef int (*CreateVMInfoObjectFn)(VirtualServerInstanceType type, IVMInfo** out);
