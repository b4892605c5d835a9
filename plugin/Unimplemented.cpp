// Operations not written yet. Each later piece of work moves its operations out of this
// file into the source file of its concern; nothing here is a working implementation.
#include "AliCloudInfo.h"

int CAliCloudInfo::_RefreshDCInfoCache(UINT64, int) { return {}; }
int CAliCloudInfo::_RefreshHostInfoCache(UINT64, int) { return {}; }
int CAliCloudInfo::GetInventoryInfoList(vector<SInventoryInfo>&, UINT64, int) { return {}; }
int CAliCloudInfo::GetDCInfoForDC(const string&, UINT64, UINT64, SDataCenterInfo&) { return {}; }
int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, SHostInfo&) { return {}; }
int CAliCloudInfo::GetHostInfoForHost(const string&, UINT64, int, SHostInfo&, const string&) { return {}; }
void CAliCloudInfo::BrowseView(vector<SInventoryInfo>&) { }
bool CAliCloudInfo::GetDataCenterListView(vector<SInventoryInfo>&, UINT64, int) { return {}; }
bool CAliCloudInfo::CompareInventoryInfo(const SInventoryInfo&, const SInventoryInfo&) { return {}; }
void CAliCloudInfo::DecodeCombinedStr(const string&, string&, string&) { }
int CAliCloudInfo::GetVMInfoListForRoot(UINT64, int, vector<SVMInfo>&) { return {}; }
int CAliCloudInfo::GetVMInfoListForDC(const string&, UINT64, int, vector<SVMInfo>&) { return {}; }
int CAliCloudInfo::GetVMInfoListForHost(const string&, UINT64, int, vector<SVMInfo>&) { return {}; }
bool CAliCloudInfo::GetVMInfoAndConfigFile(const string&, UINT64, int, SVMInfo&, std::string&) { return {}; }
int CAliCloudInfo::GetAvailableVMSizesForHost(const string&, vector<SVMSizeInfo>&, UINT64, int) { return {}; }
void CAliCloudInfo::DetectLocalUUID() { }
std::string CAliCloudInfo::GetProxyUUID() { return {}; }
bool CAliCloudInfo::_InitProxyInfoForBackup(const MountCtx&) { return {}; }
int CAliCloudInfo::GetLocalVMInfo(SVMInfo&, UINT64, int) { return {}; }
int CAliCloudInfo::GetLocalHostInfo(SHostInfo&, UINT64, int) { return {}; }
bool CAliCloudInfo::IsBackupFeasible(const MountCtx&) { return {}; }
bool CAliCloudInfo::DoesOSDiskExist(const vector<SDisk>&) { return {}; }
bool CAliCloudInfo::TakeSnapshots(const MountCtx&) { return {}; }
bool CAliCloudInfo::_WaitForSnapshots(const vector<SDisk>&) { return {}; }
bool CAliCloudInfo::CreateDisksFromSnapshots(const string&, vector<SDisk>&, VM_Cleaner_Mode, bool&) { return {}; }
int CAliCloudInfo::_AttachDiskToProxy(const SVMInfo&, SDisk&, bool) { return {}; }
bool CAliCloudInfo::_AttachDisksToProxy(vector<SDisk>&, bool, bool) { return {}; }
int CAliCloudInfo::MountVM(const MountCtx&) { return {}; }
bool CAliCloudInfo::_MountVM(const MountCtx&, const string&) { return {}; }
bool CAliCloudInfo::_InitMount() { return {}; }
int CAliCloudInfo::GetFullMountInfo(const MountCtx&, vector<SMountInfoFull>&) { return {}; }
int CAliCloudInfo::GetFullMountInfoDisks(const MountCtx&, vector<SMountInfoFull>&) { return {}; }
int CAliCloudInfo::GetFullMountInfoConfigFiles(const MountCtx&, vector<SMountInfoFull>&) { return {}; }
bool CAliCloudInfo::SaveVMConfigFile(const string&, const string&, const string&) { return {}; }
bool CAliCloudInfo::DeleteVMConfigFile(const MountCtx&) { return {}; }
int CAliCloudInfo::UnmountVM(const MountCtx&) { return {}; }
int CAliCloudInfo::CleanupVM(const MountCtx&) { return {}; }
bool CAliCloudInfo::_UnMountVM(const MountCtx&) { return {}; }
bool CAliCloudInfo::DetachDisks_DiskInfo(const string&, const vector<SDisk>&) { return {}; }
bool CAliCloudInfo::DetachDisks_BridgeObj(const string&, const vector<SDisk>&) { return {}; }
bool CAliCloudInfo::DeleteDisks(const string&, const vector<SDisk>&) { return {}; }
bool CAliCloudInfo::DeleteSnapshots(const string&, const vector<string>&) { return {}; }
bool CAliCloudInfo::_CleanUpSnapshots(const string&) { return {}; }
bool CAliCloudInfo::InitDiskInfo(const MountCtx&) { return {}; }
bool CAliCloudInfo::ConnectDiskInfo(const MountCtx&) { return {}; }
int CAliCloudInfo::OpenVmdk(const string&, const string&, const string&, VmdkHandle&) { return {}; }
bool CAliCloudInfo::_OpenVmdk(const SVMInfo&, SDisk&, bool) { return {}; }
int CAliCloudInfo::GetVmdkInfo(const VmdkHandle&, SDisk&) { return {}; }
int CAliCloudInfo::CloseVmdk(const VmdkHandle&) { return {}; }
int CAliCloudInfo::InitRestoreVM(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::CheckFeasibility(const RestoreCtx&) { return {}; }
int CAliCloudInfo::InitRestoreVM_AliCloudVMAsProxy(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::RegisterCleanerForRestore(const RestoreCtx&) { return {}; }
int CAliCloudInfo::PreRestoreVM(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::PrepareRestoreCtxVMInfo(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::PrepareRestoreCtxVMInfoBasic(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::FindOSDisk(vector<SDisk>&, SDisk*&) { return {}; }
bool CAliCloudInfo::FindVMConfigFile(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::ReadConfigFile(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::PrepareRestoreCtxVMInfoFromConfigFile(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::_CreateEmptyDisks(const string&, vector<SDisk>&, const VM_Cleaner_Mode&) { return {}; }
bool CAliCloudInfo::_CreateSnapshots(const string&, vector<SDisk>&, VM_Cleaner_Mode) { return {}; }
int CAliCloudInfo::RestoreVM(const RestoreCtx&) { return {}; }
int CAliCloudInfo::RestoreVirtualMachine(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::ParseGuestOSString(const string&, std::string&, std::string&) { return {}; }
bool CAliCloudInfo::CreateImage(const RestoreCtx&, std::string&, const string&, const string&) { return {}; }
bool CAliCloudInfo::HandleOverwriteOption(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::WaitForInstanceState(const string&, const string&) { return {}; }
void CAliCloudInfo::AttachDataDisksToRestoredVM(const RestoreCtx&) { }
bool CAliCloudInfo::AddPeripheralComponents(const RestoreCtx&) { return {}; }
int CAliCloudInfo::PostRestoreVM(const RestoreCtx&) { return {}; }
int CAliCloudInfo::CleanupRestoreVM(const RestoreCtx&) { return {}; }
bool CAliCloudInfo::_CleanupAllVMs(VM_Cleaner_Mode) { return {}; }
bool CAliCloudInfo::_CleanupImages(VM_Cleaner_Mode, const string&, bool) { return {}; }
bool CAliCloudInfo::_CleanupRestoreVM(std::string, bool, bool) { return {}; }
bool CAliCloudInfo::RegisterCleanerForBackup(const MountCtx&) { return {}; }
bool CAliCloudInfo::BrowseAliCloudView(const string&, const SInventoryInfo&, vector<SInventoryInfo>&, AliCloudViewType, UINT64, int, const string&) { return {}; }
int CAliCloudInfo::BrowseInventory(const string&, const SInventoryInfo&, vector<SInventoryInfo>&, UINT64, int) { return {}; }
bool CAliCloudInfo::GetDataCenterView(vector<SInventoryInfo>&, const SInventoryInfo&, AliCloudViewType, UINT64, int) { return {}; }
bool CAliCloudInfo::GetHostView(vector<SInventoryInfo>&, const SInventoryInfo&, UINT64, int, const string&) { return {}; }
int CAliCloudInfo::GetVMInfoForVM(const string&, const string&, const string&, UINT64, int, SVMInfo&) { return {}; }
int CAliCloudInfo::GetVMInfoList(vector<SVMInfo>&, UINT64, int, const vector<string>*, EFilterType) { return {}; }
int CAliCloudInfo::GetVMInfoListForInventoryObject(const string&, EInventoryType, UINT64, int, vector<SVMInfo>&) { return {}; }
bool CAliCloudInfo::LocateCurrBrowseNodeInTree(const SInventoryInfo&, const string&, SInventoryInfo&, string&) { return {}; }
bool CAliCloudInfo::_CleanUpMountedDisks(const string&, bool, bool, const string&) { return {}; }
bool CAliCloudInfo::_CleanupMountedVM(VM_Cleaner_Mode, const string&, bool, bool, bool) { return {}; }
bool CAliCloudInfo::_InitVMInfoForBackup(const string&, const string&, const string&, SVMInfo&, std::string&) { return {}; }
