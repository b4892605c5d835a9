// Instances a restore deals with besides the one it creates: an existing instance of the
// restore's name, and waiting for an instance to reach a state.
#include "AliCloudInfo.h"
#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
constexpr int kStatePolls = 6;
constexpr int kStatePollSeconds = 10;
constexpr std::uint32_t kPoweredOn = 1;
}  // namespace

// Contract: true when no other instance bears the restore's name in the destination region
// (any that did has been deleted, as the job allowed); false with the last VM error set
// otherwise. Runs before the restore creates anything, and the deletion is final.
bool CAliCloudInfo::HandleOverwriteOption(const RestoreCtx& ctx) {
    vector<SVMInfo> sameName;
    // A failed lookup does not stop the restore: at worst two instances share a name, which
    // ECS allows; refusing would block restores whenever listing is not permitted.
    if (!bridge->GetVMInfoListForRegion(ctx.regionName, sameName, ctx.vmName)) return true;
    if (sameName.empty()) return true;
    if (sameName.size() > 1) {
        log.Debug(kHandleOverwriteOption,
                  "More than one VM with name [%s] exists in region [%s]. Can't decide which VM to delete. Please use a "
                  "non existing VM name to continue restore.",
                  ctx.vmName, ctx.regionName);
        SetLastVMError(VMINFO_ERR_DUPLICATE_VM_NAME);
        return false;
    }
    const SVMInfo& target = sameName.front();
    if (!ctx.overwriteExisting) {
        log.Debug(kHandleOverwriteOption,
                  "As per task option not overwriting existing VM. Please use a non-existing VM name to continue restore");
        SetLastVMError(VMINFO_ERR_VM_ALREADY_EXISTS);
        return false;
    }
    log.Debug(kHandleOverwriteOption, "Overwriting existing VM with name [%s] as per task options.", ctx.vmName);
    if (target.powerState == kPoweredOn) {
        log.Debug(kHandleOverwriteOption, "Powering off instance [%s].", target.guid);
        if (!bridge->PowerOffInstance(target.guid, true, true, false)) {
            log.Debug(kHandleOverwriteOption, "Failed to power off instance [%s].", target.guid);
            SetLastVMError(VMINFO_ERR_VM_DELETE);
            SetLastVMErrorDetails(bridge->GetLastError());
            return false;
        }
        if (!WaitForInstanceState(target.guid, "Stopped")) {
            log.Debug(kHandleOverwriteOption, "Failed waiting instance [%s] to power off.", target.guid);
            SetLastVMError(VMINFO_ERR_VM_DELETE);
            SetLastVMErrorDetails(bridge->GetLastError());
            return false;
        }
    }
    if (!bridge->DeleteInstance(target.guid)) {
        SetLastVMError(VMINFO_ERR_VM_DELETE);
        SetLastVMErrorDetails(bridge->GetLastError());
        return false;
    }
    log.Debug(kHandleOverwriteOption, "Successfully deleted the Instance [%s] in region [%s].", target.guid,
              ctx.regionName);
    return true;
}

// Contract: true when the instance's status equals `state` (case-insensitively) within 6
// polls, 10 seconds apart; a failed status request counts as a poll. Blocks up to ~60 s.
bool CAliCloudInfo::WaitForInstanceState(const string& instanceId, const string& state) {
    int polls = 0;
    while (polls < kStatePolls) {
        std::string status;
        if (!bridge->GetInstanceStatus(instanceId, status)) {
            log.Debug(kWaitForInstanceState, "Failed to get instance status for instance [%s].", instanceId);
            ++polls;
            FXThread::Sleep(kStatePollSeconds * 1000);
            continue;
        }
        if (FXString::CompareNoCase(status, state) == 0) break;
        log.Debug(kWaitForInstanceState, "Waiting for [%d] seconds for instance [%s] to reach state [%s].",
                  kStatePollSeconds, instanceId, state);
        FXThread::Sleep(kStatePollSeconds * 1000);
        ++polls;
    }
    return polls < kStatePolls;
}
