#include "Preflight.h"

#include <algorithm>

#include "RestoreJob.h"
#include "Session.h"

namespace hxagent {

std::string CheckExcludedDisks(const SVMInfo& instance, const std::vector<std::string>& patterns) {
    for (const auto& pattern : patterns) {
        MountCtx one;
        one.excludedDisks = {pattern};
        const bool matches = std::any_of(instance.disks.begin(), instance.disks.end(),
                                         [&](const SDisk& d) { return CVMInfo::IsDiskFiltered(one, d); });
        if (matches) continue;
        std::string disks;
        for (const auto& d : instance.disks)
            disks += (disks.empty() ? "" : ", ") + d.diskId + (d.diskName.empty() ? "" : " (" + d.diskName + ")");
        return "--exclude-disk '" + pattern + "' matches no disk of " + instance.guid + "; its disks: " +
               (disks.empty() ? "none" : disks) + " (see 'hxagent describe " + instance.guid + "')";
    }
    return {};
}

namespace {

// Decodes one UTF-8 code point at `i` (advancing it); 0xFFFD for a malformed sequence.
char32_t NextCodePoint(const std::string& s, size_t& i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    int extra = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
    if (extra < 0 || i + extra >= s.size()) {
        ++i;
        return 0xFFFD;
    }
    char32_t cp = extra == 0 ? c : c & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            ++i;
            return 0xFFFD;
        }
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    i += extra + 1;
    return cp;
}

bool IsAsciiLetter(char32_t c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
// CJK Unified Ideographs and their first extension: what ECS calls Chinese characters.
bool IsChinese(char32_t c) { return (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0x3400 && c <= 0x4DBF); }

bool Contains(const std::vector<std::string>& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

std::string Join(const std::vector<std::string>& list, size_t most = 12) {
    std::string out;
    for (size_t i = 0; i < list.size() && i < most; ++i) out += (i ? ", " : "") + list[i];
    if (list.size() > most) out += ", ...";
    return out;
}

}  // namespace

std::string CheckInstanceName(const std::string& name) {
    if (name.rfind("http://", 0) == 0 || name.rfind("https://", 0) == 0)
        return "must not begin with http:// or https://";
    std::vector<char32_t> chars;
    for (size_t i = 0; i < name.size();) chars.push_back(NextCodePoint(name, i));
    if (chars.size() < 2 || chars.size() > 128) return "must be 2 to 128 characters long";
    if (!IsAsciiLetter(chars.front()) && !IsChinese(chars.front()))
        return "must begin with a letter or a Chinese character";
    for (char32_t c : chars) {
        const bool ok = IsAsciiLetter(c) || IsChinese(c) || (c >= '0' && c <= '9') || c == ':' || c == '_' ||
                        c == '.' || c == '-';
        if (!ok) return "may hold only letters, Chinese characters, digits, ':', '_', '.' and '-'";
    }
    return {};
}

std::string CheckRestoreInputs(const Manifest& m, hxbridge::HostBridge& cloud, const std::string& configText) {
    const auto systemDisks = std::count_if(m.disks.begin(), m.disks.end(), [](const auto& d) { return d.isOSDisk; });
    if (systemDisks != 1) {
        return "the backup of " + m.instanceId + " holds " + std::to_string(systemDisks) +
               " system disks; a restore needs exactly one";
    }
    VMInfoStructs::SVMInfo parsed;
    if (!cloud.ParseConfigDocument(configText, parsed))
        return "the configuration document " + m.configFile + " cannot be read: " + cloud.LastError();
    return {};
}

std::vector<std::string> RestorePlan::Lines() const {
    std::vector<std::string> lines;
    if (!replaces.empty()) lines.push_back("stop and delete instance " + replaces + " ('" + name + "')");
    lines.push_back("create " + std::to_string(disks) + " empty disk(s) in " + zoneId + ", attach them to the proxy " +
                    proxyId + " and write the backup onto them");
    lines.push_back("snapshot the system disk and build a temporary custom image from it");
    lines.push_back("create instance '" + name + "' (" + instanceType + ") in " + regionId + "/" + zoneId +
                    " and attach " + std::to_string(dataDisks) + " data disk(s)");
    if (powerOn) lines.push_back("start the instance");
    lines.push_back("delete the temporary snapshot, image and system disk copy");
    return lines;
}

PreflightResult PreflightRestore(hxbridge::HostBridge& cloud, const VMInfoStructs::SVMInfo& proxy, const Manifest& m,
                                 const RestoreRequest& request, RestorePlan& plan, std::string& message) {
    plan.name = request.name;
    plan.regionId = request.region.empty() ? m.regionId : request.region;
    plan.zoneId = request.zone.empty() ? m.zoneId : request.zone;
    plan.instanceType = request.instanceType.empty() ? m.instanceType : request.instanceType;
    plan.proxyId = proxy.guid;
    plan.powerOn = request.powerOn;
    plan.disks = m.disks.size();
    plan.dataDisks = m.disks.empty() ? 0 : m.disks.size() - 1;
    auto cloudError = [&](const std::string& what) {
        message = "restore pre-flight: cannot " + what + ": " + cloud.LastError();
        return PreflightResult::CloudError;
    };
    auto refuse = [&](const std::string& why) {
        message = "restore refused: " + why;
        return PreflightResult::Refused;
    };

    std::vector<std::string> regions;
    if (!cloud.Regions(regions)) return cloudError("list the regions");
    if (!Contains(regions, plan.regionId)) return refuse("region '" + plan.regionId + "' does not exist");
    hxbridge::ZoneOffer offer;
    if (!cloud.DescribeZone(plan.regionId, plan.zoneId, offer)) return cloudError("describe zone " + plan.zoneId);
    if (!offer.zoneKnown) return refuse("zone '" + plan.zoneId + "' is not a zone of region " + plan.regionId);
    if (proxy.hostName != plan.zoneId) {
        return refuse("zone '" + plan.zoneId + "' is not the zone of this proxy (" + proxy.guid + " is in " +
                      proxy.hostName + "); disks attach only within a zone");
    }
    if (!Contains(offer.instanceTypes, plan.instanceType)) {
        return refuse("instance type '" + plan.instanceType + "' is not offered in " + plan.zoneId + " (offered: " +
                      Join(offer.instanceTypes) + ")");
    }
    for (const auto& d : m.disks) {
        if (!d.category.empty() && !Contains(offer.diskCategories, d.category)) {
            return refuse("disk category '" + d.category + "' of disk " + d.id + " is not offered in " + plan.zoneId +
                          " (offered: " + Join(offer.diskCategories) + ")");
        }
    }
    std::vector<VMInfoStructs::SVMInfo> named;
    if (!cloud.InstancesNamed(plan.regionId, request.name, named)) return cloudError("look up '" + request.name + "'");
    if (named.size() > 1) {
        return refuse(std::to_string(named.size()) + " instances in " + plan.regionId + " are named '" + request.name +
                      "'; rename or remove the extra ones, or choose another --name");
    }
    if (named.size() == 1) {
        const std::string id = named.front().guid;
        if (id == proxy.guid) return refuse("'" + request.name + "' is this proxy (" + id + "); it is never replaced");
        if (!request.overwrite) {
            return refuse("an instance named '" + request.name + "' exists (" + id +
                          "); pass --overwrite to replace it or choose another --name");
        }
        plan.replaces = id;
    }
    return PreflightResult::Ok;
}

bool PreflightRestoreJob(AgentContext& context, const Manifest& m, const std::string& configText,
                         const RestoreRequest& request, RestorePlan& plan, JobFailure& failure) {
    hxbridge::HostBridge* cloud = context.Cloud(failure);
    if (!cloud) return false;
    std::string why = CheckRestoreInputs(m, *cloud, configText);
    if (!why.empty()) {
        failure = LocalFailure("restore refused: " + why, kExitUsage);
        return false;
    }
    VMInfoStructs::SVMInfo proxy;
    if (!context.Proxy(proxy, failure)) return false;
    std::string message;
    switch (PreflightRestore(*cloud, proxy, m, request, plan, message)) {
        case PreflightResult::Ok: return true;
        case PreflightResult::Refused: failure = LocalFailure(message, kExitUsage); return false;
        case PreflightResult::CloudError: failure = LocalFailure(message, kExitPluginFailed); return false;
    }
    return false;
}

}  // namespace hxagent
