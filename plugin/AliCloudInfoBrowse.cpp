// Inventory browsing: the tree the framework's console shows, one level per call.
//
// Paths are node names each preceded by one backslash: "\<view>", "\<view>\<region>" and, in
// Region View only, "\Region View\<region>\<zone>". "" and "\" are the root, which lists the
// two views. Region View goes region -> zones -> instances; Instance View region -> instances.
// Browsing never sets a framework error code; a failure is the result 0 plus an error line,
// and whatever was appended before it stays in `out`.
#include <algorithm>

#include "AliCloudInfo.h"
#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {

constexpr char kPathSeparator = '\\';
constexpr const char kRegionViewName[] = "Region View";
constexpr const char kInstanceViewName[] = "Instance View";

// The views in the order the root lists them.
constexpr const char* kViewTable[] = {kInstanceViewName, kRegionViewName};

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

}  // namespace

int CAliCloudInfo::BrowseInventory(const string& path, const SInventoryInfo& tree, vector<SInventoryInfo>& out,
                                   UINT64 flags, int value) {
    log.DebugLvl(kBrowseInventory, 2, "Search path: [%s].", path);
    // Browsing decides itself what each level needs from the bridge; the caller's bits would
    // only make the cloud calls slower (or fill lists nobody shows).
    flags = 0;

    const std::string root(1, kPathSeparator);
    if (path.empty() || path == root) {
        BrowseView(out);  // table order, deliberately not sorted
        return 1;
    }

    const size_t lastSeparator = path.rfind(kPathSeparator);
    if (lastSeparator == std::string::npos) {
        log.Error(kBrowseInventory, "Search path [%s] is not valid.", path);
        return 0;
    }
    const std::string currentName = path.substr(lastSeparator + 1);
    log.Debug(kBrowseInventory, "Current node is [%s].", currentName);

    SInventoryInfo current;  // a view node (type 0) lists the regions
    std::string regionId;
    if (path == root + kRegionViewName || path == root + kInstanceViewName) {
        log.DebugLvl(kBrowseInventory, 2, "Current node [%s] is root node.", currentName);
    } else {
        if (!LocateCurrBrowseNodeInTree(tree, currentName, current, regionId)) {
            log.Error(kBrowseInventory, "Failed to locate browse node [%s] in path [%s].", currentName, path);
            return 0;
        }
        if (current.id.empty()) {
            log.Error(kBrowseInventory, "Current browse node is empty.");
            return 0;
        }
    }

    // "Region View" wins when a path (through odd region or zone names) mentions both views.
    AliCloudViewType view;
    if (Contains(path, kRegionViewName)) {
        view = ALICLOUD_REGION_VIEW;
    } else if (Contains(path, kInstanceViewName)) {
        view = ALICLOUD_INSTANCE_VIEW;
    } else {
        log.Error(kBrowseInventory, "Unrecognised view type [%s].", path);
        return 0;
    }

    const bool result = BrowseAliCloudView(path, current, out, view, flags, value, regionId);
    // Sorted also after a failure, so a partial listing still reads in order.
    std::sort(out.begin(), out.end(), &CAliCloudInfo::CompareInventoryInfo);
    return result ? 1 : 0;
}

void CAliCloudInfo::BrowseView(vector<SInventoryInfo>& out) {
    for (const char* name : kViewTable) {
        SInventoryInfo node;
        node.name = name;
        out.push_back(std::move(node));
    }
}

// The console passes the path from the root to the node being expanded as a chain of single
// children, so the search follows that chain only and stops at any fork. The last region met
// on the way down is reported, so a zone can be looked up within its region.
bool CAliCloudInfo::LocateCurrBrowseNodeInTree(const SInventoryInfo& node, const string& name, SInventoryInfo& found,
                                               string& regionId) {
    if (node.type == INVENTORY_DATACENTER) regionId = node.id;
    if (node.name == name) {
        found = node;
        return true;
    }
    if (node.children.size() == 1) return LocateCurrBrowseNodeInTree(node.children.front(), name, found, regionId);
    return false;
}

bool CAliCloudInfo::BrowseAliCloudView(const string& /*path*/, const SInventoryInfo& current,
                                       vector<SInventoryInfo>& out, AliCloudViewType view, UINT64 flags, int value,
                                       const string& regionId) {
    switch (current.type) {
    case INVENTORY_VIEW: return GetDataCenterListView(out, flags, value);
    case INVENTORY_DATACENTER: return GetDataCenterView(out, current, view, flags, value);
    case INVENTORY_HOST: return GetHostView(out, current, flags, value, regionId);
    default: return false;  // instances and other kinds have nothing below them
    }
}

// The regions, from the region cache; the cache is filled once, with the flags as received.
bool CAliCloudInfo::GetDataCenterListView(vector<SInventoryInfo>& out, UINT64 flags, int value) {
    if (dcInfoCache.empty() && !_RefreshDCInfoCache(flags, value)) {  // virtual on purpose
        log.Error(kGetDataCenterListView, "Failed to refresh Datacenter info cache.");
        return false;
    }
    SInventoryInfo::FillInventoryInfoListFromDatacenterInfoList(dcInfoCache, out);
    return true;
}

// A region was expanded: its instances (Instance View) or its zones (Region View), always
// fresh from the bridge.
bool CAliCloudInfo::GetDataCenterView(vector<SInventoryInfo>& out, const SInventoryInfo& region,
                                      AliCloudViewType view, UINT64 flags, int value) {
    if (view == ALICLOUD_INSTANCE_VIEW) flags |= ALICLOUD_FLAG_WANT_INSTANCES;
    if (view == ALICLOUD_REGION_VIEW) flags |= ALICLOUD_FLAG_WANT_ZONES;

    SDataCenterInfo info;
    if (!GetDCInfoForDC(region.id, flags, static_cast<UINT64>(value), info)) {
        const std::string error = bridge->GetLastError();
        log.Error(kGetDataCenterView, "Failed to get Datacenter info for datacenter [%s]. Error [%s].", region.name,
                  error);
        return false;
    }
    if (view == ALICLOUD_INSTANCE_VIEW)
        SInventoryInfo::FillInventoryInfoListFromVMInfoList(info.vmList, out);
    else if (view == ALICLOUD_REGION_VIEW)
        SInventoryInfo::FillInventoryInfoListFromHostInfoList(info.hostList, out);
    return true;
}

// A zone was expanded (Region View): its instances, looked up within the region found on the
// way down the tree.
bool CAliCloudInfo::GetHostView(vector<SInventoryInfo>& out, const SInventoryInfo& zone, UINT64 flags, int value,
                                const string& regionId) {
    flags |= ALICLOUD_FLAG_WANT_INSTANCES;
    SHostInfo info;
    if (!GetHostInfoForHost(zone.id, flags, value, info, regionId)) {
        const std::string error = bridge->GetLastError();
        log.Error(kGetHostView, "Failed to get Host info for host [%s]. Error [%s].", zone.name, error);
        return false;
    }
    SInventoryInfo::FillInventoryInfoListFromVMInfoList(info.vmList, out);
    return true;
}

bool CAliCloudInfo::CompareInventoryInfo(const SInventoryInfo& a, const SInventoryInfo& b) {
    return FXString::CompareNoCase(a.name, b.name) < 0;
}

// "<region id>|<zone id>". Anything but exactly two parts is logged and leaves both outputs
// as they were; callers go on with what they hold. Empty parts count ("|" is two empty ids).
void CAliCloudInfo::DecodeCombinedStr(const string& combined, string& regionId, string& zoneId) {
    std::vector<std::string> parts;
    FXString::Split(combined, "|", parts, 0);
    if (parts.size() != 2) {
        log.Error(kDecodeCombinedStr, "Invalid combined string [%s] passed.", combined);
        return;
    }
    regionId = parts[0];
    zoneId = parts[1];
}
