// The proxy's own identity: the ECS instance the agent runs on, whose region and zone decide
// where a job's disks are made and to which instance they are attached.
//
// The instance id is detected once per plug-in object (and asked again while detection
// fails, so a transient metadata hiccup does not poison the object). The full description is
// fetched once per process, at the first successful backup preparation, and then copied by
// every plug-in object of the process; it is never refreshed while the process lives.
#include "AliCloudInfo.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {

// Flags of the proxy description lookup: what the backup preparation needs of the proxy.
constexpr UINT64 kProxyDescribeFlags = 0x10;

// The process-wide proxy description. Constructed on first use (the language guards that
// construction across threads) and destroyed at process exit.
SVMInfo& ProcessProxyInfo() {
    static SVMInfo proxyInfo;
    return proxyInfo;
}

// Whether ProcessProxyInfo() holds the proxy's description. A plain flag without a lock: a
// process prepares its backup mounts one at a time.
bool proxyInfoQueried = false;

}  // namespace

void CAliCloudInfo::DetectLocalUUID() {
    // The bridge's result says no more than the id it leaves: empty means "not an ECS instance".
    bridge->GetLocalInstanceId(localInstanceId);
    if (localInstanceId.empty()) {
        log.Error(kDetectLocalUUID, "Couldn't detect local instance id.");
        return;
    }
    localIdDetected = true;
}

std::string CAliCloudInfo::GetProxyUUID() {
    if (!localIdDetected) DetectLocalUUID();
    return localInstanceId;
}

// Fills proxyVMInfo before a backup mount. On failure proxyVMInfo keeps what it held, and the
// next mount asks the cloud again.
bool CAliCloudInfo::_InitProxyInfoForBackup(const MountCtx& /*ctx: not needed, the proxy is this machine*/) {
    if (proxyInfoQueried) {
        log.Debug(k_InitProxyInfoForBackup, "Proxy information already fetched. Using from cache.");
    } else {
        const std::string id = GetProxyUUID();
        if (id.empty()) {
            log.Error(k_InitProxyInfoForBackup, "Failed to get local proxy Id. VSA proxy must be a VM in Alibaba cloud.");
            SetLastVMError(VMINFO_ERR_PROXY_NOT_CLOUD_VM);
            return false;
        }
        log.Debug(k_InitProxyInfoForBackup, "Proxy instance Id: [%s].", id);
        // Virtual on purpose: a subclass's instance lookup is honoured.
        if (!GetVMInfoForVM(std::string(), id, std::string(), kProxyDescribeFlags, 0, ProcessProxyInfo())) {
            log.Error(k_InitProxyInfoForBackup, "GetVMInfoForVM failed for local instance Id [%s].", id);
            SetLastVMErrorDetails(bridge->GetLastError());
            return false;
        }
        proxyInfoQueried = true;
    }
    proxyVMInfo = ProcessProxyInfo();
    return true;
}

// Only the id is reported: the framework uses it to recognise the proxy among the instances.
int CAliCloudInfo::GetLocalVMInfo(SVMInfo& out, UINT64 /*flags*/, int /*value*/) {
    out.guid = GetProxyUUID();
    return 1;
}

// The zone the proxy runs in, with what the caller's flags ask of it.
int CAliCloudInfo::GetLocalHostInfo(SHostInfo& out, UINT64 flags, int value) {
    const std::string id = GetProxyUUID();
    if (id.empty()) return 0;  // DetectLocalUUID has said why
    SVMInfo vm;
    if (!GetVMInfoForVM(std::string(), id, std::string(), flags, value, vm)) return 0;  // virtual on purpose
    return GetHostInfoForHost(vm.hostName, flags, value, out, vm.regionId);
}
