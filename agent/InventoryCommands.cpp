#include "InventoryCommands.h"

#include <algorithm>
#include <iostream>

#include "Progress.h"

namespace hxagent {

using nlohmann::json;

namespace {
constexpr UINT64 kWithInstances = 1ull << 29;  // ask region/zone lookups for their instances

json VMJson(const SVMInfo& v) {
    json disks = json::array();
    for (const auto& d : v.disks)
        disks.push_back({{"id", d.diskId}, {"name", d.diskName}, {"isOSDisk", d.isOSDisk}, {"diskSize", d.diskSize},
                         {"category", d.category}, {"device", d.diskLabel}, {"zoneId", d.zone}});
    return {{"id", v.guid},       {"name", v.name},         {"status", v.status},     {"instanceType", v.vmProfile},
            {"regionId", v.regionId}, {"zoneId", v.hostName}, {"guestOS", v.guestOS}, {"cpu", v.cpuCount},
            {"memoryMiB", v.memoryMiB}, {"disks", disks}};
}

InventoryOutcome ListOutcome(std::vector<SVMInfo> list) {
    InventoryOutcome out;
    std::sort(list.begin(), list.end(), [](const SVMInfo& a, const SVMInfo& b) { return a.name < b.name; });
    out.rows.push_back({"ID", "NAME", "STATUS", "TYPE", "ZONE"});
    out.resultKey = "instances";
    out.result = json::array();
    for (const auto& v : list) {
        out.rows.push_back({v.guid, v.name, v.status, v.vmProfile, v.hostName});
        out.result.push_back(VMJson(v));
    }
    out.ok = true;
    return out;
}
}  // namespace

std::vector<std::string> SplitBrowsePath(const std::string& path) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : path) {
        if (c == '\\') {
            if (!cur.empty()) parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) parts.push_back(cur);
    return parts;
}

SInventoryInfo BuildBrowseTree(const std::vector<SInventoryInfo>& chain) {
    SInventoryInfo root;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        SInventoryInfo node = *it;
        node.children.clear();
        if (it != chain.rbegin()) node.children.push_back(root);
        root = node;
    }
    return root;
}

const char* InventoryTypeName(EInventoryType type) {
    switch (type) {
        case INVENTORY_VIEW: return "view";
        case INVENTORY_ROOT: return "root";
        case INVENTORY_DATACENTER: return "region";
        case INVENTORY_HOST: return "zone";
        case INVENTORY_VM: return "instance";
        default: return "other";
    }
}

InventoryOutcome RunBrowse(AgentContext& context, const std::string& path) {
    InventoryOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    CVMInfo& vm = session->vm();

    // Walk down as the console does: list a level, pick the child by name, go on.
    const auto parts = SplitBrowsePath(path);
    std::vector<SInventoryInfo> chain;
    std::string current;
    std::vector<SInventoryInfo> level;
    for (size_t i = 0; i <= parts.size(); ++i) {
        level.clear();
        const std::string browsePath = current.empty() ? "\\" : current;
        if (vm.BrowseInventory(browsePath, BuildBrowseTree(chain), level, 0, 0) != 1) {
            out.failure = PluginFailure(vm, "BrowseInventory", "cannot browse '" + browsePath + "'");
            if (out.failure.details.empty()) out.failure.details = context.LogHint();
            return out;
        }
        if (i == parts.size()) break;
        auto hit = std::find_if(level.begin(), level.end(), [&](const SInventoryInfo& n) {
            return n.name == parts[i] || (!n.id.empty() && n.id == parts[i]);
        });
        if (hit == level.end()) {
            out.failure = LocalFailure("no node '" + parts[i] + "' under '" + browsePath + "'", kExitUsage);
            return out;
        }
        chain.push_back(*hit);
        current += "\\" + hit->name;
    }
    out.rows.push_back({"TYPE", "NAME", "ID"});
    out.resultKey = "nodes";
    out.result = json::array();
    for (const auto& n : level) {
        out.rows.push_back({InventoryTypeName(n.type), n.name, n.id});
        out.result.push_back({{"type", InventoryTypeName(n.type)}, {"name", n.name}, {"id", n.id},
                              {"path", (current.empty() ? std::string() : current) + "\\" + n.name}});
    }
    out.ok = true;
    return out;
}

bool ResolveInstance(CVMInfo& vm, const std::string& wanted, bool withDisks, SVMInfo& out, JobFailure& failure) {
    if (wanted.rfind("i-", 0) == 0) {
        if (vm.GetVMInfoForVM("", wanted, "", 0, 0, out) == 1 && !out.guid.empty()) return true;
        failure = PluginFailure(vm, "GetVMInfoForVM", "instance " + wanted + " not found");
        if (failure.code == 0) failure.code = VMINFO_ERR_VM_NOT_FOUND;
        return false;
    }
    std::vector<SVMInfo> list;
    std::vector<std::string> names{wanted};
    if (vm.GetVMInfoList(list, 0, 0, &names, FILTER_INCLUDE_NAMES) != 1) {
        failure = PluginFailure(vm, "GetVMInfoList", "cannot list instances to find '" + wanted + "'");
        return false;
    }
    std::vector<SVMInfo> exact;
    for (auto& i : list)
        if (i.name == wanted || i.guid == wanted) exact.push_back(i);
    if (exact.size() != 1) {
        failure = LocalFailure(exact.empty() ? "no instance is named '" + wanted + "'"
                                             : std::to_string(exact.size()) + " instances are named '" + wanted +
                                                   "'; give the instance id",
                               kExitUsage);
        return false;
    }
    if (withDisks) return ResolveInstance(vm, exact.front().guid, true, out, failure);
    out = exact.front();
    return true;
}

InventoryOutcome RunDescribeInstance(AgentContext& context, const std::string& instance) {
    InventoryOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    SVMInfo v;
    if (!ResolveInstance(session->vm(), instance, true, v, out.failure)) return out;
    out.heading = "Instance " + v.guid + " (" + v.name + "), " + v.status + ", " + v.vmProfile + ", " + v.regionId +
                  "/" + v.hostName + ", " + std::to_string(v.cpuCount) + " vCPU, " +
                  FormatBytes(static_cast<std::uint64_t>(v.memoryMiB) << 20) + ", " + v.guestOS;
    out.rows.push_back({"DISK", "SYSTEM", "SIZE", "CATEGORY", "DEVICE", "ZONE", "NAME"});
    for (const auto& d : v.disks)
        out.rows.push_back({d.diskId, d.isOSDisk ? "yes" : "", std::to_string(d.diskSize) + " GiB", d.category,
                            d.diskLabel, d.zone, d.diskName});
    out.resultKey = "instance";
    out.result = VMJson(v);
    out.ok = true;
    return out;
}

InventoryOutcome RunList(AgentContext& context, const std::string& region, const std::string& zone,
                         const std::string& pattern, bool withDisks) {
    InventoryOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    CVMInfo& vm = session->vm();
    std::vector<SVMInfo> list;
    std::vector<std::string> patterns;
    if (!pattern.empty()) patterns.push_back(pattern);
    if (!zone.empty() || !region.empty()) {
        const bool byZone = !zone.empty();
        if (vm.GetVMInfoListForInventoryObject(byZone ? zone : region, byZone ? INVENTORY_HOST : INVENTORY_DATACENTER,
                                               kWithInstances, 0, list) != 1) {
            out.failure = PluginFailure(vm, "GetVMInfoListForInventoryObject",
                                        "cannot list the instances of " + (byZone ? "zone " + zone : "region " + region));
            if (out.failure.details.empty()) out.failure.details = "is the name right? see 'hxagent browse'";
            return out;
        }
        if (!patterns.empty()) list = CVMInfo::_FilterVMInfoList(list, patterns, FILTER_INCLUDE_PATTERN);
    } else if (vm.GetVMInfoList(list, 0, 0, patterns.empty() ? nullptr : &patterns,
                                patterns.empty() ? FILTER_NONE : FILTER_INCLUDE_PATTERN) != 1) {
        out.failure = PluginFailure(vm, "GetVMInfoList", "cannot list the instances");
        return out;
    }
    if (withDisks) {
        for (auto& v : list) {
            SVMInfo full;
            if (vm.GetVMInfoForVM("", v.guid, "", 0, 0, full) != 1) {
                out.failure = PluginFailure(vm, "GetVMInfoForVM", "cannot read the disks of " + v.guid);
                return out;
            }
            v.disks = std::move(full.disks);
        }
    }
    return ListOutcome(std::move(list));
}

InventoryOutcome RunTypes(AgentContext& context, const std::string& host) {
    InventoryOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    CVMInfo& vm = session->vm();
    std::string combined = host;
    if (host.find('|') == std::string::npos) {
        // A zone alone: its region comes from the zone's own record.
        SHostInfo zone;
        if (vm.GetHostInfoForHost(host, 0, 0, zone) != 1 || zone.regionId.empty()) {
            out.failure = PluginFailure(vm, "GetHostInfoForHost", "no zone '" + host + "'");
            if (out.failure.details.empty()) out.failure.details = "give REGION|ZONE, e.g. 'cn-hangzhou|cn-hangzhou-h'";
            return out;
        }
        combined = zone.regionId + "|" + host;
    }
    std::vector<SVMSizeInfo> sizes;
    if (vm.GetAvailableVMSizesForHost(combined, sizes, 0, 0) != 1) {
        out.failure = PluginFailure(vm, "GetAvailableVMSizesForHost", "cannot list the instance types of " + combined);
        return out;
    }
    out.rows.push_back({"TYPE", "VCPU", "MEMORY", "MAX DISKS"});
    out.resultKey = "types";
    out.result = json::array();
    for (const auto& s : sizes) {
        out.rows.push_back({s.name, std::to_string(s.specValue1),
                            s.specValue2 ? std::to_string(s.specValue2) + " MiB" : "-",
                            s.maxDisks ? std::to_string(s.maxDisks) : "-"});
        out.result.push_back(
            {{"name", s.name}, {"cpu", s.specValue1}, {"memoryMiB", s.specValue2}, {"maxDisks", s.maxDisks}});
    }
    out.ok = true;
    return out;
}

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> width;
    for (const auto& r : rows)
        for (size_t i = 0; i < r.size(); ++i) {
            if (width.size() <= i) width.push_back(0);
            width[i] = std::max(width[i], r[i].size());
        }
    for (const auto& r : rows) {
        std::string line;
        for (size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
        }
        std::cout << line << "\n";
    }
}

}  // namespace hxagent
