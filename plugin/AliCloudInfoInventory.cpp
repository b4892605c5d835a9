// Inventory: the framework's region and zone caches, single-region and single-zone lookups,
// instance lists and lookups, and the instance types of a zone.
//
// Regions are the framework's datacenters, zones its hosts, instances its virtual machines;
// the bridge fills the framework records and the plug-in adds no translation of its own.
// Nothing here sets a framework error code: failures are the result 0 (or false) plus a log
// line, at debug level for single-object lookups and at error level for list failures.
#include <algorithm>

#include "AliCloudInfo.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

// ---- Region and zone caches ----

// The framework may call this hook itself; the plug-in calls it only when the region cache is
// empty. On failure the cache keeps whatever the bridge left in it.
int CAliCloudInfo::_RefreshDCInfoCache(UINT64 flags, int value) {
    log.DebugLvl(k_RefreshDCInfoCache, 2, "Start >>>");
    if (bridge->GetDCInfoList(dcInfoCache, flags, static_cast<UINT64>(value))) return 1;
    const std::string error = bridge->GetLastError();
    log.Debug(k_RefreshDCInfoCache, "_RefreshDCInfoCache failed with error [%s].", error);
    return 0;
}

// Filled only when the framework asks; the plug-in never reads the zone cache itself.
int CAliCloudInfo::_RefreshHostInfoCache(UINT64 flags, int value) {
    if (bridge->GetHostInfoList(hostInfoCache, flags, static_cast<UINT64>(value))) return 1;
    log.Error(k_RefreshHostInfoCache, "GetHostInfoList failed.");
    return 0;
}

// Appends one node per cached region (`out` is not cleared). The cache is filled, with the
// zones of each region, only the first time it is found empty; it is then reused for the
// life of the object. An empty answer leaves it empty, so the next call asks again.
int CAliCloudInfo::GetInventoryInfoList(vector<SInventoryInfo>& out, UINT64 flags, int value) {
    if (dcInfoCache.empty()) {
        flags |= ALICLOUD_FLAG_WANT_ZONES;
        if (!_RefreshDCInfoCache(flags, value)) {  // virtual: a subclass's hook is honoured
            log.Error(kGetInventoryInfoList, "Failed to refresh Datacenter info cache.");
            return 0;
        }
    }
    for (const SDataCenterInfo& region : dcInfoCache) {
        SInventoryInfo node;
        SInventoryInfo::FillInventoryInfoFromDatacenterInfo(region, node);
        out.push_back(std::move(node));
    }
    return 1;
}

// Always asks the bridge; never reads or writes the region cache.
int CAliCloudInfo::GetDCInfoForDC(const string& regionId, UINT64 flags, UINT64 value, SDataCenterInfo& out) {
    if (bridge->GetDCInfoForDC(regionId, flags, value, out)) return 1;
    const std::string error = bridge->GetLastError();
    log.Debug(kGetDCInfoForDC, "GetDCInfoForDC() failed. Error [%s]", error);
    return 0;
}

// The framework's zone lookup: the bridge finds the zone's region itself.
int CAliCloudInfo::GetHostInfoForHost(const string& zoneId, UINT64 flags, int value, SHostInfo& out) {
    if (bridge->GetHostInfoForHost(zoneId, flags, static_cast<UINT64>(value), out, std::string())) return 1;
    const std::string error = bridge->GetLastError();
    log.Debug(kGetHostInfoForHost, "GetHostInfoForHost() failed. Error [%s]", error);
    return 0;
}

// The plug-in's own zone lookup, for callers that already know the zone's region.
int CAliCloudInfo::GetHostInfoForHost(const string& zoneId, UINT64 flags, int value, SHostInfo& out,
                                      const string& regionId) {
    if (bridge->GetHostInfoForHost(zoneId, flags, static_cast<UINT64>(value), out, regionId)) return 1;
    const std::string error = bridge->GetLastError();
    log.Debug(kGetHostInfoForHostWithRegion, "GetHostInfoForHost() failed. Error [%s]", error);
    return 0;
}

// ---- Instance lists ----

// Every instance of the account, optionally narrowed by the framework's name filter. `out` is
// replaced on success and untouched on failure.
int CAliCloudInfo::GetVMInfoList(vector<SVMInfo>& out, UINT64 flags, int value, const vector<string>* names,
                                 EFilterType filter) {
    vector<SVMInfo> all;
    if (!GetVMInfoListForRoot(flags, value, all)) return 0;
    if (names == nullptr || filter == FILTER_NONE)
        out = std::move(all);
    else
        out = CVMInfo::_FilterVMInfoList(all, *names, filter);
    return 1;
}

// The bridge's cached instances; an empty cache is refreshed once and read again. A failed
// first read is returned silently: the bridge has nothing more useful to say then.
int CAliCloudInfo::GetVMInfoListForRoot(UINT64 /*flags: unused*/, int /*value: unused*/, vector<SVMInfo>& out) {
    if (!bridge->GetVMInfoList(out)) return 0;
    if (!out.empty()) return 1;
    if (!bridge->RefreshVMInfoCache()) {
        const std::string error = bridge->GetLastError();
        log.Error(kGetVMInfoListForRoot, "Failed to refresh VM Info list . Error [%s]", error);
        return 0;
    }
    return bridge->GetVMInfoList(out) ? 1 : 0;
}

// Appends the region's instances to `out`. Whether the bridge includes instances at all is
// decided by the caller's flags (bit 29); no bit is added here.
int CAliCloudInfo::GetVMInfoListForDC(const string& regionId, UINT64 flags, int value, vector<SVMInfo>& out) {
    SDataCenterInfo info;
    if (!GetDCInfoForDC(regionId, flags, static_cast<UINT64>(value), info)) {
        const std::string error = bridge->GetLastError();
        log.Error(kGetVMInfoListForDC, "Failed to get Datacenter info for Datacenter [%s]. Error [%s]", regionId, error);
        return 0;
    }
    out.insert(out.end(), info.vmList.begin(), info.vmList.end());
    return 1;
}

// Appends the zone's instances to `out`; as above, the caller's flags decide what comes back.
int CAliCloudInfo::GetVMInfoListForHost(const string& zoneId, UINT64 flags, int value, vector<SVMInfo>& out) {
    SHostInfo info;
    if (!GetHostInfoForHost(zoneId, flags, value, info)) {  // virtual: a subclass's lookup is honoured
        const std::string error = bridge->GetLastError();
        log.Error(kGetVMInfoListForHost, "Failed to get Host info for Host [%s]. Error [%s]", zoneId, error);
        return 0;
    }
    out.insert(out.end(), info.vmList.begin(), info.vmList.end());
    return 1;
}

// Instances under a browse node: a zone, the whole account or a region. Other node kinds hold
// no instances in ECS and are refused without touching `out`.
int CAliCloudInfo::GetVMInfoListForInventoryObject(const string& name, EInventoryType type, UINT64 flags, int value,
                                                   vector<SVMInfo>& out) {
    switch (type) {
    case INVENTORY_HOST: return GetVMInfoListForHost(name, flags, value, out);
    case INVENTORY_ROOT: return GetVMInfoListForRoot(flags, value, out);
    case INVENTORY_DATACENTER: return GetVMInfoListForDC(name, flags, value, out);
    default: return 0;
    }
}

// ---- Single-instance lookups ----

// ECS instance ids are unique across the account, so only the id (the second string) is
// used; the framework's first and third strings carry nothing the bridge needs.
int CAliCloudInfo::GetVMInfoForVM(const string& /*first*/, const string& id, const string& /*third*/, UINT64 flags,
                                  int value, SVMInfo& out) {
    if (bridge->GetVMInfoForVM(id, out, flags, value)) return 1;
    const std::string error = bridge->GetLastError();
    log.Debug(kGetVMInfoForVM, "GetVMInfoForVM() failed. Error [%s]", error);
    return 0;
}

// The instance's description and its configuration document, as one bridge call.
bool CAliCloudInfo::GetVMInfoAndConfigFile(const string& id, UINT64 flags, int value, SVMInfo& out,
                                           std::string& configFile) {
    const bool ok = bridge->GetVMInfoAndConfigFile(id, flags, value, out, configFile);
    if (!ok) {
        const std::string error = bridge->GetLastError();
        log.Debug(kGetVMInfoAndConfigFile, "GetVMInfoAndConfigFile() failed. Error [%s]", error);
    }
    return ok;
}

// ---- Instance types ----

// The instance types offered in a zone ("<region id>|<zone id>"), completed with the vCPU and
// memory figures that only the region's list carries. A malformed combined string is only
// logged: the bridge is then asked with empty ids and its answer decides.
int CAliCloudInfo::GetAvailableVMSizesForHost(const string& host, vector<SVMSizeInfo>& out, UINT64 /*flags*/,
                                              int /*value*/) {
    std::string regionId;
    std::string zoneId;
    DecodeCombinedStr(host, regionId, zoneId);

    if (!bridge->GetInstanceTypesForZone(regionId, zoneId, out)) {
        const std::string error = bridge->GetLastError();
        log.Debug(kGetAvailableVMSizesForHost, "GetInstanceTypesForZone() failed. Error [%s]", error);
        return 0;
    }
    vector<SVMSizeInfo> regionSizes;
    if (!bridge->GetInstanceTypesForRegion(regionId, regionSizes)) {
        const std::string error = bridge->GetLastError();
        log.Debug(kGetAvailableVMSizesForHost, "GetInstanceTypesForRegion() failed. Error [%s]", error);
        return 0;
    }
    // Type names are ECS identifiers, so they are matched exactly; the first match wins.
    for (SVMSizeInfo& size : out) {
        auto match = std::find_if(regionSizes.begin(), regionSizes.end(),
                                  [&](const SVMSizeInfo& r) { return r.name == size.name; });
        if (match == regionSizes.end()) continue;
        size.specValue1 = match->specValue1;
        size.specValue2 = match->specValue2;
    }
    return 1;
}
