// Lists (all pages), lookups of one object by id, and the region an object lives in.
#include "bridge_impl.h"

#include <algorithm>
#include <set>

#include "bridge_common.h"
#include "json_util.h"
#include "mapping.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

std::vector<json> Impl::ListPaged(const std::string& action, const std::string& regionId, Params params,
                                  const char* outer, const char* inner) {
    std::vector<json> all;
    // NextToken paging; answers without a NextToken end the loop. A repeated token would
    // loop for ever, so it ends the loop too.
    std::set<std::string> seen;
    for (;;) {
        json page = Call(action, regionId, params);
        for (json& item : jv::RequiredList(page, outer, inner, action)) all.push_back(std::move(item));
        const std::string next = jv::Str(page, "NextToken");
        if (next.empty() || !seen.insert(next).second) break;
        params["NextToken"] = next;
    }
    return all;
}

std::vector<json> Impl::Regions() {
    if (regions_.empty()) {
        json answer = Call("DescribeRegions", DefaultRegion(), {});
        regions_ = jv::RequiredList(answer, "Regions", "Region", "DescribeRegions");
        if (regions_.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "DescribeRegions listed no region");
    }
    return regions_;
}

std::vector<json> Impl::Zones(const std::string& regionId) {
    json answer = Call("DescribeZones", regionId, {{"Verbose", "false"}});
    return jv::RequiredList(answer, "Zones", "Zone", "DescribeZones");
}

std::vector<json> Impl::Instances(const std::string& regionId, Params filter) {
    filter["MaxResults"] = "100";
    std::vector<json> list = ListPaged("DescribeInstances", regionId, std::move(filter), "Instances", "Instance");
    for (const json& i : list) Remember(jv::Str(i, "InstanceId"), regionId);
    return list;
}

std::vector<Impl::SVMInfo> Impl::InstancesAsRecords(const std::string& regionId, Params filter) {
    std::vector<json> list = Instances(regionId, std::move(filter));
    std::vector<std::string> types;
    for (const json& i : list) types.push_back(jv::Str(i, "InstanceType"));
    LoadInstanceTypes(regionId, types);
    std::vector<SVMInfo> out;
    for (const json& i : list) {
        SVMInfo vm = InstanceFromJson(i, ArchitectureFor(regionId, i));
        if (vm.regionId.empty()) vm.regionId = regionId;
        out.push_back(std::move(vm));
    }
    return out;
}

void Impl::LoadInstanceTypes(const std::string& regionId, const std::vector<std::string>& typeIds) {
    std::vector<std::string> missing;
    for (const auto& t : typeIds) {
        if (!t.empty() && !instanceTypes_.count(t) &&
            std::find(missing.begin(), missing.end(), t) == missing.end()) {
            missing.push_back(t);
        }
    }
    // DescribeInstanceTypes takes at most 10 InstanceTypes.N per call.
    for (size_t start = 0; start < missing.size(); start += 10) {
        Params p;
        for (size_t i = start; i < std::min(missing.size(), start + 10); ++i) {
            p["InstanceTypes." + std::to_string(i - start + 1)] = missing[i];
        }
        for (json& t : ListPaged("DescribeInstanceTypes", regionId, p, "InstanceTypes", "InstanceType")) {
            instanceTypes_[jv::Str(t, "InstanceTypeId")] = t;
        }
        // Remember unknown types as null so that they are not asked for again.
        for (size_t i = start; i < std::min(missing.size(), start + 10); ++i) {
            instanceTypes_.emplace(missing[i], json());
        }
    }
}

std::optional<json> Impl::InstanceType(const std::string& regionId, const std::string& typeId) {
    if (typeId.empty()) return std::nullopt;
    LoadInstanceTypes(regionId, {typeId});
    auto it = instanceTypes_.find(typeId);
    if (it == instanceTypes_.end() || it->second.is_null()) return std::nullopt;
    return it->second;
}

std::string Impl::ArchitectureFor(const std::string& regionId, const json& instance) {
    std::string cpu;
    if (auto t = InstanceType(regionId, jv::Str(instance, "InstanceType"))) cpu = jv::Str(*t, "CpuArchitecture");
    return ArchitectureOf(cpu, OsNameOf(instance));
}

std::optional<json> Impl::FindInstance(const std::string& regionId, const std::string& id) {
    json answer = Call("DescribeInstances", regionId, {{"InstanceIds", jv::IdArray({id})}});
    for (const json& i : jv::RequiredList(answer, "Instances", "Instance", "DescribeInstances")) {
        if (jv::Str(i, "InstanceId") == id) return i;
    }
    return std::nullopt;
}

std::optional<json> Impl::FindDisk(const std::string& regionId, const std::string& id) {
    json answer = Call("DescribeDisks", regionId, {{"DiskIds", jv::IdArray({id})}});
    for (const json& d : jv::RequiredList(answer, "Disks", "Disk", "DescribeDisks")) {
        if (jv::Str(d, "DiskId") == id) return d;
    }
    return std::nullopt;
}

std::optional<json> Impl::FindSnapshot(const std::string& regionId, const std::string& id) {
    json answer = Call("DescribeSnapshots", regionId, {{"SnapshotIds", jv::IdArray({id})}});
    for (const json& s : jv::RequiredList(answer, "Snapshots", "Snapshot", "DescribeSnapshots")) {
        if (jv::Str(s, "SnapshotId") == id) return s;
    }
    return std::nullopt;
}

std::optional<json> Impl::FindImage(const std::string& regionId, const std::string& id) {
    json answer = Call("DescribeImages", regionId,
                       {{"ImageId", id}, {"Status", kAllImageStatuses}, {"ImageOwnerAlias", "self"}});
    for (const json& m : jv::RequiredList(answer, "Images", "Image", "DescribeImages")) {
        if (jv::Str(m, "ImageId") == id) return m;
    }
    return std::nullopt;
}

std::optional<json> Impl::Find(Kind kind, const std::string& regionId, const std::string& id) {
    std::optional<json> found;
    try {
        switch (kind) {
            case Kind::Instance: found = FindInstance(regionId, id); break;
            case Kind::Disk: found = FindDisk(regionId, id); break;
            case Kind::Snapshot: found = FindSnapshot(regionId, id); break;
            case Kind::Image: found = FindImage(regionId, id); break;
        }
    } catch (const ApiError& e) {
        // Some ECS versions answer a Describe by a malformed or foreign id with NotFound
        // instead of an empty list.
        if (e.kind() == ApiError::Kind::Service && e.IsNotFound()) return std::nullopt;
        throw;
    }
    if (found) Remember(id, regionId);
    return found;
}

json Impl::Require(Kind kind, const std::string& regionId, const std::string& id) {
    if (auto found = Find(kind, regionId, id)) return *found;
    const int k = static_cast<int>(kind);
    throw NotFound(NotFoundCode(k), std::string("The specified ") + KindName(k) + " " + id +
                                        " does not exist in region " + regionId + ".");
}

void Impl::Remember(const std::string& id, const std::string& regionId) {
    if (!id.empty() && !regionId.empty()) regionOf_[id] = regionId;
}

std::string Impl::RegionOf(Kind kind, const std::string& id) {
    RequireArg(id, KindName(static_cast<int>(kind)) + std::string(" id"));
    if (auto it = regionOf_.find(id); it != regionOf_.end()) return it->second;
    std::vector<std::string> candidates;
    auto add = [&](const std::string& r) {
        if (!r.empty() && std::find(candidates.begin(), candidates.end(), r) == candidates.end()) {
            candidates.push_back(r);
        }
    };
    if (auto r = ProxyRegion()) add(*r);
    add(deps_.settings.defaultRegion);
    for (const json& r : Regions()) add(jv::Str(r, "RegionId"));
    for (const std::string& region : candidates) {
        if (Find(kind, region, id)) return region;
    }
    const int k = static_cast<int>(kind);
    throw NotFound(NotFoundCode(k), std::string("The specified ") + KindName(k) + " " + id +
                                        " does not exist in any of " + std::to_string(candidates.size()) +
                                        " regions.");
}

std::pair<std::string, std::optional<json>> Impl::Locate(Kind kind, const std::string& id) {
    try {
        const std::string region = RegionOf(kind, id);
        return {region, Find(kind, region, id)};
    } catch (const ApiError& e) {
        if (e.kind() == ApiError::Kind::Service && e.IsNotFound()) return {std::string(), std::nullopt};
        throw;
    }
}

std::string Impl::RegionOr(const std::string& regionId, Kind kind, const std::string& id) {
    return regionId.empty() ? RegionOf(kind, id) : regionId;
}
