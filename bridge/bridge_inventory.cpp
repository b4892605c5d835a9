// Inventory: regions, zones, instances and instance types as framework records.
#include "bridge_impl.h"

#include <set>

#include "bridge_common.h"
#include "json_util.h"
#include "mapping.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

void Impl::GetDCInfoList(std::vector<VMInfoStructs::SDataCenterInfo>& out, UINT64 flags) {
    std::vector<VMInfoStructs::SDataCenterInfo> result;
    for (const json& r : Regions()) {
        VMInfoStructs::SDataCenterInfo dc;
        GetDCInfoForDC(jv::Str(r, "RegionId"), flags, dc);
        result.push_back(std::move(dc));
    }
    out = std::move(result);
}

void Impl::GetDCInfoForDC(const std::string& regionId, UINT64 flags, VMInfoStructs::SDataCenterInfo& out) {
    RequireArg(regionId, "region id");
    VMInfoStructs::SDataCenterInfo dc;
    dc.name = regionId;
    bool known = false;
    for (const json& r : Regions()) {
        if (jv::Str(r, "RegionId") == regionId) {
            dc = RegionFromJson(r);
            known = true;
        }
    }
    if (!known) throw NotFound("InvalidRegionId.NotFound", "The specified region " + regionId + " does not exist.");
    if (flags & kFlagFillZones) {
        for (const json& z : Zones(regionId)) dc.hostList.push_back(ZoneFromJson(z, regionId));
    }
    if (flags & kFlagFillInstances) dc.vmList = InstancesAsRecords(regionId, {});
    out = std::move(dc);
}

void Impl::GetHostInfoList(std::vector<VMInfoStructs::SHostInfo>& out, UINT64 flags) {
    std::vector<VMInfoStructs::SHostInfo> result;
    for (const json& r : Regions()) {
        const std::string regionId = jv::Str(r, "RegionId");
        std::vector<SVMInfo> vms;
        if (flags & kFlagFillInstances) vms = InstancesAsRecords(regionId, {});
        for (const json& z : Zones(regionId)) {
            VMInfoStructs::SHostInfo h = ZoneFromJson(z, regionId);
            for (const SVMInfo& vm : vms) {
                if (vm.hostName == h.name) h.vmList.push_back(vm);
            }
            result.push_back(std::move(h));
        }
    }
    out = std::move(result);
}

void Impl::GetHostInfoForHost(const std::string& zoneId, UINT64 flags, VMInfoStructs::SHostInfo& out,
                              const std::string& regionId) {
    RequireArg(zoneId, "zone id");
    std::string region = regionId;
    if (region.empty()) {
        if (auto it = regionOf_.find(zoneId); it != regionOf_.end()) region = it->second;
    }
    if (region.empty()) {
        // Zone ids are "<region>-<letter>" by convention; check the guess, then search.
        std::vector<std::string> candidates;
        if (auto dash = zoneId.rfind('-'); dash != std::string::npos) candidates.push_back(zoneId.substr(0, dash));
        if (auto r = ProxyRegion()) candidates.push_back(*r);
        for (const json& r : Regions()) candidates.push_back(jv::Str(r, "RegionId"));
        std::set<std::string> asked;
        const std::set<std::string> known = [&] {
            std::set<std::string> s;
            for (const json& r : Regions()) s.insert(jv::Str(r, "RegionId"));
            return s;
        }();
        for (const std::string& c : candidates) {
            if (!known.count(c) || !asked.insert(c).second) continue;
            for (const json& z : Zones(c)) {
                if (jv::Str(z, "ZoneId") == zoneId) region = c;
            }
            if (!region.empty()) break;
        }
        if (region.empty()) throw NotFound("InvalidZoneId.NotFound", "The specified zone " + zoneId + " does not exist.");
        Remember(zoneId, region);
    }
    VMInfoStructs::SHostInfo h;
    h.name = zoneId;
    h.regionId = region;
    if (flags & kFlagFillInstances) h.vmList = InstancesAsRecords(region, {{"ZoneId", zoneId}});
    out = std::move(h);
}

void Impl::GetVMInfoList(std::vector<SVMInfo>& out) {
    Api();  // the cache belongs to a connection
    out = vmCache_;
}

void Impl::RefreshVMInfoCache() {
    std::vector<SVMInfo> all;
    for (const json& r : Regions()) {
        for (SVMInfo& vm : InstancesAsRecords(jv::Str(r, "RegionId"), {})) all.push_back(std::move(vm));
    }
    vmCache_ = std::move(all);
}

void Impl::GetVMInfoListForRegion(const std::string& regionId, std::vector<SVMInfo>& out, const std::string& name) {
    RequireArg(regionId, "region id");
    Params filter;
    // InstanceName treats '*' as a wildcard; the exact comparison below keeps equality.
    if (!name.empty()) filter["InstanceName"] = name;
    std::vector<SVMInfo> list = InstancesAsRecords(regionId, filter);
    std::vector<SVMInfo> result;
    for (SVMInfo& vm : list) {
        if (name.empty() || vm.name == name) result.push_back(std::move(vm));
    }
    out = std::move(result);
}

void Impl::GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                   std::vector<VMInfoStructs::SVMSizeInfo>& out) {
    RequireArg(regionId, "region id");
    RequireArg(zoneId, "zone id");
    json answer = Call("DescribeAvailableResource", regionId,
                       {{"DestinationResource", "InstanceType"}, {"ZoneId", zoneId}, {"InstanceChargeType", "PostPaid"}});
    std::vector<VMInfoStructs::SVMSizeInfo> result;
    std::set<std::string> seen;
    for (const json& zone : jv::RequiredList(answer, "AvailableZones", "AvailableZone", "DescribeAvailableResource")) {
        if (jv::Str(zone, "ZoneId", zoneId) != zoneId) continue;
        for (const json& res : jv::WrappedList(zone, "AvailableResources", "AvailableResource")) {
            if (jv::Str(res, "Type", "InstanceType") != "InstanceType") continue;
            for (const json& s : jv::WrappedList(res, "SupportedResources", "SupportedResource")) {
                const std::string value = jv::Str(s, "Value");
                if (value.empty() || jv::Str(s, "Status", "Available") != "Available") continue;
                if (!seen.insert(value).second) continue;
                VMInfoStructs::SVMSizeInfo size;
                size.name = value;
                result.push_back(size);
            }
        }
    }
    out = std::move(result);
}

void Impl::GetInstanceTypesForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMSizeInfo>& out) {
    RequireArg(regionId, "region id");
    std::vector<VMInfoStructs::SVMSizeInfo> result;
    for (json& t : ListPaged("DescribeInstanceTypes", regionId, {{"MaxResults", "1600"}}, "InstanceTypes",
                             "InstanceType")) {
        result.push_back(InstanceTypeFromJson(t));
        Keep(TypeKey(jv::Str(t, "InstanceTypeId")), t);
    }
    out = std::move(result);
}
