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
    Api();  // answers belong to a connection
    std::vector<json> regions = answers_->Regions();
    if (regions.empty()) {
        json answer = Call("DescribeRegions", DefaultRegion(), {});
        regions = jv::RequiredList(answer, "Regions", "Region", "DescribeRegions");
        if (regions.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "DescribeRegions listed no region");
        answers_->SetRegions(regions);
    }
    return regions;
}

std::vector<json> Impl::Zones(const std::string& regionId) {
    json answer = Call("DescribeZones", regionId, {{"Verbose", "false"}});
    return jv::RequiredList(answer, "Zones", "Zone", "DescribeZones");
}

std::vector<json> Impl::Instances(const std::string& regionId, Params filter) {
    filter["MaxResults"] = "100";
    std::vector<json> list = ListPaged("DescribeInstances", regionId, std::move(filter), "Instances", "Instance");
    for (const json& i : list) {
        Remember(jv::Str(i, "InstanceId"), regionId);
        Keep(jv::Str(i, "InstanceId"), i);
    }
    return list;
}

std::vector<Impl::SVMInfo> Impl::InstancesAsRecords(const std::string& regionId, Params filter) {
    // A list by name is kept too: a restore's pre-flight and the plug-in both ask who bears
    // the name. Creating or releasing an instance drops it.
    const auto name = filter.find("InstanceName");
    const std::string key = name == filter.end() || filter.size() != 1 ? "" : NamedKey(regionId, name->second);
    std::vector<json> list;
    if (auto kept = key.empty() ? std::nullopt : Kept(key)) {
        list = kept->get<std::vector<json>>();
    } else {
        list = Instances(regionId, std::move(filter));
        if (!key.empty()) Keep(key, list);
    }
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
        if (!t.empty() && !Kept(TypeKey(t)) &&
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
            Keep(TypeKey(jv::Str(t, "InstanceTypeId")), t);
        }
        // Remember unknown types as null so that they are not asked for again.
        for (size_t i = start; i < std::min(missing.size(), start + 10); ++i) {
            if (!Kept(TypeKey(missing[i]))) Keep(TypeKey(missing[i]), json());
        }
    }
}

std::optional<json> Impl::InstanceType(const std::string& regionId, const std::string& typeId) {
    if (typeId.empty()) return std::nullopt;
    LoadInstanceTypes(regionId, {typeId});
    auto type = Kept(TypeKey(typeId));
    if (!type || type->is_null()) return std::nullopt;
    return type;
}

std::string Impl::ArchitectureFor(const std::string& regionId, const json& instance) {
    std::string cpu;
    if (auto t = InstanceType(regionId, jv::Str(instance, "InstanceType"))) cpu = jv::Str(*t, "CpuArchitecture");
    return ArchitectureOf(cpu, OsNameOf(instance));
}

namespace {
// How one object of each kind (in the order of Impl::Kind) is described by id, and where the
// answer lists it. Images are asked for by ImageId with every status (see FindById).
struct DescribeById {
    const char* action;
    const char* idsParameter;
    const char* list;
    const char* item;
    const char* idKey;
};
constexpr DescribeById kDescribeById[] = {
    {"DescribeInstances", "InstanceIds", "Instances", "Instance", "InstanceId"},
    {"DescribeDisks", "DiskIds", "Disks", "Disk", "DiskId"},
    {"DescribeSnapshots", "SnapshotIds", "Snapshots", "Snapshot", "SnapshotId"},
    {"DescribeImages", "ImageId", "Images", "Image", "ImageId"},
};
}  // namespace

std::optional<json> Impl::FindById(Kind kind, const std::string& regionId, const std::string& id) {
    const DescribeById& d = kDescribeById[static_cast<int>(kind)];
    // DescribeImages lists only Available images unless told otherwise, and public ones too.
    const Params params = kind == Kind::Image
                              ? Params{{d.idsParameter, id}, {"Status", kAllImageStatuses}, {"ImageOwnerAlias", "self"}}
                              : Params{{d.idsParameter, jv::IdArray({id})}};
    json answer = Call(d.action, regionId, params);
    for (const json& o : jv::RequiredList(answer, d.list, d.item, d.action)) {
        if (jv::Str(o, d.idKey) == id) return o;
    }
    return std::nullopt;
}

std::optional<json> Impl::Find(Kind kind, const std::string& regionId, const std::string& id) {
    std::optional<json> found;
    try {
        found = FindById(kind, regionId, id);
    } catch (const ApiError& e) {
        // Some ECS versions answer a Describe by a malformed or foreign id with NotFound
        // instead of an empty list.
        if (e.kind() == ApiError::Kind::Service && e.IsNotFound()) return std::nullopt;
        throw;
    }
    if (found) {
        Remember(id, regionId);
        Keep(id, *found);
    } else {
        Forget(id);
    }
    return found;
}

std::optional<json> Impl::Kept(const std::string& id) {
    if (!answers_) return std::nullopt;
    return answers_->Get(id, deps_.time.now(), kReuseWindow);
}

void Impl::Keep(const std::string& id, const json& item) {
    if (answers_ && !id.empty()) answers_->Put(id, item, deps_.time.now());
}

void Impl::Forget(const std::string& id) {
    if (answers_) answers_->Drop(id);
}

void Impl::ForgetNamedLists() {
    if (answers_) answers_->DropPrefix("named:");
}

std::shared_ptr<SharedAnswers> SharedAnswers::For(const std::string& key) {
    static std::mutex registryMutex;
    static std::map<std::string, std::weak_ptr<SharedAnswers>> registry;
    std::lock_guard lock(registryMutex);
    std::weak_ptr<SharedAnswers>& slot = registry[key];
    if (auto answers = slot.lock()) return answers;
    auto answers = std::make_shared<SharedAnswers>();
    slot = answers;
    return answers;
}

std::optional<json> SharedAnswers::Get(const std::string& id, std::chrono::steady_clock::time_point now,
                                       std::chrono::steady_clock::duration maxAge) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(id);
    if (it == entries_.end()) return std::nullopt;
    if (now - it->second.at > maxAge) {
        entries_.erase(it);
        return std::nullopt;
    }
    return it->second.item;
}

void SharedAnswers::Put(const std::string& id, json item, std::chrono::steady_clock::time_point now) {
    std::lock_guard lock(mutex_);
    entries_[id] = {std::move(item), now};
}

void SharedAnswers::Drop(const std::string& id) {
    std::lock_guard lock(mutex_);
    entries_.erase(id);
}

void SharedAnswers::DropPrefix(const std::string& prefix) {
    std::lock_guard lock(mutex_);
    for (auto it = entries_.lower_bound(prefix); it != entries_.end() && it->first.rfind(prefix, 0) == 0;) {
        it = entries_.erase(it);
    }
}

std::vector<json> SharedAnswers::Regions() {
    std::lock_guard lock(mutex_);
    return regions_;
}

void SharedAnswers::SetRegions(std::vector<json> regions) {
    std::lock_guard lock(mutex_);
    regions_ = std::move(regions);
}

bool Impl::Exists(Kind kind, const std::string& regionId, const std::string& id) {
    // A kept answer says yes: a wrong guess costs the deletion's NotFound, which counts as gone.
    if (Kept(id)) return true;
    try {
        return Find(kind, RegionOr(regionId, kind, id), id).has_value();
    } catch (const ApiError& e) {
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
        return false;
    }
}

json Impl::Current(Kind kind, const std::string& regionId, const std::string& id) {
    if (auto kept = Kept(id)) return *kept;
    return Require(kind, regionId, id);
}

void Impl::PollSnapshots(const std::string& regionId, const std::string& id) {
    std::vector<std::string> ids{id};
    for (const std::string& pending : pendingSnapshots_) {
        auto r = regionOf_.find(pending);
        if (pending != id && r != regionOf_.end() && r->second == regionId && ids.size() < 100) ids.push_back(pending);
    }
    std::vector<json> list;
    try {
        const json answer =
            Call("DescribeSnapshots", regionId, {{"SnapshotIds", jv::IdArray(ids)}, {"MaxResults", "100"}});
        list = jv::RequiredList(answer, "Snapshots", "Snapshot", "DescribeSnapshots");
    } catch (const ApiError& e) {
        // As Find: some ECS versions answer NotFound instead of an empty list.
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
    }
    std::set<std::string> listed;
    for (const json& s : list) {
        const std::string sid = jv::Str(s, "SnapshotId");
        if (std::find(ids.begin(), ids.end(), sid) == ids.end()) continue;
        listed.insert(sid);
        Keep(sid, s);
        const std::string status = jv::Str(s, "Status");
        if (status == "accomplished" || status == "failed") pendingSnapshots_.erase(sid);
    }
    for (const std::string& sid : ids) {
        if (listed.count(sid)) continue;
        Forget(sid);
        pendingSnapshots_.erase(sid);
    }
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
    // An answer another bridge of this process kept names the region too (instances, disks).
    if (auto kept = Kept(id)) {
        if (std::string r = jv::Str(*kept, "RegionId"); !r.empty()) return r;
    }
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
    if (auto r = regionOf_.find(id); r != regionOf_.end()) {
        if (auto kept = Kept(id)) return {r->second, kept};
    }
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
