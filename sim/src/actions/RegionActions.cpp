// DescribeRegions, DescribeZones, DescribeInstanceTypes, DescribeAvailableResource:
// the scenario's static catalogue.
#include <algorithm>

#include "actions/Paging.h"
#include "actions/Registry.h"

namespace hxsim::actions {

using nlohmann::json;

namespace {

json DescribeRegions(Context& ctx) {
  json regions = json::array();
  for (const auto& r : ctx.store.regions()) {
    regions.push_back({{"RegionId", r.id},
                       {"LocalName", r.localName},
                       {"RegionEndpoint", "ecs." + r.id + ".aliyuncs.com"},
                       {"Status", "available"}});
  }
  return {{"Regions", {{"Region", regions}}}};
}

json DescribeZones(Context& ctx) {
  const auto& region = ctx.store.RegionOrThrow(RequiredRegion(ctx));
  const bool verbose = ctx.params.Bool("Verbose", true);
  json zones = json::array();
  for (const auto& z : region.zones) {
    json zone = {{"ZoneId", z.id},
                 {"LocalName", z.localName},
                 {"ZoneType", "AvailabilityZone"},
                 {"AvailableResourceCreation", {{"ResourceTypes", {"Instance", "Disk", "VSwitch", "IoOptimized"}}}},
                 {"AvailableDiskCategories", {{"DiskCategories", z.diskCategories}}},
                 {"AvailableVolumeCategories", {{"VolumeCategories", z.diskCategories}}}};
    if (verbose) zone["AvailableInstanceTypes"] = {{"InstanceTypes", z.instanceTypes}};
    zones.push_back(zone);
  }
  return {{"Zones", {{"Zone", zones}}}};
}

json DescribeInstanceTypes(Context& ctx) {
  const auto wanted = ctx.params.RepeatList("InstanceTypes");
  if (wanted.size() > 10) throw api::InvalidParameter("InstanceTypes");
  const std::string family = ctx.params.GetOr("InstanceTypeFamily", "");
  const std::string arch = ctx.params.GetOr("CpuArchitecture", "");
  std::vector<const model::InstanceType*> matches;
  for (const auto& [id, t] : ctx.store.instanceTypes()) {
    if (!wanted.empty() && !Contains(wanted, id)) continue;
    if (!family.empty() && t.family != family) continue;
    if (!arch.empty() && t.cpuArchitecture != arch) continue;
    matches.push_back(&t);
  }
  PagingRules rules;
  rules.pages = false;
  rules.defaultSize = 1600;
  rules.maxResultsMax = 1600;
  Page page = ParsePaging(ctx.params, rules);
  json list = json::array();
  for (size_t i = page.Begin(matches.size()); i < page.End(matches.size()); ++i) {
    const auto& t = *matches[i];
    list.push_back({{"InstanceTypeId", t.id},
                    {"InstanceTypeFamily", t.family},
                    {"CpuCoreCount", t.cpu},
                    {"MemorySize", t.memoryGiB},
                    {"DiskQuantity", t.diskQuantity},
                    {"NvmeSupport", t.nvmeSupport},
                    {"CpuArchitecture", t.cpuArchitecture},
                    {"EniQuantity", t.eniQuantity},
                    {"GPUAmount", 0},
                    {"LocalStorageCategory", ""}});
  }
  json out = {{"InstanceTypes", {{"InstanceType", list}}}};
  out["NextToken"] = page.Fields(matches.size(), true)["NextToken"];
  return out;
}

json SupportedResource(const std::string& value, int64_t min = -1, int64_t max = -1) {
  json r = {{"Value", value}, {"Status", "Available"}, {"StatusCategory", "WithStock"}};
  if (min >= 0) {
    r["Min"] = min;
    r["Max"] = max;
    r["Unit"] = "GiB";
  }
  return r;
}

json DescribeAvailableResource(Context& ctx) {
  const auto& region = ctx.store.RegionOrThrow(RequiredRegion(ctx));
  const std::string destination = ctx.params.Required("DestinationResource");
  static const std::vector<std::string> kDestinations = {"Zone",    "IoOptimized", "InstanceType", "SystemDisk",
                                                         "DataDisk", "Network",     "ddh"};
  if (!Contains(kDestinations, destination)) throw api::InvalidParameter("DestinationResource");
  const std::string zoneFilter = ctx.params.GetOr("ZoneId", "");
  const std::string typeFilter = ctx.params.GetOr("InstanceType", "");
  const auto cores = ctx.params.OptionalInt("Cores", 1, 1024);
  const std::string memory = ctx.params.GetOr("Memory", "");
  const std::string systemCategory = ctx.params.GetOr("SystemDiskCategory", "");
  const std::string dataCategory = ctx.params.GetOr("DataDiskCategory", "");

  json zones = json::array();
  for (const auto& z : region.zones) {
    if (!zoneFilter.empty() && z.id != zoneFilter) continue;
    if (!typeFilter.empty() && !Contains(z.instanceTypes, typeFilter)) continue;
    if (!systemCategory.empty() && !Contains(z.diskCategories, systemCategory)) continue;
    if (!dataCategory.empty() && !Contains(z.diskCategories, dataCategory)) continue;
    json supported = json::array();
    if (destination == "Zone") {
      supported.push_back(SupportedResource(z.id));
    } else if (destination == "InstanceType") {
      for (const auto& id : z.instanceTypes) {
        const auto& t = ctx.store.instanceTypes().at(id);
        if (!typeFilter.empty() && id != typeFilter) continue;
        if (cores && t.cpu != *cores) continue;
        if (!memory.empty() && std::to_string(static_cast<int>(t.memoryGiB)) != memory) continue;
        supported.push_back(SupportedResource(id));
      }
    } else if (destination == "SystemDisk" || destination == "DataDisk") {
      const std::string& only = destination == "SystemDisk" ? systemCategory : dataCategory;
      for (const auto& c : z.diskCategories) {
        if (!only.empty() && c != only) continue;
        auto range = DiskSizeRange(c, c == "cloud_essd" ? "PL0" : "");
        if (!range) continue;
        int64_t min = destination == "SystemDisk" ? std::max<int64_t>(20, range->first) : range->first;
        int64_t max = destination == "SystemDisk" ? 2048 : range->second;
        supported.push_back(SupportedResource(c, min, max));
      }
    } else if (destination == "Network") {
      supported.push_back(SupportedResource("vpc"));
    } else if (destination == "IoOptimized") {
      supported.push_back(SupportedResource("optimized"));
    }
    if (supported.empty()) continue;
    zones.push_back({{"RegionId", region.id},
                     {"ZoneId", z.id},
                     {"Status", "Available"},
                     {"StatusCategory", "WithStock"},
                     {"AvailableResources",
                      {{"AvailableResource",
                        json::array({{{"Type", destination}, {"SupportedResources", {{"SupportedResource", supported}}}}})}}}});
  }
  return {{"AvailableZones", {{"AvailableZone", zones}}}};
}

}  // namespace

void RegisterRegionActions(HandlerMap& map) {
  map["DescribeRegions"] = DescribeRegions;
  map["DescribeZones"] = DescribeZones;
  map["DescribeInstanceTypes"] = DescribeInstanceTypes;
  map["DescribeAvailableResource"] = DescribeAvailableResource;
}

}  // namespace hxsim::actions
