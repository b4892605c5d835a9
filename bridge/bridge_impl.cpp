#include "bridge_impl.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iostream>
#include <set>

#include "config_document.h"
#include "credentials_chain.h"
#include "json_util.h"
#include "mapping.h"
#include "platform_names.h"

namespace hxbridge {

WaitBounds WaitBounds::Scaled(double scale) const {
    WaitBounds out;
    out.createDisk = createDisk.Scaled(scale);
    out.attachDisk = attachDisk.Scaled(scale);
    out.detachDisk = detachDisk.Scaled(scale);
    out.createImage = createImage.Scaled(scale);
    out.stopInstance = stopInstance.Scaled(scale);
    out.deletion = deletion.Scaled(scale);
    return out;
}

}  // namespace hxbridge

using namespace hxbridge;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

namespace {

constexpr const char* kDefaultRegion = "cn-hangzhou";
constexpr const char* kDefaultDescription = "Created by HXAliCloudSDKCppBridge";
// Every status DescribeImages knows; without the list it reports Available images only.
constexpr const char* kAllImageStatuses = "Creating,Waiting,Available,UnAvailable,CreateFailed,Deprecated";

ApiError NotFound(const std::string& code, const std::string& what) {
    return ApiError(ApiError::Kind::Service, code, what, {}, 404);
}

ApiError ClientError(const std::string& code, const std::string& what) {
    return ApiError(ApiError::Kind::Client, code, what);
}

void RequireArg(const std::string& value, const std::string& name) {
    if (value.empty()) throw ClientError("MissingParameter", name + " is empty");
}

const char* NotFoundCode(int kind) {
    switch (kind) {
        case 0: return "InvalidInstanceId.NotFound";
        case 1: return "InvalidDiskId.NotFound";
        case 2: return "InvalidSnapshotId.NotFound";
        default: return "InvalidImageId.NotFound";
    }
}

// The codes of a private address ECS will not give: InvalidPrivateIpAddress*,
// InvalidIpAddress* and InvalidIPAddress* (AlreadyUsed); ECS is not consistent about case.
bool IsAddressRefusal(const std::string& code) {
    std::string lower = code;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.rfind("invalidprivateipaddress", 0) == 0 || lower.rfind("invalidipaddress", 0) == 0;
}

const char* KindName(int kind) {
    switch (kind) {
        case 0: return "instance";
        case 1: return "disk";
        case 2: return "snapshot";
        default: return "image";
    }
}

}  // namespace

Impl::Impl() = default;

Impl::Impl(BridgeDependencies deps) : deps_(std::move(deps)), fixedDependencies_(true) {}

bool Impl::Run(const std::function<void()>& op) {
    try {
        op();
        return true;
    } catch (const ApiError& e) {
        lastError_ = e.Describe();
    } catch (const std::exception& e) {
        lastError_ = std::string("InternalError: ") + e.what();
    } catch (...) {
        lastError_ = "InternalError: unexpected failure";
    }
    return false;
}

// ---------------------------------------------------------------- connection

namespace {
// The provider Connect signs with. A host that runs on ECS without a key on disk passes
// placeholders and sets ALIBABA_CLOUD_BRIDGE_CREDENTIALS=chain (see settings.h); otherwise
// the AccessKey of Connect is used as before, with ALIBABA_CLOUD_SECURITY_TOKEN if set.
std::shared_ptr<CredentialsProvider> ConnectCredentials(const BridgeDependencies& deps, const std::string& id,
                                                        const std::string& secret) {
    if (!deps.settings.credentialChain) {
        return std::make_shared<StaticCredentialsProvider>(Credentials{id, secret, deps.settings.securityToken},
                                                           "the AccessKey " + MaskAccessKeyId(id));
    }
    ChainDependencies chain;
    chain.env = ReadEnvironment;
    chain.http = deps.ecsTransport;
    chain.metadataHttp = deps.metadataTransport;
    chain.metadataEndpoint = deps.settings.metadataEndpoint;
    chain.refreshMargin = std::max(std::chrono::milliseconds(1),
                                   std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::minutes(5) * deps.settings.timeScale));
    return ResolveCredentialChain(chain);
}
}  // namespace

void Impl::Connect(const std::string& accessKeyId, const std::string& accessKeySecret) {
    RequireArg(accessKeyId, "AccessKey id");
    RequireArg(accessKeySecret, "AccessKey secret");
    Disconnect();
    if (!fixedDependencies_) {
        deps_.settings = BridgeSettings::FromEnvironment();
        deps_.ecsTransport.reset();
        deps_.metadataTransport.reset();
    }
    if (!deps_.ecsTransport) deps_.ecsTransport = std::make_shared<CurlTransport>();
    if (!deps_.metadataTransport) deps_.metadataTransport = std::make_shared<CurlTransport>(MetadataTransportOptions());
    job_ = JobLabel::FromEnvironment();
    const double scale = deps_.settings.timeScale;
    waits_ = WaitBounds().Scaled(scale);

    ApiClientOptions options;
    options.retry = RetryPolicy().Scaled(scale);
    options.sleep = deps_.time.sleep;
    if (deps_.settings.debug) {
        options.trace = [](const std::string& line) { std::cerr << "hx-bridge: " << line << std::endl; };
    }
    auto credentials = ConnectCredentials(deps_, accessKeyId, accessKeySecret);
    EndpointResolver endpoints{deps_.settings.ecsEndpoint, deps_.settings.vpcNetwork};
    metadata_ = std::make_unique<MetadataClient>(deps_.metadataTransport, deps_.settings.metadataEndpoint);
    api_ = std::make_unique<ApiClient>(deps_.ecsTransport, deps_.signer, credentials, endpoints, options);
    try {
        Regions();  // proves the credentials and the endpoint; the list is needed anyway
    } catch (...) {
        api_.reset();
        throw;
    }
}

void Impl::Disconnect() {
    api_.reset();
    regionOf_.clear();
    regions_.clear();
    instanceTypes_.clear();
    vmCache_.clear();
}

ApiClient& Impl::Api() {
    if (!api_) throw ClientError("NotConnected", "the bridge is not connected (call Connect first)");
    return *api_;
}

json Impl::Call(const std::string& action, const std::string& regionId, Params params) {
    return Api().Call(action, regionId, std::move(params));
}

std::string Impl::ClientToken() { return RandomUuid(); }

std::string Impl::DefaultRegion() {
    if (!deps_.settings.defaultRegion.empty()) return deps_.settings.defaultRegion;
    if (auto r = ProxyRegion()) return *r;
    return kDefaultRegion;
}

// ---------------------------------------------------------------- metadata

std::optional<std::string> Impl::ProxyInstanceId(bool forceAsk) {
    if (proxyId_) return proxyId_;
    const auto now = deps_.time.now();
    if (!forceAsk && now < proxyNegativeUntil_) return std::nullopt;
    if (!metadata_) {
        if (!deps_.metadataTransport) deps_.metadataTransport = std::make_shared<CurlTransport>(MetadataTransportOptions());
        if (!fixedDependencies_ && deps_.settings.metadataEndpoint.empty()) {
            deps_.settings = BridgeSettings::FromEnvironment();
        }
        metadata_ = std::make_unique<MetadataClient>(deps_.metadataTransport, deps_.settings.metadataEndpoint.empty()
                                                                                  ? kDefaultMetadataEndpoint
                                                                                  : deps_.settings.metadataEndpoint);
    }
    proxyId_ = metadata_->Get("instance-id");
    // Off ECS every lookup costs a connect timeout: ask again only after a while.
    if (!proxyId_) proxyNegativeUntil_ = now + std::chrono::minutes(5);
    return proxyId_;
}

std::optional<std::string> Impl::ProxyRegion() {
    if (proxyRegion_) return proxyRegion_;
    if (!ProxyInstanceId(false)) return std::nullopt;
    proxyRegion_ = metadata_->Get("region-id");
    return proxyRegion_;
}

void Impl::GetLocalInstanceId(std::string& instanceId) {
    instanceId.clear();
    if (auto id = ProxyInstanceId(true)) {
        instanceId = *id;
        return;
    }
    throw ApiError(ApiError::Kind::Network, "MetadataUnavailable",
                   "the instance metadata service did not give an instance id; this machine is not an ECS "
                   "instance or cannot reach the service");
}

std::string Impl::OwnershipProxyId() { return ProxyInstanceId(false).value_or("unknown"); }

int Impl::AddOwnershipTags(Params& params, const std::string& role, bool incomplete, int first) {
    return hxbridge::AddOwnershipTags(params, first, OwnershipProxyId(), job_, role, incomplete);
}

void Impl::RequireOwned(Kind kind, const json& item, const std::string& id) {
    const std::string proxy = OwnershipProxyId();
    if (IsOwnedBy(item, proxy)) return;
    throw ApiError(ApiError::Kind::Client, "NotOwnedByThisProxy",
                   std::string("the ") + KindName(static_cast<int>(kind)) + " " + id +
                       " is not tagged as created by this bridge for proxy " + proxy + "; it is left alone");
}

void Impl::WaitUntilGone(Kind kind, const std::string& regionId, const std::string& id) {
    WaitUntil(waits_.deletion, deps_.time, [&] { return !Find(kind, regionId, id).has_value(); },
              std::string(KindName(static_cast<int>(kind))) + " " + id + " disappearing after its deletion");
}

// ---------------------------------------------------------------- lists and lookups

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

// ---------------------------------------------------------------- inventory

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
        instanceTypes_[jv::Str(t, "InstanceTypeId")] = std::move(t);
    }
    out = std::move(result);
}

// ---------------------------------------------------------------- instances

Impl::SVMInfo Impl::DescribeWithDisks(const std::string& instanceId, json* instanceOut, std::vector<json>* disksOut,
                                      std::string* regionOut) {
    RequireArg(instanceId, "instance id");
    const std::string region = RegionOf(Kind::Instance, instanceId);
    json instance = Require(Kind::Instance, region, instanceId);
    std::vector<json> disks = ListPaged("DescribeDisks", region, {{"InstanceId", instanceId}, {"MaxResults", "100"}},
                                        "Disks", "Disk");
    SVMInfo vm = InstanceFromJson(instance, ArchitectureFor(region, instance));
    if (vm.regionId.empty()) vm.regionId = region;
    // System disk first: restores and the backup's OS-disk checks look for it there.
    std::stable_sort(disks.begin(), disks.end(), [](const json& a, const json& b) {
        return jv::Str(a, "Type") == "system" && jv::Str(b, "Type") != "system";
    });
    for (const json& d : disks) {
        Remember(jv::Str(d, "DiskId"), region);
        vm.disks.push_back(DiskFromJson(d));
    }
    if (instanceOut) *instanceOut = std::move(instance);
    if (disksOut) *disksOut = std::move(disks);
    if (regionOut) *regionOut = region;
    return vm;
}

void Impl::GetVMInfoForVM(const std::string& instanceId, SVMInfo& out) {
    out = DescribeWithDisks(instanceId, nullptr, nullptr, nullptr);
}

void Impl::GetVMInfoAndConfigFile(const std::string& instanceId, SVMInfo& out, std::string& configText) {
    ConfigDocument doc;
    std::string region;
    SVMInfo vm = DescribeWithDisks(instanceId, &doc.instance, &doc.disks, &region);
    doc.regionId = region;
    doc.createdAt = FormatTimestamp(std::chrono::system_clock::now());
    doc.architecture = vm.guestOS.substr(vm.guestOS.rfind(';') + 1);
    if (auto t = InstanceType(region, vm.vmProfile)) doc.instanceType = *t;
    configText = doc.Serialize();
    out = std::move(vm);
}

void Impl::GetVMInfoFromConfigFile(const std::string& configText, SVMInfo& out) {
    out = ConfigDocument::Parse(configText).ToVMInfo();
}

void Impl::CreateInstance(const SVMInfo& vmInfo, const std::string& imageId, const std::string& configText,
                          std::string& newInstanceId) {
    RequireArg(imageId, "image id");
    std::optional<ConfigDocument> doc;
    if (!configText.empty()) doc = ConfigDocument::Parse(configText);
    const json noInstance = json::object();
    const json& src = doc ? doc->instance : noInstance;

    const std::string region = !vmInfo.regionId.empty() ? vmInfo.regionId : (doc ? doc->regionId : std::string());
    const std::string zone = !vmInfo.hostName.empty() ? vmInfo.hostName : jv::Str(src, "ZoneId");
    const std::string type = !vmInfo.vmProfile.empty() ? vmInfo.vmProfile : jv::Str(src, "InstanceType");
    RequireArg(region, "region id");
    RequireArg(zone, "zone id");
    RequireArg(type, "instance type");

    Params p;
    p["ImageId"] = imageId;
    p["ZoneId"] = zone;
    p["InstanceType"] = type;
    if (!vmInfo.name.empty()) p["InstanceName"] = vmInfo.name;
    const std::string description = !vmInfo.description.empty() ? vmInfo.description : jv::Str(src, "Description");
    if (!description.empty()) p["Description"] = description;
    p["InstanceChargeType"] = "PostPaid";

    // Network: the record's primary card; the document's vSwitch and address only when the
    // instance goes back to the zone it came from (a vSwitch belongs to one zone).
    std::string vSwitch, privateIp;
    const VMInfoStructs::SVMNetworkCard* card = nullptr;
    for (const auto& c : vmInfo.networkCards) {
        if (c.primary) { card = &c; break; }
    }
    if (!card && !vmInfo.networkCards.empty()) card = &vmInfo.networkCards.front();
    if (card) {
        vSwitch = card->vSwitchId;
        privateIp = card->privateIp;
    } else if (doc && jv::Str(src, "ZoneId") == zone) {
        json vpc = src.contains("VpcAttributes") ? src["VpcAttributes"] : json::object();
        vSwitch = jv::Str(vpc, "VSwitchId");
        auto ips = jv::WrappedList(vpc, "PrivateIpAddress", "IpAddress");
        if (!ips.empty() && ips.front().is_string()) privateIp = ips.front().get<std::string>();
    }
    if (!vSwitch.empty()) p["VSwitchId"] = vSwitch;

    // CreateInstance takes one security group; AddPeripheralComponents joins the others.
    std::string group;
    if (!vmInfo.securityGroups.empty()) group = vmInfo.securityGroups.front().id;
    else if (doc) {
        auto groups = jv::WrappedList(src, "SecurityGroupIds", "SecurityGroupId");
        if (!groups.empty() && groups.front().is_string()) group = groups.front().get<std::string>();
    }
    if (!group.empty()) p["SecurityGroupId"] = group;

    // System disk: the record's OS disk, else the document's; never smaller than either,
    // since the image's system disk needs at least the size it was taken from.
    std::string category, level;
    long long sizeGiB = 0;
    for (const auto& d : vmInfo.disks) {
        if (d.isOSDisk) {
            category = d.category;
            sizeGiB = d.diskSize;
            level = d.performanceLevel;
            break;
        }
    }
    if (doc) {
        if (const json* sys = doc->SystemDisk()) {
            if (category.empty()) category = jv::Str(*sys, "Category");
            if (level.empty() && jv::Str(*sys, "Category") == category) level = jv::Str(*sys, "PerformanceLevel");
            sizeGiB = std::max<long long>(sizeGiB, jv::Int(*sys, "Size"));
        }
    }
    if (!category.empty()) p["SystemDisk.Category"] = category;
    if (sizeGiB > 0) p["SystemDisk.Size"] = std::to_string(std::max<long long>(sizeGiB, kMinimumSystemDiskGiB));
    if (!level.empty() && category == "cloud_essd") p["SystemDisk.PerformanceLevel"] = level;

    // Tagged as this proxy's incomplete restore from its first moment: a crash before the
    // host finishes the restore leaves an instance the next sweep can find and remove.
    int n = AddOwnershipTags(p, "instance", /*incomplete=*/true);
    if (doc) {
        for (const auto& [key, value] : doc->UserTags()) {
            if (n > kMaxTagsPerResource) break;  // AddPeripheralComponents adds the rest
            p["Tag." + std::to_string(n) + ".Key"] = key;
            p["Tag." + std::to_string(n) + ".Value"] = value;
            ++n;
        }
    }

    auto create = [&](const Params& params) {
        Params withToken = params;
        withToken["ClientToken"] = ClientToken();
        json answer = Call("CreateInstance", region, withToken);
        std::string id = jv::Str(answer, "InstanceId");
        if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateInstance returned no InstanceId");
        return id;
    };
    // The old address is asked for first. ECS refuses it when another instance holds it
    // (InvalidIPAddress.AlreadyUsed, with a capital IP), when it is outside the vSwitch's block
    // (InvalidPrivateIpAddress) or malformed; the restore then goes on with an address ECS
    // picks, since the instance matters more than its address. An address is only
    // meaningful within its vSwitch (ECS refuses it alone), so without one it is dropped.
    std::string id;
    if (!privateIp.empty() && !vSwitch.empty()) {
        Params withIp = p;
        withIp["PrivateIpAddress"] = privateIp;
        try {
            id = create(withIp);
        } catch (const ApiError& e) {
            if (!IsAddressRefusal(e.code())) throw;
        }
    }
    if (id.empty()) id = create(p);
    Remember(id, region);
    newInstanceId = id;
}

void Impl::AddPeripheralComponents(const SVMInfo& vmInfo, const std::string& configText) {
    RequireArg(vmInfo.guid, "instance id");
    const std::string region = RegionOr(vmInfo.regionId, Kind::Instance, vmInfo.guid);
    json instance = Require(Kind::Instance, region, vmInfo.guid);
    std::optional<ConfigDocument> doc;
    if (!configText.empty()) doc = ConfigDocument::Parse(configText);

    // Security groups beyond the first (CreateInstance takes only one).
    std::vector<std::string> wanted;
    if (!vmInfo.securityGroups.empty()) {
        for (const auto& g : vmInfo.securityGroups) wanted.push_back(g.id);
    } else if (doc) {
        for (const json& g : jv::WrappedList(doc->instance, "SecurityGroupIds", "SecurityGroupId")) {
            if (g.is_string()) wanted.push_back(g.get<std::string>());
        }
    }
    std::set<std::string> have;
    for (const json& g : jv::WrappedList(instance, "SecurityGroupIds", "SecurityGroupId")) {
        if (g.is_string()) have.insert(g.get<std::string>());
    }
    std::vector<std::string> failures;
    for (const std::string& g : wanted) {
        if (g.empty() || have.count(g)) continue;
        try {
            Call("JoinSecurityGroup", region, {{"InstanceId", vmInfo.guid}, {"SecurityGroupId", g}});
        } catch (const ApiError& e) {
            failures.push_back("security group " + g + ": " + e.Describe());
        }
    }

    // Tags of the backed-up instance that CreateInstance did not set (it sets them all
    // unless the document changed in between; this catches the rest).
    if (doc) {
        std::map<std::string, std::string> current;
        for (const json& t : jv::WrappedList(instance, "Tags", "Tag")) {
            current[jv::Str(t, "TagKey", jv::Str(t, "Key"))] = jv::Str(t, "TagValue", jv::Str(t, "Value"));
        }
        Params p{{"ResourceType", "instance"}, {"ResourceId.1", vmInfo.guid}};
        int n = 0;
        for (const auto& [key, value] : doc->UserTags()) {
            auto it = current.find(key);
            if (it != current.end() && it->second == value) continue;
            if (++n > 20) break;
            p["Tag." + std::to_string(n) + ".Key"] = key;
            p["Tag." + std::to_string(n) + ".Value"] = value;
        }
        if (n > 0) {
            try {
                Call("TagResources", region, p);
            } catch (const ApiError& e) {
                failures.push_back("tags: " + e.Describe());
            }
        }
    }
    if (!failures.empty()) {
        std::string text;
        for (const auto& f : failures) text += (text.empty() ? "" : "; ") + f;
        throw ApiError(ApiError::Kind::Service, "PeripheralComponentsIncomplete", text);
    }
}

void Impl::PowerOnInstance(const std::string& instanceId) {
    const std::string region = RegionOf(Kind::Instance, instanceId);
    json instance = Require(Kind::Instance, region, instanceId);
    const std::string status = jv::Str(instance, "Status");
    if (status == "Running" || status == "Starting") return;
    Call("StartInstance", region, {{"InstanceId", instanceId}});
}

void Impl::PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped, bool stopCharging) {
    const std::string region = RegionOf(Kind::Instance, instanceId);
    json instance = Require(Kind::Instance, region, instanceId);
    const std::string status = jv::Str(instance, "Status");
    if (status != "Stopped" && status != "Stopping") {
        Call("StopInstance", region,
             {{"InstanceId", instanceId},
              {"ForceStop", forceStop ? "true" : "false"},
              {"StoppedMode", stopCharging ? "StopCharging" : "KeepCharging"}});
    }
    if (!waitUntilStopped) return;
    WaitUntil(waits_.stopInstance, deps_.time,
              [&] { return jv::Str(Require(Kind::Instance, region, instanceId), "Status") == "Stopped"; },
              "instance " + instanceId + " reaching Stopped");
}

void Impl::GetInstanceStatus(const std::string& instanceId, std::string& status) {
    const std::string region = RegionOf(Kind::Instance, instanceId);
    status = jv::Str(Require(Kind::Instance, region, instanceId), "Status");
}

void Impl::DeleteInstance(const std::string& instanceId) {
    // The machine this runs on is never released, whatever a caller's lookup matched.
    if (auto proxy = ProxyInstanceId(false); proxy && *proxy == instanceId) {
        throw ClientError("RefusedProxyInstance", "instance " + instanceId + " is this proxy; it is never deleted");
    }
    const std::string region = RegionOf(Kind::Instance, instanceId);
    try {
        // Force=false: ECS refuses to release an instance that is not Stopped, which guards
        // against deleting a running machine by mistake; callers stop it first.
        Call("DeleteInstance", region, {{"InstanceId", instanceId}, {"Force", "false"}});
    } catch (const ApiError& e) {
        if (!(e.IsNotFound() && e.mayHaveSucceeded())) throw;
    }
    WaitUntilGone(Kind::Instance, region, instanceId);
    regionOf_.erase(instanceId);
}

// ---------------------------------------------------------------- disks

void Impl::CreateDisk(const std::string& regionId, const std::string& zoneId, SDisk& disk,
                      const std::string& snapshotId, const std::string& diskName, const std::string& category,
                      long long sizeGiB, bool encrypted, const std::string& description) {
    RequireArg(regionId, "region id");
    RequireArg(zoneId, "zone id");
    if (snapshotId.empty() && sizeGiB <= 0) throw ClientError("InvalidParameter", "an empty disk needs a size in GiB");
    Params p;
    p["ZoneId"] = zoneId;
    const std::string diskCategory = category.empty() ? "cloud_essd" : category;
    p["DiskCategory"] = diskCategory;
    // An ESSD's performance level may come in with the record; it also sets the minimum size.
    if (!disk.performanceLevel.empty() && diskCategory == "cloud_essd") p["PerformanceLevel"] = disk.performanceLevel;
    // ECS refuses a disk smaller than its category allows, also when it comes from a
    // smaller snapshot (a PL0 or cloud_auto source restored as PL1). Such a disk is made at
    // the category's minimum: larger, never refused.
    const std::int64_t minimum = MinimumDiskSizeGiB(diskCategory, disk.performanceLevel);
    long long size = sizeGiB;
    if (!snapshotId.empty() && size <= 0) {
        const json snap = Require(Kind::Snapshot, regionId, snapshotId);
        if (jv::Int(snap, "SourceDiskSize") < minimum) size = minimum;
    } else if (size > 0 && size < minimum) {
        size = minimum;
    }
    if (size > 0) p["Size"] = std::to_string(size);
    if (!snapshotId.empty()) p["SnapshotId"] = snapshotId;
    if (!diskName.empty()) p["DiskName"] = diskName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    if (encrypted) p["Encrypted"] = "true";
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, snapshotId.empty() ? "restore-disk" : "disk-copy");
    json answer = Call("CreateDisk", regionId, p);
    const std::string id = jv::Str(answer, "DiskId");
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateDisk returned no DiskId");
    Remember(id, regionId);
    // The id is handed out even if the wait fails, so that the caller can delete the disk.
    disk.diskId = id;
    json last;
    WaitUntil(waits_.createDisk, deps_.time,
              [&] {
                  auto found = Find(Kind::Disk, regionId, id);
                  if (!found) return false;  // not yet visible to Describe (eventual consistency)
                  last = *found;
                  return jv::Str(last, "Status") == "Available";
              },
              "disk " + id + " becoming Available");
    disk = DiskFromJson(last);
}

void Impl::GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out) {
    RequireArg(diskId, "disk id");
    out = DiskFromJson(Require(Kind::Disk, RegionOr(regionId, Kind::Disk, diskId), diskId));
}

void Impl::DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists) {
    RequireArg(diskId, "disk id");
    try {
        exists = Find(Kind::Disk, RegionOr(regionId, Kind::Disk, diskId), diskId).has_value();
    } catch (const ApiError& e) {
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
        exists = false;
    }
}

void Impl::AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                      bool waitUntilAttached) {
    limitReached = false;
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOf(Kind::Instance, instanceId);
    auto attachedHere = [&](const json& d) {
        return jv::Str(d, "InstanceId") == instanceId && jv::Str(d, "Status") == "In_use";
    };
    json disk = Require(Kind::Disk, region, diskId);
    if (!attachedHere(disk)) {
        try {
            Call("AttachDisk", region, {{"InstanceId", instanceId}, {"DiskId", diskId}});
        } catch (const ApiError& e) {
            if (e.code() == "InstanceDiskLimitExceeded") {
                limitReached = true;
                throw;
            }
            // After a lost answer the first attempt may have attached it already.
            const json now = Require(Kind::Disk, region, diskId);
            const bool underway = jv::Str(now, "InstanceId") == instanceId &&
                                  (jv::Str(now, "Status") == "In_use" || jv::Str(now, "Status") == "Attaching");
            if (!(e.mayHaveSucceeded() && underway)) throw;
        }
    }
    if (!waitUntilAttached) return;
    WaitUntil(waits_.attachDisk, deps_.time, [&] { return attachedHere(Require(Kind::Disk, region, diskId)); },
              "disk " + diskId + " becoming In_use on " + instanceId);
}

void Impl::DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId) {
    RequireArg(instanceId, "instance id");
    RequireArg(diskId, "disk id");
    const std::string region = RegionOr(regionId, Kind::Disk, diskId);
    json disk = Require(Kind::Disk, region, diskId);
    const std::string status = jv::Str(disk, "Status");
    if (status != "Available" && status != "Detaching") {
        try {
            Call("DetachDisk", region, {{"InstanceId", instanceId}, {"DiskId", diskId}});
        } catch (const ApiError& e) {
            const std::string now = jv::Str(Require(Kind::Disk, region, diskId), "Status");
            if (!(e.mayHaveSucceeded() && (now == "Available" || now == "Detaching"))) throw;
        }
    }
    WaitUntil(waits_.detachDisk, deps_.time,
              [&] { return jv::Str(Require(Kind::Disk, region, diskId), "Status") == "Available"; },
              "disk " + diskId + " becoming Available after detaching");
}

void Impl::DeleteDisk(const std::string& diskId) {
    auto [region, disk] = Locate(Kind::Disk, diskId);
    if (!disk) {
        regionOf_.erase(diskId);  // gone already: what a delete is for
        return;
    }
    RequireOwned(Kind::Disk, *disk, diskId);
    try {
        Call("DeleteDisk", region, {{"DiskId", diskId}});
    } catch (const ApiError& e) {
        if (!(e.IsNotFound() && e.mayHaveSucceeded())) throw;
    }
    WaitUntilGone(Kind::Disk, region, diskId);
    regionOf_.erase(diskId);
}

// ---------------------------------------------------------------- snapshots and images

void Impl::CreateSnapshot(const std::string& diskId, VMInfoStructs::SChildDisk& snapshot,
                          const std::string& snapshotName, const std::string& description) {
    const std::string region = RegionOf(Kind::Disk, diskId);
    const json disk = Require(Kind::Disk, region, diskId);
    Params p{{"DiskId", diskId}};
    if (!snapshotName.empty()) p["SnapshotName"] = snapshotName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, "snapshot");
    json answer = Call("CreateSnapshot", region, p);
    const std::string id = jv::Str(answer, "SnapshotId");
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateSnapshot returned no SnapshotId");
    Remember(id, region);
    snapshot.snapshotId = id;
    snapshot.parentDiskId = diskId;
    snapshot.name = snapshotName;
    snapshot.diskSize = jv::Int(disk, "Size");
    snapshot.progress = 0;
}

void Impl::IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed) {
    RequireArg(snapshotId, "snapshot id");
    const json s = Require(Kind::Snapshot, RegionOr(regionId, Kind::Snapshot, snapshotId), snapshotId);
    const std::string status = jv::Str(s, "Status");
    if (status == "failed") {
        completed = false;
        throw ApiError(ApiError::Kind::Service, "SnapshotFailed", "snapshot " + snapshotId + " failed");
    }
    completed = status == "accomplished";
}

void Impl::DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists) {
    RequireArg(snapshotId, "snapshot id");
    try {
        exists = Find(Kind::Snapshot, RegionOr(regionId, Kind::Snapshot, snapshotId), snapshotId).has_value();
    } catch (const ApiError& e) {
        if (!(e.kind() == ApiError::Kind::Service && e.IsNotFound())) throw;
        exists = false;
    }
}

void Impl::DeleteSnapshot(const std::string& snapshotId) {
    auto [region, snapshot] = Locate(Kind::Snapshot, snapshotId);
    if (!snapshot) {
        regionOf_.erase(snapshotId);  // gone already: what a delete is for
        return;
    }
    RequireOwned(Kind::Snapshot, *snapshot, snapshotId);
    try {
        // Force: the bridge's snapshots are temporary; disks made from them stay usable.
        Call("DeleteSnapshot", region, {{"SnapshotId", snapshotId}, {"Force", "true"}});
    } catch (const ApiError& e) {
        if (!(e.IsNotFound() && e.mayHaveSucceeded())) throw;
    }
    WaitUntilGone(Kind::Snapshot, region, snapshotId);
    regionOf_.erase(snapshotId);
}

void Impl::CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                        const std::vector<std::string>& dataSnapshotIds,
                                        const std::string& architecture, const std::string& platform,
                                        std::string& imageId, const std::string& imageName,
                                        const std::string& description) {
    RequireArg(systemSnapshotId, "system snapshot id");
    const std::string region = RegionOr(regionId, Kind::Snapshot, systemSnapshotId);
    if (dataSnapshotIds.size() > 16) throw ClientError("InvalidParameter", "an image takes at most 16 data disks");
    Params p;
    p["DiskDeviceMapping.1.SnapshotId"] = systemSnapshotId;
    p["DiskDeviceMapping.1.DiskType"] = "system";
    for (size_t i = 0; i < dataSnapshotIds.size(); ++i) {
        const std::string k = "DiskDeviceMapping." + std::to_string(i + 2) + ".";
        p[k + "SnapshotId"] = dataSnapshotIds[i];
        p[k + "DiskType"] = "data";
    }
    p["Architecture"] = ArchitectureOf(architecture, architecture == "i386" ? "32 bit" : "");
    p["Platform"] = ImagePlatformFor(platform);
    if (!imageName.empty()) p["ImageName"] = imageName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, "image");
    json answer = Call("CreateImage", region, p);
    const std::string id = jv::Str(answer, "ImageId");
    if (id.empty()) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", "CreateImage returned no ImageId");
    Remember(id, region);
    imageId = id;  // handed out before the wait so that a failed image can be deleted
    WaitUntil(waits_.createImage, deps_.time,
              [&] {
                  auto found = Find(Kind::Image, region, id);
                  if (!found) return false;
                  const std::string status = jv::Str(*found, "Status");
                  if (status == "CreateFailed" || status == "UnAvailable") {
                      throw ApiError(ApiError::Kind::Service, "ImageCreateFailed",
                                     "image " + id + " ended in status " + status);
                  }
                  return status == "Available";
              },
              "image " + id + " becoming Available");
}

void Impl::DeleteImage(const std::string& regionId, const std::string& imageId, bool force) {
    RequireArg(imageId, "image id");
    // Without a region (a cleanup that knows only the id) an image no region lists is gone.
    auto [region, image] = regionId.empty() ? Locate(Kind::Image, imageId)
                                            : std::pair{regionId, Find(Kind::Image, regionId, imageId)};
    if (!image) {
        // ECS ignores an unknown id; there is nothing to delete or to wait for.
        regionOf_.erase(imageId);
        return;
    }
    RequireOwned(Kind::Image, *image, imageId);
    Call("DeleteImage", region, {{"ImageId", imageId}, {"Force", force ? "true" : "false"}});
    WaitUntilGone(Kind::Image, region, imageId);
    regionOf_.erase(imageId);
}
