// Restore operations not written yet. Their work moves each one out of this file into the
// source file of its concern; nothing here is a working implementation.
#include "AliCloudInfo.h"

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
