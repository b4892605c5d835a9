// Backup, disk access and cleanup operations not written yet. Their work moves each one out of this file into the
// source file of its concern; nothing here is a working implementation.
#include "AliCloudInfo.h"

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
bool CAliCloudInfo::_CreateSnapshots(const string&, vector<SDisk>&, VM_Cleaner_Mode) { return {}; }
bool CAliCloudInfo::_CleanupAllVMs(VM_Cleaner_Mode) { return {}; }
bool CAliCloudInfo::_CleanupImages(VM_Cleaner_Mode, const string&, bool) { return {}; }
bool CAliCloudInfo::_CleanupRestoreVM(std::string, bool, bool) { return {}; }
bool CAliCloudInfo::RegisterCleanerForBackup(const MountCtx&) { return {}; }
bool CAliCloudInfo::_CleanUpMountedDisks(const string&, bool, bool, const string&) { return {}; }
bool CAliCloudInfo::_CleanupMountedVM(VM_Cleaner_Mode, const string&, bool, bool, bool) { return {}; }
bool CAliCloudInfo::_InitVMInfoForBackup(const string&, const string&, const string&, SVMInfo&, std::string&) { return {}; }
