// The log tags the framework's log readers see: the full signature of each writing function,
// with standard strings written "string" or "std::string" as in the declarations.
// Written out here rather than taken from the plug-in's own constants, so that a misspelt
// constant fails the tests instead of agreeing with itself.
#pragma once

namespace expected_tags {

inline constexpr const char kCreateAliCloudInfoObject[] =
    "int CreateAliCloudInfoObject(VirtualServerInstanceType, IVMInfo**)";
inline constexpr const char k_AttachDisksToProxy[] =
    "bool CAliCloudInfo::_AttachDisksToProxy(std::vector<VMInfoStructs::SDisk>&, bool, bool)";
inline constexpr const char k_CleanupAllVMs[] = "bool CAliCloudInfo::_CleanupAllVMs(VM_Cleaner_Mode)";
inline constexpr const char k_CleanupRestoreVM[] = "bool CAliCloudInfo::_CleanupRestoreVM(std::string, bool, bool)";
inline constexpr const char k_CreateEmptyDisks[] =
    "bool CAliCloudInfo::_CreateEmptyDisks(const string&, std::vector<VMInfoStructs::SDisk>&, const VM_Cleaner_Mode&)";
inline constexpr const char k_InitProxyInfoForBackup[] = "bool CAliCloudInfo::_InitProxyInfoForBackup(const MountCtx&)";
inline constexpr const char k_MountVM[] = "bool CAliCloudInfo::_MountVM(const MountCtx&, const string&)";
inline constexpr const char k_OpenVmdk[] =
    "bool CAliCloudInfo::_OpenVmdk(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool)";
inline constexpr const char k_RefreshDCInfoCache[] = "virtual int CAliCloudInfo::_RefreshDCInfoCache(UINT64, int)";
inline constexpr const char k_RefreshHostInfoCache[] = "virtual int CAliCloudInfo::_RefreshHostInfoCache(UINT64, int)";
inline constexpr const char kAddPeripheralComponents[] =
    "bool CAliCloudInfo::AddPeripheralComponents(const RestoreCtx&)";
inline constexpr const char kAttachDataDisksToRestoredVM[] =
    "void CAliCloudInfo::AttachDataDisksToRestoredVM(const RestoreCtx&)";
inline constexpr const char kBrowseInventory[] =
    "virtual int CAliCloudInfo::BrowseInventory(const string&, const VMInfoStructs::SInventoryInfo&, std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kCheckFeasibility[] = "bool CAliCloudInfo::CheckFeasibility(const RestoreCtx&)";
inline constexpr const char kCleanupRestoreVM[] = "virtual int CAliCloudInfo::CleanupRestoreVM(const RestoreCtx&)";
inline constexpr const char kCleanupVM[] = "virtual int CAliCloudInfo::CleanupVM(const MountCtx&)";
inline constexpr const char kCloseVmdk[] = "virtual int CAliCloudInfo::CloseVmdk(const VmdkHandle&)";
inline constexpr const char kConnect[] =
    "virtual int CAliCloudInfo::Connect(const string&, const string&, const string&)";
inline constexpr const char kCreateDisksFromSnapshots[] =
    "bool CAliCloudInfo::CreateDisksFromSnapshots(const string&, std::vector<VMInfoStructs::SDisk>&, VM_Cleaner_Mode, bool&)";
inline constexpr const char kCreateImage[] =
    "bool CAliCloudInfo::CreateImage(const RestoreCtx&, std::string&, const string&, const string&)";
inline constexpr const char kDecodeCombinedStr[] =
    "void CAliCloudInfo::DecodeCombinedStr(const string&, std::string&, std::string&)";
inline constexpr const char kDeleteDisks[] =
    "bool CAliCloudInfo::DeleteDisks(const string&, const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kDeleteSnapshots[] =
    "bool CAliCloudInfo::DeleteSnapshots(const string&, const std::vector<std::string>&)";
inline constexpr const char kDetectLocalUUID[] = "void CAliCloudInfo::DetectLocalUUID()";
inline constexpr const char kFindVMConfigFile[] = "bool CAliCloudInfo::FindVMConfigFile(const RestoreCtx&)";
inline constexpr const char kGetAvailableVMSizesForHost[] =
    "virtual int CAliCloudInfo::GetAvailableVMSizesForHost(const string&, std::vector<VMInfoStructs::SVMSizeInfo>&, UINT64, int)";
inline constexpr const char kGetDataCenterListView[] =
    "bool CAliCloudInfo::GetDataCenterListView(std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kGetDataCenterView[] =
    "bool CAliCloudInfo::GetDataCenterView(std::vector<VMInfoStructs::SInventoryInfo>&, const VMInfoStructs::SInventoryInfo&, AliCloudViewType, UINT64, int)";
inline constexpr const char kGetDCInfoForDC[] =
    "int CAliCloudInfo::GetDCInfoForDC(const string&, UINT64, UINT64, VMInfoStructs::SDataCenterInfo&)";
inline constexpr const char kGetFullMountInfoConfigFiles[] =
    "int CAliCloudInfo::GetFullMountInfoConfigFiles(const MountCtx&, std::vector<VMInfoStructs::SMountInfoFull>&)";
inline constexpr const char kGetHostInfoForHost[] =
    "virtual int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, VMInfoStructs::SHostInfo&)";
inline constexpr const char kGetHostInfoForHostWithRegion[] =
    "int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, VMInfoStructs::SHostInfo&, const string&)";
inline constexpr const char kGetHostView[] =
    "bool CAliCloudInfo::GetHostView(std::vector<VMInfoStructs::SInventoryInfo>&, const VMInfoStructs::SInventoryInfo&, UINT64, int, const string&)";
inline constexpr const char kGetInventoryInfoList[] =
    "virtual int CAliCloudInfo::GetInventoryInfoList(std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kGetVmdkInfo[] =
    "virtual int CAliCloudInfo::GetVmdkInfo(const VmdkHandle&, VMInfoStructs::SDisk&)";
inline constexpr const char kGetVMInfoAndConfigFile[] =
    "bool CAliCloudInfo::GetVMInfoAndConfigFile(const string&, UINT64, int, VMInfoStructs::SVMInfo&, std::string&)";
inline constexpr const char kGetVMInfoForVM[] =
    "virtual int CAliCloudInfo::GetVMInfoForVM(const string&, const string&, const string&, UINT64, int, VMInfoStructs::SVMInfo&)";
inline constexpr const char kGetVMInfoListForDC[] =
    "int CAliCloudInfo::GetVMInfoListForDC(const string&, UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kGetVMInfoListForHost[] =
    "int CAliCloudInfo::GetVMInfoListForHost(const string&, UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kGetVMInfoListForRoot[] =
    "int CAliCloudInfo::GetVMInfoListForRoot(UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kHandleOverwriteOption[] = "bool CAliCloudInfo::HandleOverwriteOption(const RestoreCtx&)";
inline constexpr const char kInit[] = "virtual int CAliCloudInfo::Init()";
inline constexpr const char kInitDiskInfo[] = "bool CAliCloudInfo::InitDiskInfo(const MountCtx&)";
inline constexpr const char kInitRestoreVM[] = "virtual int CAliCloudInfo::InitRestoreVM(const RestoreCtx&)";
inline constexpr const char kInitRestoreVM_AliCloudVMAsProxy[] =
    "int CAliCloudInfo::InitRestoreVM_AliCloudVMAsProxy(const RestoreCtx&)";
inline constexpr const char kMountVM[] = "virtual int CAliCloudInfo::MountVM(const MountCtx&)";
inline constexpr const char kOpenVmdk[] =
    "virtual int CAliCloudInfo::OpenVmdk(const string&, const string&, const string&, VmdkHandle&)";
inline constexpr const char kPostRestoreVM[] = "virtual int CAliCloudInfo::PostRestoreVM(const RestoreCtx&)";
inline constexpr const char kPrepareRestoreCtxVMInfoFromConfigFile[] =
    "bool CAliCloudInfo::PrepareRestoreCtxVMInfoFromConfigFile(const RestoreCtx&)";
inline constexpr const char kPreRestoreVM[] = "virtual int CAliCloudInfo::PreRestoreVM(const RestoreCtx&)";
inline constexpr const char kReadConfigFile[] = "bool CAliCloudInfo::ReadConfigFile(const RestoreCtx&)";
inline constexpr const char kRegisterCleanerForBackup[] =
    "bool CAliCloudInfo::RegisterCleanerForBackup(const MountCtx&)";
inline constexpr const char kRegisterCleanerForRestore[] =
    "bool CAliCloudInfo::RegisterCleanerForRestore(const RestoreCtx&)";
inline constexpr const char kRestoreVirtualMachine[] = "int CAliCloudInfo::RestoreVirtualMachine(const RestoreCtx&)";
inline constexpr const char kRestoreVM[] = "virtual int CAliCloudInfo::RestoreVM(const RestoreCtx&)";
inline constexpr const char kTakeSnapshots[] = "bool CAliCloudInfo::TakeSnapshots(const MountCtx&)";
inline constexpr const char kUnmountVM[] = "virtual int CAliCloudInfo::UnmountVM(const MountCtx&)";
inline constexpr const char kDiskInfo_DisconnectDisk[] =
    "bool CAliCloudDiskInfo::_DisconnectDisk(AliCloudDiskInfo::VMHandle*, AliCloudDiskInfo::DiskHandle*)";
inline constexpr const char kDiskInfoCloseDisk[] = "bool CAliCloudDiskInfo::CloseDisk(const string&, const string&)";
inline constexpr const char kDiskInfoConnectDisk[] =
    "bool CAliCloudDiskInfo::ConnectDisk(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool&)";
inline constexpr const char kDiskInfoDisconnect[] = "bool CAliCloudDiskInfo::Disconnect(const VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoGetDiskHandle[] =
    "bool CAliCloudDiskInfo::GetDiskHandle(const string&, const string&, const string&, VmdkHandle&)";
inline constexpr const char kDiskInfoGetDiskInfo[] =
    "bool CAliCloudDiskInfo::GetDiskInfo(const VmdkHandle&, VMInfoStructs::SDisk&, bool&)";
inline constexpr const char kDiskInfoGetVMInfo[] =
    "bool CAliCloudDiskInfo::GetVMInfo(const VmdkHandle&, const string&, VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoRegisterDisk[] =
    "bool CAliCloudDiskInfo::RegisterDisk(const string&, const VMInfoStructs::SDisk&, bool)";

}  // namespace expected_tags
