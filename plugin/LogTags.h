// Log tags: the full signature of each writing function, as one text on every compiler.
// (Compilers spell function signatures differently, so the tags are written out here.)
#pragma once

namespace AliCloudLogTags {

inline constexpr const char kCreateAliCloudInfoObject[] = "int CreateAliCloudInfoObject(VirtualServerInstanceType, IVMInfo**)";

// CAliCloudInfo
inline constexpr const char k_AttachDisksToProxy[] =
    "bool CAliCloudInfo::_AttachDisksToProxy(std::vector<VMInfoStructs::SDisk>&, bool, bool)";
inline constexpr const char k_AttachDiskToProxy[] =
    "int CAliCloudInfo::_AttachDiskToProxy(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool)";
inline constexpr const char k_CleanupAllVMs[] =
    "bool CAliCloudInfo::_CleanupAllVMs(VM_Cleaner_Mode)";
inline constexpr const char k_CleanupImages[] =
    "bool CAliCloudInfo::_CleanupImages(VM_Cleaner_Mode, const string&, bool)";
inline constexpr const char k_CleanUpMountedDisks[] =
    "bool CAliCloudInfo::_CleanUpMountedDisks(const string&, bool, bool, const string&)";
inline constexpr const char k_CleanupMountedVM[] =
    "bool CAliCloudInfo::_CleanupMountedVM(VM_Cleaner_Mode, const string&, bool, bool, bool)";
inline constexpr const char k_CleanupRestoreVM[] =
    "bool CAliCloudInfo::_CleanupRestoreVM(std::string, bool, bool)";
inline constexpr const char k_CleanUpSnapshots[] =
    "bool CAliCloudInfo::_CleanUpSnapshots(const string&)";
inline constexpr const char k_CreateEmptyDisks[] =
    "bool CAliCloudInfo::_CreateEmptyDisks(const string&, std::vector<VMInfoStructs::SDisk>&, const VM_Cleaner_Mode&)";
inline constexpr const char k_CreateSnapshots[] =
    "bool CAliCloudInfo::_CreateSnapshots(const string&, std::vector<VMInfoStructs::SDisk>&, VM_Cleaner_Mode)";
inline constexpr const char k_InitMount[] =
    "bool CAliCloudInfo::_InitMount()";
inline constexpr const char k_InitProxyInfoForBackup[] =
    "bool CAliCloudInfo::_InitProxyInfoForBackup(const MountCtx&)";
inline constexpr const char k_InitVMInfoForBackup[] =
    "bool CAliCloudInfo::_InitVMInfoForBackup(const string&, const string&, const string&, VMInfoStructs::SVMInfo&, std::string&)";
inline constexpr const char k_MountVM[] =
    "bool CAliCloudInfo::_MountVM(const MountCtx&, const string&)";
inline constexpr const char k_OpenVmdk[] =
    "bool CAliCloudInfo::_OpenVmdk(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool)";
inline constexpr const char k_RefreshDCInfoCache[] =
    "virtual int CAliCloudInfo::_RefreshDCInfoCache(UINT64, int)";
inline constexpr const char k_RefreshHostInfoCache[] =
    "virtual int CAliCloudInfo::_RefreshHostInfoCache(UINT64, int)";
inline constexpr const char k_UnMountVM[] =
    "bool CAliCloudInfo::_UnMountVM(const MountCtx&)";
inline constexpr const char k_WaitForSnapshots[] =
    "bool CAliCloudInfo::_WaitForSnapshots(const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kAddPeripheralComponents[] =
    "bool CAliCloudInfo::AddPeripheralComponents(const RestoreCtx&)";
inline constexpr const char kAttachDataDisksToRestoredVM[] =
    "void CAliCloudInfo::AttachDataDisksToRestoredVM(const RestoreCtx&)";
inline constexpr const char kBrowseAliCloudView[] =
    "bool CAliCloudInfo::BrowseAliCloudView(const string&, const VMInfoStructs::SInventoryInfo&, std::vector<VMInfoStructs::SInventoryInfo>&, AliCloudViewType, UINT64, int, const string&)";
inline constexpr const char kBrowseInventory[] =
    "virtual int CAliCloudInfo::BrowseInventory(const string&, const VMInfoStructs::SInventoryInfo&, std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kBrowseView[] =
    "void CAliCloudInfo::BrowseView(std::vector<VMInfoStructs::SInventoryInfo>&)";
inline constexpr const char kCheckFeasibility[] =
    "bool CAliCloudInfo::CheckFeasibility(const RestoreCtx&)";
inline constexpr const char kCleanupRestoreVM[] =
    "virtual int CAliCloudInfo::CleanupRestoreVM(const RestoreCtx&)";
inline constexpr const char kCleanupVM[] =
    "virtual int CAliCloudInfo::CleanupVM(const MountCtx&)";
inline constexpr const char kCloseVmdk[] =
    "virtual int CAliCloudInfo::CloseVmdk(const VmdkHandle&)";
inline constexpr const char kCollectMetadata[] =
    "virtual int CAliCloudInfo::CollectMetadata(const MountCtx&)";
inline constexpr const char kCompareInventoryInfo[] =
    "static bool CAliCloudInfo::CompareInventoryInfo(const VMInfoStructs::SInventoryInfo&, const VMInfoStructs::SInventoryInfo&)";
inline constexpr const char kConnect[] =
    "virtual int CAliCloudInfo::Connect(const string&, const string&, const string&)";
inline constexpr const char kConnectDiskInfo[] =
    "bool CAliCloudInfo::ConnectDiskInfo(const MountCtx&)";
inline constexpr const char kCreateDisksFromSnapshots[] =
    "bool CAliCloudInfo::CreateDisksFromSnapshots(const string&, std::vector<VMInfoStructs::SDisk>&, VM_Cleaner_Mode, bool&)";
inline constexpr const char kCreateImage[] =
    "bool CAliCloudInfo::CreateImage(const RestoreCtx&, std::string&, const string&, const string&)";
inline constexpr const char kDecodeCombinedStr[] =
    "void CAliCloudInfo::DecodeCombinedStr(const string&, std::string&, std::string&)";
inline constexpr const char kDeInit[] =
    "virtual int CAliCloudInfo::DeInit()";
inline constexpr const char kDeleteDisks[] =
    "bool CAliCloudInfo::DeleteDisks(const string&, const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kDeleteSnapshots[] =
    "bool CAliCloudInfo::DeleteSnapshots(const string&, const std::vector<std::string>&)";
inline constexpr const char kDeleteVMConfigFile[] =
    "bool CAliCloudInfo::DeleteVMConfigFile(const MountCtx&)";
inline constexpr const char kDetachDisks_BridgeObj[] =
    "bool CAliCloudInfo::DetachDisks_BridgeObj(const string&, const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kDetachDisks_DiskInfo[] =
    "bool CAliCloudInfo::DetachDisks_DiskInfo(const string&, const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kDetectLocalUUID[] =
    "void CAliCloudInfo::DetectLocalUUID()";
inline constexpr const char kDisconnect[] =
    "virtual int CAliCloudInfo::Disconnect()";
inline constexpr const char kDoesOSDiskExist[] =
    "bool CAliCloudInfo::DoesOSDiskExist(const std::vector<VMInfoStructs::SDisk>&)";
inline constexpr const char kFindOSDisk[] =
    "bool CAliCloudInfo::FindOSDisk(std::vector<VMInfoStructs::SDisk>&, VMInfoStructs::SDisk*&)";
inline constexpr const char kFindVMConfigFile[] =
    "bool CAliCloudInfo::FindVMConfigFile(const RestoreCtx&)";
inline constexpr const char kGetAvailableVMSizesForHost[] =
    "virtual int CAliCloudInfo::GetAvailableVMSizesForHost(const string&, std::vector<VMInfoStructs::SVMSizeInfo>&, UINT64, int)";
inline constexpr const char kGetDataCenterListView[] =
    "bool CAliCloudInfo::GetDataCenterListView(std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kGetDataCenterView[] =
    "bool CAliCloudInfo::GetDataCenterView(std::vector<VMInfoStructs::SInventoryInfo>&, const VMInfoStructs::SInventoryInfo&, AliCloudViewType, UINT64, int)";
inline constexpr const char kGetDCInfoForDC[] =
    "int CAliCloudInfo::GetDCInfoForDC(const string&, UINT64, UINT64, VMInfoStructs::SDataCenterInfo&)";
inline constexpr const char kGetFileMountInfo[] =
    "virtual int CAliCloudInfo::GetFileMountInfo(const MountCtx&, std::vector<VMInfoStructs::SMountInfoFile>&)";
inline constexpr const char kGetFullMountInfo[] =
    "virtual int CAliCloudInfo::GetFullMountInfo(const MountCtx&, std::vector<VMInfoStructs::SMountInfoFull>&)";
inline constexpr const char kGetFullMountInfoConfigFiles[] =
    "int CAliCloudInfo::GetFullMountInfoConfigFiles(const MountCtx&, std::vector<VMInfoStructs::SMountInfoFull>&)";
inline constexpr const char kGetFullMountInfoDisks[] =
    "int CAliCloudInfo::GetFullMountInfoDisks(const MountCtx&, std::vector<VMInfoStructs::SMountInfoFull>&)";
inline constexpr const char kGetHostInfoForHost[] =
    "virtual int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, VMInfoStructs::SHostInfo&)";
inline constexpr const char kGetHostInfoForHostWithRegion[] =
    "int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, VMInfoStructs::SHostInfo&, const string&)";
inline constexpr const char kGetHostView[] =
    "bool CAliCloudInfo::GetHostView(std::vector<VMInfoStructs::SInventoryInfo>&, const VMInfoStructs::SInventoryInfo&, UINT64, int, const string&)";
inline constexpr const char kGetInventoryInfoList[] =
    "virtual int CAliCloudInfo::GetInventoryInfoList(std::vector<VMInfoStructs::SInventoryInfo>&, UINT64, int)";
inline constexpr const char kGetLocalHostInfo[] =
    "virtual int CAliCloudInfo::GetLocalHostInfo(VMInfoStructs::SHostInfo&, UINT64, int)";
inline constexpr const char kGetLocalVMInfo[] =
    "virtual int CAliCloudInfo::GetLocalVMInfo(VMInfoStructs::SVMInfo&, UINT64, int)";
inline constexpr const char kGetProxyUUID[] =
    "std::string CAliCloudInfo::GetProxyUUID()";
inline constexpr const char kGetVmdkInfo[] =
    "virtual int CAliCloudInfo::GetVmdkInfo(const VmdkHandle&, VMInfoStructs::SDisk&)";
inline constexpr const char kGetVMInfoAndConfigFile[] =
    "bool CAliCloudInfo::GetVMInfoAndConfigFile(const string&, UINT64, int, VMInfoStructs::SVMInfo&, std::string&)";
inline constexpr const char kGetVMInfoForVM[] =
    "virtual int CAliCloudInfo::GetVMInfoForVM(const string&, const string&, const string&, UINT64, int, VMInfoStructs::SVMInfo&)";
inline constexpr const char kGetVMInfoList[] =
    "virtual int CAliCloudInfo::GetVMInfoList(std::vector<VMInfoStructs::SVMInfo>&, UINT64, int, const std::vector<std::__cxx11::basic_string<char> >*, VMInfoStructs::EFilterType)";
inline constexpr const char kGetVMInfoListForDC[] =
    "int CAliCloudInfo::GetVMInfoListForDC(const string&, UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kGetVMInfoListForHost[] =
    "int CAliCloudInfo::GetVMInfoListForHost(const string&, UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kGetVMInfoListForInventoryObject[] =
    "virtual int CAliCloudInfo::GetVMInfoListForInventoryObject(const string&, VMInfoStructs::EInventoryType, UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kGetVMInfoListForRoot[] =
    "int CAliCloudInfo::GetVMInfoListForRoot(UINT64, int, std::vector<VMInfoStructs::SVMInfo>&)";
inline constexpr const char kHandleOverwriteOption[] =
    "bool CAliCloudInfo::HandleOverwriteOption(const RestoreCtx&)";
inline constexpr const char kInit[] =
    "virtual int CAliCloudInfo::Init()";
inline constexpr const char kInitDiskInfo[] =
    "bool CAliCloudInfo::InitDiskInfo(const MountCtx&)";
inline constexpr const char kInitRestoreVM[] =
    "virtual int CAliCloudInfo::InitRestoreVM(const RestoreCtx&)";
inline constexpr const char kInitRestoreVM_AliCloudVMAsProxy[] =
    "int CAliCloudInfo::InitRestoreVM_AliCloudVMAsProxy(const RestoreCtx&)";
inline constexpr const char kIsBackupFeasible[] =
    "virtual bool CAliCloudInfo::IsBackupFeasible(const MountCtx&)";
inline constexpr const char kLocateCurrBrowseNodeInTree[] =
    "bool CAliCloudInfo::LocateCurrBrowseNodeInTree(const VMInfoStructs::SInventoryInfo&, const string&, VMInfoStructs::SInventoryInfo&, std::string&)";
inline constexpr const char kMountVM[] =
    "virtual int CAliCloudInfo::MountVM(const MountCtx&)";
inline constexpr const char kOpenVmdk[] =
    "virtual int CAliCloudInfo::OpenVmdk(const string&, const string&, const string&, VmdkHandle&)";
inline constexpr const char kParseGuestOSString[] =
    "bool CAliCloudInfo::ParseGuestOSString(const string&, std::string&, std::string&)";
inline constexpr const char kPostRestoreVM[] =
    "virtual int CAliCloudInfo::PostRestoreVM(const RestoreCtx&)";
inline constexpr const char kPrepareRestoreCtxVMInfo[] =
    "bool CAliCloudInfo::PrepareRestoreCtxVMInfo(const RestoreCtx&)";
inline constexpr const char kPrepareRestoreCtxVMInfoBasic[] =
    "bool CAliCloudInfo::PrepareRestoreCtxVMInfoBasic(const RestoreCtx&)";
inline constexpr const char kPrepareRestoreCtxVMInfoFromConfigFile[] =
    "bool CAliCloudInfo::PrepareRestoreCtxVMInfoFromConfigFile(const RestoreCtx&)";
inline constexpr const char kPreRestoreVM[] =
    "virtual int CAliCloudInfo::PreRestoreVM(const RestoreCtx&)";
inline constexpr const char kReadConfigFile[] =
    "bool CAliCloudInfo::ReadConfigFile(const RestoreCtx&)";
inline constexpr const char kRegisterCleanerForBackup[] =
    "bool CAliCloudInfo::RegisterCleanerForBackup(const MountCtx&)";
inline constexpr const char kRegisterCleanerForRestore[] =
    "bool CAliCloudInfo::RegisterCleanerForRestore(const RestoreCtx&)";
inline constexpr const char kRestoreVirtualMachine[] =
    "int CAliCloudInfo::RestoreVirtualMachine(const RestoreCtx&)";
inline constexpr const char kRestoreVM[] =
    "virtual int CAliCloudInfo::RestoreVM(const RestoreCtx&)";
inline constexpr const char kSaveVMConfigFile[] =
    "bool CAliCloudInfo::SaveVMConfigFile(const string&, const string&, const string&)";
inline constexpr const char kTakeSnapshots[] =
    "bool CAliCloudInfo::TakeSnapshots(const MountCtx&)";
inline constexpr const char kUnmountVM[] =
    "virtual int CAliCloudInfo::UnmountVM(const MountCtx&)";
inline constexpr const char kWaitForInstanceState[] =
    "bool CAliCloudInfo::WaitForInstanceState(const string&, const string&)";
// CAliCloudDiskInfo
inline constexpr const char kDiskInfo_CloseDisk[] =
    "bool CAliCloudDiskInfo::_CloseDisk(AliCloudDiskInfo::VMHandle*, AliCloudDiskInfo::DiskHandle*)";
inline constexpr const char kDiskInfo_DisconnectDisk[] =
    "bool CAliCloudDiskInfo::_DisconnectDisk(AliCloudDiskInfo::VMHandle*, AliCloudDiskInfo::DiskHandle*)";
inline constexpr const char kDiskInfoCloseDisk[] =
    "bool CAliCloudDiskInfo::CloseDisk(const string&, const string&)";
inline constexpr const char kDiskInfoConnect[] =
    "bool CAliCloudDiskInfo::Connect(const VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoConnectDisk[] =
    "bool CAliCloudDiskInfo::ConnectDisk(const VMInfoStructs::SVMInfo&, VMInfoStructs::SDisk&, bool&)";
inline constexpr const char kDiskInfoDisconnect[] =
    "bool CAliCloudDiskInfo::Disconnect(const VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoFindVMDiskHandle[] =
    "AliCloudDiskInfo::DiskHandle* CAliCloudDiskInfo::FindVMDiskHandle(AliCloudDiskInfo::VMHandle*, const string&)";
inline constexpr const char kDiskInfoFindVMHandle[] =
    "AliCloudDiskInfo::VMHandle* CAliCloudDiskInfo::FindVMHandle(const string&)";
inline constexpr const char kDiskInfoGetDiskHandle[] =
    "bool CAliCloudDiskInfo::GetDiskHandle(const string&, const string&, const string&, VmdkHandle&)";
inline constexpr const char kDiskInfoGetDiskInfo[] =
    "bool CAliCloudDiskInfo::GetDiskInfo(const VmdkHandle&, VMInfoStructs::SDisk&, bool&)";
inline constexpr const char kDiskInfoGetVMInfo[] =
    "bool CAliCloudDiskInfo::GetVMInfo(const VmdkHandle&, const string&, VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoInitialize[] =
    "bool CAliCloudDiskInfo::Initialize(const VMInfoStructs::SVMInfo&)";
inline constexpr const char kDiskInfoRegisterDisk[] =
    "bool CAliCloudDiskInfo::RegisterDisk(const string&, const VMInfoStructs::SDisk&, bool)";
inline constexpr const char kDiskInfoUpdateDisk[] =
    "bool CAliCloudDiskInfo::UpdateDisk(const VMInfoStructs::SVMInfo&, const VMInfoStructs::SDisk&)";

}  // namespace AliCloudLogTags
