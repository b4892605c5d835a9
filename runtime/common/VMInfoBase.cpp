// CVMInfo: default operations and the environment-free services. The job-control services
// (IsJobCancelled, _PrepareMountPathDirectory) belong to the deployment and are defined
// by the runtime (or by the test fakes).
#include <algorithm>

#include "FxUtil.h"
#include "Glob.h"
#include "VMInfo.h"

CVMInfo::CVMInfo(VirtualServerInstanceType type) : instanceType_(type) {}
CVMInfo::~CVMInfo() = default;

int CVMInfo::Connect(const string&, const string&, const string&) { return 0; }
int CVMInfo::Connect(const string& server, const string& user, const string& pass, const string&) {
    return Connect(server, user, pass);
}
int CVMInfo::Disconnect() { return 0; }
int CVMInfo::BrowseInventory(const string&, const SInventoryInfo&, vector<SInventoryInfo>&, UINT64, int) { return 0; }
int CVMInfo::GetVMInfoForVM(const string&, const string&, const string&, UINT64, int, SVMInfo&) { return 0; }
int CVMInfo::GetHostInfoForHost(const string&, UINT64, int, SHostInfo&) { return 0; }
int CVMInfo::GetVMInfoListForInventoryObject(const string&, EInventoryType, UINT64, int, vector<SVMInfo>&) { return 0; }
int CVMInfo::GetLocalHostInfo(SHostInfo&, UINT64, int) { return 0; }
int CVMInfo::GetLocalVMInfo(SVMInfo&, UINT64, int) { return 0; }
int CVMInfo::GetVMInfoList(vector<SVMInfo>&, UINT64, int, const vector<string>*, EFilterType) { return 0; }
int CVMInfo::GetInventoryInfoList(vector<SInventoryInfo>&, UINT64, int) { return 0; }
int CVMInfo::GetAvailableVMSizesForHost(const string&, vector<SVMSizeInfo>&, UINT64, int) { return 0; }
bool CVMInfo::IsBackupFeasible(const MountCtx&) { return true; }
int CVMInfo::MountVM(const MountCtx&) { return 0; }
int CVMInfo::UnmountVM(const MountCtx&) { return 0; }
int CVMInfo::CleanupVM(const MountCtx&) { return 0; }
int CVMInfo::GetFileMountInfo(const MountCtx&, vector<SMountInfoFile>&) { return 0; }
int CVMInfo::GetFullMountInfo(const MountCtx&, vector<SMountInfoFull>&) { return 0; }
int CVMInfo::CollectMetadata(const MountCtx&) { return 0; }
int CVMInfo::InitRestoreVM(const RestoreCtx&) { return 0; }
int CVMInfo::PreRestoreVM(const RestoreCtx&) { return 0; }
int CVMInfo::RestoreVM(const RestoreCtx&) { return 0; }
int CVMInfo::PostRestoreVM(const RestoreCtx&) { return 0; }
int CVMInfo::CloseRestoreVM(const RestoreCtx&) { return 1; }
int CVMInfo::CleanupRestoreVM(const RestoreCtx&) { return 0; }
int CVMInfo::OpenVmdk(const string&, const string&, const string&, VmdkHandle&) { return 0; }
int CVMInfo::CloseVmdk(const VmdkHandle&) { return 0; }
int CVMInfo::GetVmdkInfo(const VmdkHandle&, SDisk&) { return 0; }
int CVMInfo::_RefreshHostInfoCache(UINT64, int) { return 0; }
int CVMInfo::_RefreshDCInfoCache(UINT64, int) { return 0; }
int CVMInfo::Init() { return 1; }
int CVMInfo::Init(unsigned long) { return Init(); }
int CVMInfo::DeInit() { return 1; }
int CVMInfo::DeInit(bool) { return DeInit(); }

void CVMInfo::SetLastVMError(EVMInfoError code) {
    lastError_ = code;
    if (code == VMINFO_ERR_NONE) lastErrorDetails_.clear();
}

void CVMInfo::SetLastVMError(EVMInfoError code, const string& details) {
    lastError_ = code;
    lastErrorDetails_ = details;
}

void CVMInfo::SetLastVMErrorDetails(const string& details) { lastErrorDetails_ = details; }

vector<SVMInfo> CVMInfo::_FilterVMInfoList(const vector<SVMInfo>& list, const vector<string>& names,
                                           EFilterType filter) {
    if (filter == FILTER_NONE) return list;
    const bool byPattern = filter == FILTER_INCLUDE_PATTERN || filter == FILTER_EXCLUDE_PATTERN;
    const bool include = filter == FILTER_INCLUDE_NAMES || filter == FILTER_INCLUDE_PATTERN;
    auto selected = [&](const SVMInfo& vm) {
        return std::any_of(names.begin(), names.end(), [&](const string& n) {
            if (byPattern) return hxcommon::GlobMatch(n, vm.name, true);
            return FXString::CompareNoCase(n, vm.name) == 0 || FXString::CompareNoCase(n, vm.guid) == 0;
        });
    };
    vector<SVMInfo> out;
    for (const auto& vm : list)
        if (selected(vm) == include) out.push_back(vm);
    return out;
}

bool CVMInfo::IsDiskFiltered(const MountCtx& ctx, const SDisk& disk) {
    return std::any_of(ctx.excludedDisks.begin(), ctx.excludedDisks.end(), [&](const string& f) {
        return hxcommon::GlobMatch(f, disk.diskId, true) || (!disk.diskName.empty() && hxcommon::GlobMatch(f, disk.diskName, true));
    });
}
