// DescribeInstances, DescribeInstanceStatus, CreateInstance, RunInstances,
// StartInstance, StopInstance, DeleteInstance.
//
// Decisions where the service's documentation is silent:
// - A new instance's disks are created already attached (In_use); the instance itself
//   goes Pending -> Stopped (CreateInstance) or Pending -> Starting -> Running
//   (RunInstances).
// - SystemDisk.Size defaults to max(20, image size) GiB; files are sparse, so a 20 GiB
//   system disk costs nothing until written.
// - Data disks described by the image's DiskDeviceMappings are created with the
//   instance, from the image's own copies.
// - Zone without ZoneId: the VSwitchId's zone when one is given, else the first zone of
//   the region that offers the instance type.
// - Without VSwitchId the instance goes to the zone's default vSwitch (vsw-hxsim<zone>,
//   else the zone's first); without SecurityGroupId it joins the region's default group
//   when that is in the vSwitch's VPC, else the VPC's first group.
// - Addresses ECS picks are the vSwitch's lowest free ones. The first address of a
//   vSwitch block and its last three are the vSwitch's own: asking for one of them is
//   answered like an address outside the block.
// - RunInstances takes PrivateIpAddress only with Amount=1 (one address, one instance).
#include <algorithm>

#include "actions/Paging.h"
#include "actions/Registry.h"
#include "model/Render.h"
#include "util/Ipv4.h"

namespace hxsim::actions {

using api::BadRequest;
using api::Forbidden;
using nlohmann::json;

namespace {

json DescribeInstances(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const auto ids = ctx.params.JsonArray("InstanceIds");
  // VPC private addresses (JSON array, up to 100): which instances hold them.
  const auto addresses = ctx.params.JsonArray("PrivateIpAddresses");
  const std::string name = ctx.params.GetOr("InstanceName", "");
  const std::string zone = ctx.params.GetOr("ZoneId", "");
  const std::string status = ctx.params.GetOr("Status", "");
  const std::string vpc = ctx.params.GetOr("VpcId", "");
  const std::string vswitch = ctx.params.GetOr("VSwitchId", "");
  const std::string group = ctx.params.GetOr("SecurityGroupId", "");
  const std::string type = ctx.params.GetOr("InstanceType", "");
  const std::string image = ctx.params.GetOr("ImageId", "");
  const auto tags = ctx.params.Tags();

  std::vector<const model::Instance*> matches;
  for (const auto& [id, i] : ctx.store.instances) {
    if (i.regionId != region) continue;
    if (ids && !Contains(*ids, id)) continue;
    if (addresses && !Contains(*addresses, i.privateIp)) continue;
    if (!name.empty() && !WildcardMatch(name, i.name)) continue;
    if (!zone.empty() && i.zoneId != zone) continue;
    if (!status.empty() && i.status != status) continue;
    if (!vpc.empty() && i.vpcId != vpc) continue;
    if (!vswitch.empty() && i.vswitchId != vswitch) continue;
    if (!group.empty() && !Contains(i.securityGroupIds, group)) continue;
    if (!type.empty() && i.instanceType != type) continue;
    if (!image.empty() && i.imageId != image) continue;
    if (!TagsMatch(i.tags, tags)) continue;
    matches.push_back(&i);
  }
  std::sort(matches.begin(), matches.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  Page page = ParsePaging(ctx.params, PagingRules{});
  json list = json::array();
  for (size_t k = page.Begin(matches.size()); k < page.End(matches.size()); ++k) {
    list.push_back(model::RenderInstance(ctx.store, *matches[k]));
  }
  json out = page.Fields(matches.size(), true);
  out["Instances"] = {{"Instance", list}};
  return out;
}

json DescribeInstanceStatus(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const auto ids = ctx.params.RepeatList("InstanceId");
  if (ids.size() > 100) throw api::InvalidParameter("InstanceId");
  const std::string zone = ctx.params.GetOr("ZoneId", "");
  std::vector<const model::Instance*> matches;
  for (const auto& [id, i] : ctx.store.instances) {
    if (i.regionId != region) continue;
    if (!ids.empty() && !Contains(ids, id)) continue;
    if (!zone.empty() && i.zoneId != zone) continue;
    matches.push_back(&i);
  }
  std::sort(matches.begin(), matches.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  PagingRules rules;
  rules.tokens = false;
  rules.pageSizeMax = 50;
  Page page = ParsePaging(ctx.params, rules);
  json list = json::array();
  for (size_t k = page.Begin(matches.size()); k < page.End(matches.size()); ++k) {
    list.push_back({{"InstanceId", matches[k]->id}, {"Status", matches[k]->status}});
  }
  json out = page.Fields(matches.size(), false);
  out["InstanceStatuses"] = {{"InstanceStatus", list}};
  return out;
}

// Everything CreateInstance and RunInstances validate before creating anything.
struct LaunchPlan {
  std::string regionId;
  const model::Zone* zone = nullptr;
  const model::InstanceType* type = nullptr;
  const model::Image* image = nullptr;
  std::string systemCategory;
  std::string systemLevel;
  int64_t systemSize = 20;
  struct DataDisk {
    int64_t size = 0;
    std::string category, level, name, description, snapshotId;
    bool deleteWithInstance = true;
  };
  std::vector<DataDisk> dataDisks;
  std::vector<std::pair<std::string, std::string>> tags;
  const model::VSwitch* vswitch = nullptr;
  std::string securityGroupId;
  std::vector<std::string> addresses;  // one per instance to launch
};

// Network of the new instances: vSwitch (when not given, the zone's default), security
// group and one private address per instance, the requested one when given.
void PlanNetwork(Context& ctx, LaunchPlan& plan, const std::string& vswitchId, int64_t amount) {
  model::Store& store = ctx.store;
  const auto& p = ctx.params;
  if (vswitchId.empty()) {
    auto preferred = store.vswitches.find("vsw-hxsim" + plan.zone->id);
    if (preferred != store.vswitches.end() && preferred->second.zoneId == plan.zone->id) {
      plan.vswitch = &preferred->second;
    } else {
      for (const auto& [id, w] : store.vswitches) {
        if (w.zoneId == plan.zone->id) {
          plan.vswitch = &w;
          break;
        }
      }
    }
    if (!plan.vswitch) throw MissingInput("VSwitchId");
  }

  const std::string groupId = p.GetOr("SecurityGroupId", "");
  if (!groupId.empty()) {
    const auto& group = store.SecurityGroupOrThrow(groupId, plan.regionId);
    if (group.vpcId != plan.vswitch->vpcId) {
      throw BadRequest("InvalidParameter.Mismatch", "Specified security group and virtual switch are not in the same VPC.");
    }
    plan.securityGroupId = group.id;
  } else {
    auto fallback = store.securityGroups.find("sg-hxsim" + plan.regionId);
    if (fallback != store.securityGroups.end() && fallback->second.vpcId == plan.vswitch->vpcId) {
      plan.securityGroupId = fallback->first;
    } else {
      for (const auto& [id, g] : store.securityGroups) {
        if (g.vpcId == plan.vswitch->vpcId) {
          plan.securityGroupId = id;
          break;
        }
      }
    }
    if (plan.securityGroupId.empty()) throw MissingInput("SecurityGroupId");
  }

  const std::string requested = p.GetOr("PrivateIpAddress", "");
  if (requested.empty()) {
    plan.addresses = store.FreeAddresses(*plan.vswitch, static_cast<size_t>(amount));
    if (plan.addresses.size() < static_cast<size_t>(amount)) {
      throw BadRequest("QuotaExceeded.PrivateIpAddress", "Don't have enough private IPs in this switch.");
    }
    return;
  }
  // An address only makes sense together with the vSwitch it is taken from.
  if (vswitchId.empty()) throw MissingInput("VSwitchId");
  if (amount > 1) throw api::InvalidParameter("PrivateIpAddress", "A private IP address names one instance only.");
  auto address = ipv4::Parse(requested);
  if (!address) throw BadRequest("InvalidPrivateIpAddress.Malformed", "Specified private IP address is malformed.");
  auto block = ipv4::ParseCidr(plan.vswitch->cidrBlock);
  if (!block || !block->Contains(*address) || block->Reserved(*address)) {
    throw BadRequest("InvalidPrivateIpAddress", "Specified private IP address is not in the CIDR block of virtual switch.");
  }
  if (store.AddressHolder(plan.vswitch->id, requested)) {
    // What ECS answers for an address another resource holds (note the capital "IP").
    throw BadRequest("InvalidIPAddress.AlreadyUsed", "The specified IP address is already in use.");
  }
  plan.addresses = {requested};
}

LaunchPlan Plan(Context& ctx, int64_t amount) {
  LaunchPlan plan;
  const auto& p = ctx.params;
  plan.regionId = RequiredRegion(ctx);
  const auto& region = ctx.store.RegionOrThrow(plan.regionId);
  const std::string typeId = p.Required("InstanceType");
  auto type = ctx.store.instanceTypes().find(typeId);
  if (type == ctx.store.instanceTypes().end()) {
    throw BadRequest("InvalidInstanceType.ValueNotSupported",
                     "The specified InstanceType does not exist or beyond the permitted range.");
  }
  plan.type = &type->second;

  std::string zoneId = p.GetOr("ZoneId", "");
  const std::string vswitchId = p.GetOr("VSwitchId", "");
  if (!vswitchId.empty()) {
    auto w = ctx.store.vswitches.find(vswitchId);
    if (w == ctx.store.vswitches.end() || w->second.regionId != plan.regionId) {
      throw api::NotFound("InvalidVSwitchId.NotFound", "Specified virtual switch does not exist.");
    }
    plan.vswitch = &w->second;
    if (zoneId.empty()) zoneId = plan.vswitch->zoneId;
  }
  for (const auto& z : region.zones) {
    if (zoneId.empty() ? Contains(z.instanceTypes, typeId) : z.id == zoneId) {
      plan.zone = &z;
      break;
    }
  }
  if (!plan.zone) {
    if (!zoneId.empty()) throw api::NotFound("InvalidZoneId.NotFound", "The specified zone does not exist.");
    throw Forbidden("InvalidResourceType.NotSupported", "The specified instance type is not offered in this region.");
  }
  if (!Contains(plan.zone->instanceTypes, typeId)) {
    throw Forbidden("InvalidResourceType.NotSupported", "The specified instance type is not offered in zone " +
                                                            plan.zone->id + ".");
  }
  if (plan.vswitch && plan.vswitch->zoneId != plan.zone->id) {
    throw BadRequest("InvalidParameter.Mismatch", "Specified virtual switch is not in the specified zone.");
  }

  const std::string imageId = p.Required("ImageId");
  auto image = ctx.store.images.find(imageId);
  if (image == ctx.store.images.end() ||
      (!image->second.regionId.empty() && image->second.regionId != plan.regionId)) {
    throw api::NotFound("InvalidImageId.NotFound", "The specified ImageId does not exist.");
  }
  if (image->second.status != "Available") {
    throw Forbidden("IncorrectImageStatus", "The specified image is not available.");
  }
  plan.image = &image->second;

  auto system = p.Object("SystemDisk");
  plan.systemCategory = system.count("Category") ? system["Category"] : "cloud_essd";
  plan.systemLevel = system.count("PerformanceLevel") ? system["PerformanceLevel"]
                                                      : (plan.systemCategory == "cloud_essd" ? "PL1" : "");
  if (!Contains(plan.zone->diskCategories, plan.systemCategory) ||
      !DiskSizeRange(plan.systemCategory, plan.systemLevel)) {
    throw BadRequest("InvalidSystemDiskCategory.ValueNotSupported", "The specified system disk category is not "
                                                                    "supported in this zone.");
  }
  const int64_t minSystem = std::max<int64_t>(20, plan.image->sizeGiB);
  plan.systemSize = p.Int("SystemDisk.Size", minSystem, INT64_MIN, INT64_MAX);
  if (plan.systemSize < minSystem || plan.systemSize > 2048) {
    throw BadRequest("InvalidSystemDiskSize", "The specified parameter SystemDisk.Size is not valid: it must be "
                                              "between " + std::to_string(minSystem) + " and 2048.");
  }

  for (const auto& m : plan.image->mappings) {
    if (m.type != "data") continue;
    LaunchPlan::DataDisk d;
    d.size = m.sizeGiB;
    d.category = "cloud_essd";
    d.level = "PL0";
    plan.dataDisks.push_back(d);
  }
  auto dataDisks = p.ObjectList("DataDisk");
  if (dataDisks.size() > 16) {
    throw BadRequest("InstanceDiskNumber.LimitExceed", "The total number of specified disk in an instance exceeds.");
  }
  for (auto& f : dataDisks) {
    LaunchPlan::DataDisk d;
    d.category = f.count("Category") ? f["Category"] : "cloud_essd";
    d.level = f.count("PerformanceLevel") ? f["PerformanceLevel"] : (d.category == "cloud_essd" ? "PL1" : "");
    d.name = f["DiskName"];
    d.description = f["Description"];
    d.snapshotId = f["SnapshotId"];
    d.deleteWithInstance = !f.count("DeleteWithInstance") || f["DeleteWithInstance"] != "false";
    auto range = DiskSizeRange(d.category, d.level);
    if (!Contains(plan.zone->diskCategories, d.category) || !range) {
      throw BadRequest("InvalidDataDiskCategory.ValueNotSupported", "The specified data disk category is not "
                                                                    "supported in this zone.");
    }
    if (!d.snapshotId.empty()) {
      const auto& snap = ctx.store.SnapshotOrThrow(d.snapshotId, plan.regionId);
      if (snap.status != "accomplished") {
        throw Forbidden("InvalidSnapshotId.NotReady", "The specified snapshot has not completed yet.");
      }
      d.size = snap.sourceDiskSizeGiB;
    }
    if (f.count("Size") && !f["Size"].empty()) {
      try {
        d.size = std::max<int64_t>(d.size, std::stoll(f["Size"]));
      } catch (const std::exception&) {
        throw api::InvalidParameter("DataDisk.N.Size");
      }
    } else if (d.snapshotId.empty()) {
      throw api::MissingParameter("DataDisk.N.Size");
    }
    if (d.size < range->first || d.size > range->second) {
      throw BadRequest("InvalidDataDiskSize.ValueNotSupported", "The specified DataDisk.N.Size is out of the range "
                                                                "of the disk category.");
    }
    plan.dataDisks.push_back(d);
  }
  if (1 + plan.dataDisks.size() > static_cast<size_t>(plan.type->diskQuantity)) {
    throw Forbidden("InstanceDiskNumLimitExceed", "The total number of disks exceeds the limit of the instance type.");
  }
  CheckName(p.GetOr("InstanceName", ""), "InvalidInstanceName.Malformed");
  plan.tags = p.Tags();
  PlanNetwork(ctx, plan, vswitchId, amount);
  return plan;
}

model::Instance& Launch(Context& ctx, const LaunchPlan& plan, const std::string& name, const std::string& hostName,
                        bool autoStart, const std::string& address) {
  model::Store& store = ctx.store;
  model::Instance inst;
  inst.id = store.NewId("i-");
  inst.name = name.empty() ? inst.id : name;
  inst.hostName = hostName.empty() ? "iZ" + inst.id.substr(2) + "Z" : hostName;
  inst.description = ctx.params.GetOr("Description", "");
  inst.regionId = plan.regionId;
  inst.zoneId = plan.zone->id;
  inst.instanceType = plan.type->id;
  inst.imageId = plan.image->id;
  inst.osName = plan.image->osName;
  inst.osType = plan.image->osType;
  inst.vpcId = plan.vswitch->vpcId;
  inst.vswitchId = plan.vswitch->id;
  inst.securityGroupIds = {plan.securityGroupId};
  inst.privateIp = address;
  inst.chargeType = ctx.params.GetOr("InstanceChargeType", "PostPaid");
  inst.serialNumber = store.NewId("");
  inst.creationTime = store.NowIso(false);
  inst.status = "Pending";
  inst.sequence = store.NextSequence();
  ApplyTags(inst.tags, plan.tags);
  model::Instance& stored = store.instances[inst.id] = inst;
  const auto& t = store.timings();
  if (autoStart) {
    store.Schedule(stored, {{"Starting", t.instancePending}, {"Running", t.instanceStart}});
  } else {
    store.Schedule(stored, {{"Stopped", t.instancePending}});
  }

  auto newDisk = [&](const std::string& type, int64_t size, const std::string& category, const std::string& level) {
    model::Disk d;
    d.id = store.NewId("d-");
    d.regionId = plan.regionId;
    d.zoneId = plan.zone->id;
    d.type = type;
    d.sizeGiB = size;
    d.category = category;
    d.performanceLevel = level;
    return d;
  };

  const model::ImageMapping* systemMapping = nullptr;
  std::vector<const model::ImageMapping*> dataMappings;
  for (const auto& m : plan.image->mappings) {
    if (m.type == "system") systemMapping = &m;
    if (m.type == "data") dataMappings.push_back(&m);
  }
  model::Disk system = newDisk("system", plan.systemSize, plan.systemCategory, plan.systemLevel);
  system.deleteWithInstance = true;
  system.imageId = plan.image->id;
  system.name = ctx.params.GetOr("SystemDisk.DiskName", "");
  auto& systemDisk = store.CreateDisk(system, systemMapping ? systemMapping->file : std::filesystem::path{}, true);
  store.BeginAttach(systemDisk, stored, true);

  for (size_t k = 0; k < plan.dataDisks.size(); ++k) {
    const auto& spec = plan.dataDisks[k];
    model::Disk d = newDisk("data", spec.size, spec.category, spec.level);
    d.name = spec.name;
    d.description = spec.description;
    d.deleteWithInstance = spec.deleteWithInstance;
    d.sourceSnapshotId = spec.snapshotId;
    std::filesystem::path source;
    if (k < dataMappings.size()) {
      source = dataMappings[k]->file;
    } else if (!spec.snapshotId.empty()) {
      source = store.snapshots.at(spec.snapshotId).file;
    }
    auto& disk = store.CreateDisk(d, source, true);
    store.BeginAttach(disk, stored, true);
  }
  return stored;
}

json CreateInstance(Context& ctx) {
  if (auto replay = ReplayClientToken(ctx)) return *replay;
  LaunchPlan plan = Plan(ctx, 1);
  FinishDryRun(ctx);
  auto& inst = Launch(ctx, plan, ctx.params.GetOr("InstanceName", ""), ctx.params.GetOr("HostName", ""), false,
                      plan.addresses.front());
  json result = {{"InstanceId", inst.id}, {"OrderId", ""}, {"TradePrice", 0}};
  RememberClientToken(ctx, result);
  return result;
}

std::string WithSuffix(const std::string& base, int64_t index, bool unique) {
  if (!unique || base.empty()) return base;
  char suffix[8];
  std::snprintf(suffix, sizeof suffix, "%03lld", static_cast<long long>(index));
  return base + suffix;
}

json RunInstances(Context& ctx) {
  if (auto replay = ReplayClientToken(ctx)) return *replay;
  const int64_t amount = ctx.params.Int("Amount", 1, 1, 100);
  ctx.params.Int("MinAmount", 1, 1, amount);
  LaunchPlan plan = Plan(ctx, amount);
  FinishDryRun(ctx);
  const bool unique = ctx.params.Bool("UniqueSuffix", false) && amount > 1;
  json ids = json::array();
  for (int64_t k = 1; k <= amount; ++k) {
    auto& inst = Launch(ctx, plan, WithSuffix(ctx.params.GetOr("InstanceName", ""), k, unique),
                        WithSuffix(ctx.params.GetOr("HostName", ""), k, unique), true,
                        plan.addresses[static_cast<size_t>(k - 1)]);
    ids.push_back(inst.id);
  }
  json result = {{"InstanceIdSets", {{"InstanceIdSet", ids}}}, {"OrderId", ""}, {"TradePrice", 0}};
  RememberClientToken(ctx, result);
  return result;
}

json StartInstance(Context& ctx) {
  auto& inst = ctx.store.InstanceOrThrow(ctx.params.Required("InstanceId"), OptionalRegion(ctx));
  CheckNotLockedForSecurity(inst);
  if (inst.status != "Stopped") throw api::IncorrectInstanceStatus();
  FinishDryRun(ctx);
  ctx.store.FailSnapshotsOf(inst.id);
  inst.status = "Starting";
  ctx.store.Schedule(inst, {{"Running", ctx.store.timings().instanceStart}});
  return json::object();
}

json StopInstance(Context& ctx) {
  auto& inst = ctx.store.InstanceOrThrow(ctx.params.Required("InstanceId"), OptionalRegion(ctx));
  ctx.params.Bool("ForceStop", false);
  const std::string mode = ctx.params.GetOr("StoppedMode", "KeepCharging");
  if (mode != "KeepCharging" && mode != "StopCharging") throw api::InvalidParameter("StoppedMode");
  CheckNotLockedForSecurity(inst);
  if (inst.status != "Running") throw api::IncorrectInstanceStatus();
  FinishDryRun(ctx);
  ctx.store.FailSnapshotsOf(inst.id);
  inst.status = "Stopping";
  ctx.store.Schedule(inst, {{"Stopped", ctx.store.timings().instanceStop}});
  return json::object();
}

json DeleteInstance(Context& ctx) {
  auto& inst = ctx.store.InstanceOrThrow(ctx.params.Required("InstanceId"), OptionalRegion(ctx));
  const bool force = ctx.params.Bool("Force", false);
  CheckNotLockedForSecurity(inst);
  if (force ? (inst.status != "Running" && inst.status != "Stopped") : inst.status != "Stopped") {
    throw api::IncorrectInstanceStatus();
  }
  FinishDryRun(ctx);
  const std::string id = inst.id;
  ctx.store.FailSnapshotsOf(id);
  for (auto* disk : ctx.store.DisksOf(id)) {
    if (disk->deleteWithInstance) {
      ctx.store.DeleteDisk(disk->id);
    } else {
      disk->steps.clear();
      ctx.store.BeginDetach(*disk, true);
    }
  }
  ctx.store.instances.erase(id);
  return json::object();
}

}  // namespace

void RegisterInstanceActions(HandlerMap& map) {
  map["DescribeInstances"] = DescribeInstances;
  map["DescribeInstanceStatus"] = DescribeInstanceStatus;
  map["CreateInstance"] = CreateInstance;
  map["RunInstances"] = RunInstances;
  map["StartInstance"] = StartInstance;
  map["StopInstance"] = StopInstance;
  map["DeleteInstance"] = DeleteInstance;
}

}  // namespace hxsim::actions
