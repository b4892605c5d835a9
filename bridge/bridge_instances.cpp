// Instances: describing one with its disks and configuration document, creating one from an
// image, power, status and release.
#include "bridge_impl.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "bridge_common.h"
#include "config_document.h"
#include "json_util.h"
#include "mapping.h"
#include "platform_names.h"
#include "hxutil/IsoTime.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

namespace {

// The codes of a private address ECS will not give: InvalidPrivateIpAddress*,
// InvalidIpAddress* and InvalidIPAddress* (AlreadyUsed); ECS is not consistent about case.
bool IsAddressRefusal(const std::string& code) {
    std::string lower = code;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.rfind("invalidprivateipaddress", 0) == 0 || lower.rfind("invalidipaddress", 0) == 0;
}

}  // namespace

Impl::SVMInfo Impl::DescribeWithDisks(const std::string& instanceId, json* instanceOut, std::vector<json>* disksOut,
                                      std::string* regionOut) {
    RequireArg(instanceId, "instance id");
    const std::string region = RegionOf(Kind::Instance, instanceId);
    json instance = Current(Kind::Instance, region, instanceId);
    std::vector<json> disks = DisksOf(region, instanceId);
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

std::vector<json> Impl::DisksOf(const std::string& region, const std::string& instanceId) {
    const std::string listKey = DiskListKey(instanceId);
    if (auto ids = Kept(listKey)) {
        std::vector<json> disks;
        for (const json& id : *ids) {
            auto disk = Kept(id.get<std::string>());
            if (!disk) break;
            disks.push_back(std::move(*disk));
        }
        if (disks.size() == ids->size()) return disks;
    }
    std::vector<json> disks =
        ListPaged("DescribeDisks", region, {{"InstanceId", instanceId}, {"MaxResults", "100"}}, "Disks", "Disk");
    json ids = json::array();
    for (const json& d : disks) {
        ids.push_back(jv::Str(d, "DiskId"));
        Keep(ids.back().get<std::string>(), d);
    }
    Keep(listKey, ids);
    return disks;
}

void Impl::GetVMInfoForVM(const std::string& instanceId, SVMInfo& out) {
    out = DescribeWithDisks(instanceId, nullptr, nullptr, nullptr);
}

void Impl::GetVMInfoAndConfigFile(const std::string& instanceId, SVMInfo& out, std::string& configText) {
    ConfigDocument doc;
    std::string region;
    SVMInfo vm = DescribeWithDisks(instanceId, &doc.instance, &doc.disks, &region);
    doc.regionId = region;
    doc.createdAt = hxutil::IsoUtc(std::chrono::system_clock::now());
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
        return CallForNewId("CreateInstance", region, withToken, "InstanceId");
    };
    // The old address is asked for first. ECS refuses it when another instance holds it
    // (InvalidIPAddress.AlreadyUsed, with a capital IP), when it is outside the vSwitch's block
    // (InvalidPrivateIpAddress) or malformed; the restore then goes on with an address ECS
    // picks, since the instance matters more than its address. An address is only
    // meaningful within its vSwitch (ECS refuses it alone), so without one it is dropped.
    std::string id;
    // An address another instance holds is dropped before asking for it: one Describe instead
    // of a CreateInstance that ECS refuses. Other holders (a secondary network interface, a
    // load balancer) still make ECS refuse it; that refusal stays handled below.
    if (!privateIp.empty() && !vSwitch.empty() && AddressTaken(region, vSwitch, privateIp)) privateIp.clear();
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
    ForgetNamedLists();
    Remember(id, region);
    newInstanceId = id;
}

bool Impl::AddressTaken(const std::string& regionId, const std::string& vSwitchId, const std::string& address) {
    const json answer = Call("DescribeInstances", regionId,
                             {{"VSwitchId", vSwitchId}, {"PrivateIpAddresses", jv::IdArray({address})}});
    for (const json& i : jv::RequiredList(answer, "Instances", "Instance", "DescribeInstances")) {
        Remember(jv::Str(i, "InstanceId"), regionId);
        Keep(jv::Str(i, "InstanceId"), i);
        // The filter is the cloud's; the address is compared here too, so that a service that
        // ignored the filter cannot make every address look taken.
        const json vpc = i.contains("VpcAttributes") ? i["VpcAttributes"] : json::object();
        for (const json& ip : jv::WrappedList(vpc, "PrivateIpAddress", "IpAddress")) {
            if (ip.is_string() && ip.get<std::string>() == address) return true;
        }
    }
    return false;
}

void Impl::AddPeripheralComponents(const SVMInfo& vmInfo, const std::string& configText) {
    RequireArg(vmInfo.guid, "instance id");
    const std::string region = RegionOr(vmInfo.regionId, Kind::Instance, vmInfo.guid);
    json instance = Current(Kind::Instance, region, vmInfo.guid);
    Forget(vmInfo.guid);  // its groups and tags change below
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
    json instance = Current(Kind::Instance, region, instanceId);
    const std::string status = jv::Str(instance, "Status");
    if (status == "Running" || status == "Starting") return;
    Forget(instanceId);
    Call("StartInstance", region, {{"InstanceId", instanceId}});
}

void Impl::PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped, bool stopCharging) {
    const std::string region = RegionOf(Kind::Instance, instanceId);
    const bool fromKept = Kept(instanceId).has_value();
    json instance = Current(Kind::Instance, region, instanceId);
    const std::string status = jv::Str(instance, "Status");
    const bool issued = status != "Stopped" && status != "Stopping";
    if (issued) {
        Forget(instanceId);
        try {
            Call("StopInstance", region,
                 {{"InstanceId", instanceId},
                  {"ForceStop", forceStop ? "true" : "false"},
                  {"StoppedMode", stopCharging ? "StopCharging" : "KeepCharging"}});
        } catch (const ApiError&) {
            // Checked against a kept answer: it may have stopped since.
            const std::string now = fromKept ? jv::Str(Require(Kind::Instance, region, instanceId), "Status") : "";
            if (now != "Stopped" && now != "Stopping") throw;
        }
    }
    if (!waitUntilStopped) return;
    WaitUntil(issued ? waits_.stopInstance : ProbeAtOnce(waits_.stopInstance), deps_.time,
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
    Forget(instanceId);
    Forget(DiskListKey(instanceId));
    ForgetNamedLists();
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
