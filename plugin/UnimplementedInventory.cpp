// Inventory and proxy identity operations not written yet. Their work moves each one out of this file into the
// source file of its concern; nothing here is a working implementation.
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
bool CAliCloudInfo::BrowseAliCloudView(const string&, const SInventoryInfo&, vector<SInventoryInfo>&, AliCloudViewType, UINT64, int, const string&) { return {}; }
int CAliCloudInfo::BrowseInventory(const string&, const SInventoryInfo&, vector<SInventoryInfo>&, UINT64, int) { return {}; }
bool CAliCloudInfo::GetDataCenterView(vector<SInventoryInfo>&, const SInventoryInfo&, AliCloudViewType, UINT64, int) { return {}; }
bool CAliCloudInfo::GetHostView(vector<SInventoryInfo>&, const SInventoryInfo&, UINT64, int, const string&) { return {}; }
int CAliCloudInfo::GetVMInfoForVM(const string&, const string&, const string&, UINT64, int, SVMInfo&) { return {}; }
int CAliCloudInfo::GetVMInfoList(vector<SVMInfo>&, UINT64, int, const vector<string>*, EFilterType) { return {}; }
int CAliCloudInfo::GetVMInfoListForInventoryObject(const string&, EInventoryType, UINT64, int, vector<SVMInfo>&) { return {}; }
bool CAliCloudInfo::LocateCurrBrowseNodeInTree(const SInventoryInfo&, const string&, SInventoryInfo&, string&) { return {}; }
