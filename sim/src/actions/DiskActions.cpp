// DescribeDisks, CreateDisk, AttachDisk, DetachDisk, DeleteDisk.
//
// Decisions where the service's documentation is silent:
// - DiskQuantity of the instance type counts every disk on the instance, the system
//   disk included, whether attached, attaching or detaching.
// - The guest loses a disk's device link as soon as DetachDisk is accepted; the disk
//   turns Available when the detach completes.
// - A disk created with InstanceId (instead of ZoneId) is created in that instance's zone
//   and attached to it right away.
// - CreateDisk refuses a size outside the category's range with
//   InvalidDiskSize.ValueNotSupported.
#include <algorithm>

#include "actions/Paging.h"
#include "actions/Registry.h"
#include "model/Render.h"

namespace hxsim::actions {

using api::BadRequest;
using api::Forbidden;
using nlohmann::json;

namespace {

json DescribeDisks(Context& ctx) {
  const auto& p = ctx.params;
  const std::string region = RequiredRegion(ctx);
  const auto ids = p.JsonArray("DiskIds");
  const std::string zone = p.GetOr("ZoneId", "");
  const std::string instance = p.GetOr("InstanceId", "");
  const std::string diskType = enc::ToLower(p.GetOr("DiskType", "all"));
  const std::string category = p.GetOr("Category", "all");
  const std::string status = p.GetOr("Status", "All");
  const std::string snapshot = p.GetOr("SnapshotId", "");
  const std::string name = p.GetOr("DiskName", "");
  const auto tags = p.Tags();
  if (diskType != "all" && diskType != "system" && diskType != "data") throw api::InvalidParameter("DiskType");

  std::vector<const model::Disk*> matches;
  for (const auto& [id, d] : ctx.store.disks) {
    if (d.regionId != region) continue;
    if (ids && !Contains(*ids, id)) continue;
    if (!zone.empty() && d.zoneId != zone) continue;
    if (!instance.empty() && d.instanceId != instance) continue;
    if (diskType != "all" && d.type != diskType) continue;
    if (category != "all" && d.category != category) continue;
    if (status != "All" && d.status != status) continue;
    if (!snapshot.empty() && d.sourceSnapshotId != snapshot) continue;
    if (!name.empty() && d.name != name) continue;
    if (!TagsMatch(d.tags, tags)) continue;
    matches.push_back(&d);
  }
  std::sort(matches.begin(), matches.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  PagingRules rules;
  rules.maxResultsMin = 10;
  rules.maxResultsMax = 500;
  Page page = ParsePaging(p, rules);
  json list = json::array();
  for (size_t k = page.Begin(matches.size()); k < page.End(matches.size()); ++k) {
    list.push_back(model::RenderDisk(ctx.store, *matches[k]));
  }
  json out = page.Fields(matches.size(), true);
  out["Disks"] = {{"Disk", list}};
  return out;
}

void CheckDiskLimit(Context& ctx, const model::Instance& inst) {
  const auto& type = ctx.store.TypeOf(inst);
  if (ctx.store.DisksOf(inst.id).size() >= static_cast<size_t>(type.diskQuantity)) {
    throw Forbidden("InstanceDiskLimitExceeded", "The amount of the disk on instance in question reach its limits.");
  }
}

json CreateDisk(Context& ctx) {
  const auto& p = ctx.params;
  if (auto replay = ReplayClientToken(ctx)) return *replay;
  const std::string region = RequiredRegion(ctx);
  std::string zoneId = p.GetOr("ZoneId", "");
  const std::string instanceId = p.GetOr("InstanceId", "");
  if (!zoneId.empty() && !instanceId.empty()) {
    throw api::InvalidParameter("ZoneId", "ZoneId and InstanceId are mutually exclusive.");
  }
  model::Instance* inst = nullptr;
  if (!instanceId.empty()) {
    inst = &ctx.store.InstanceOrThrow(instanceId, region);
    zoneId = inst->zoneId;
  }
  if (zoneId.empty()) throw api::MissingParameter("ZoneId");
  const model::Zone* zone = nullptr;
  for (const auto& z : ctx.store.RegionOrThrow(region).zones)
    if (z.id == zoneId) zone = &z;
  if (!zone) throw api::NotFound("InvalidZoneId.NotFound", "The specified zone does not exist.");

  model::Disk disk;
  disk.category = p.GetOr("DiskCategory", "cloud");
  disk.performanceLevel = p.GetOr("PerformanceLevel", disk.category == "cloud_essd" ? "PL1" : "");
  auto range = DiskSizeRange(disk.category, disk.performanceLevel);
  if (!range || !Contains(zone->diskCategories, disk.category)) {
    throw BadRequest("InvalidDiskCategory.ValueNotSupported", "The specified disk category is not supported.");
  }
  disk.name = p.GetOr("DiskName", "");
  CheckName(disk.name, "InvalidDiskName.Malformed");
  disk.description = p.GetOr("Description", "");
  if (disk.description.size() > 256) throw BadRequest("InvalidDescription.Malformed", "The specified description is not valid.");

  std::filesystem::path source;
  const std::string snapshotId = p.GetOr("SnapshotId", "");
  auto size = p.OptionalInt("Size", 1, 65536);
  if (!snapshotId.empty()) {
    const auto& snap = ctx.store.SnapshotOrThrow(snapshotId, region);
    if (snap.status != "accomplished") {
      throw Forbidden("InvalidSnapshotId.NotReady", "The specified snapshot has not completed yet.");
    }
    // A disk is never smaller than the snapshot it starts from.
    size = std::max<int64_t>(size.value_or(0), snap.sourceDiskSizeGiB);
    source = snap.file;
    disk.sourceSnapshotId = snapshotId;
  }
  if (!size) throw api::MissingParameter("Size");
  if (*size < range->first || *size > range->second) {
    throw BadRequest("InvalidDiskSize.ValueNotSupported",
                     "The specified disk size is out of the range of the disk category (" +
                         std::to_string(range->first) + "-" + std::to_string(range->second) + " GiB).");
  }
  if (inst) CheckDiskLimit(ctx, *inst);
  auto tags = p.Tags();
  FinishDryRun(ctx);

  disk.id = ctx.store.NewId("d-");
  disk.regionId = region;
  disk.zoneId = zoneId;
  disk.sizeGiB = *size;
  ApplyTags(disk.tags, tags);
  auto& created = ctx.store.CreateDisk(disk, source, inst != nullptr);
  if (inst) ctx.store.BeginAttach(created, *inst, false);
  json result = {{"DiskId", created.id}, {"OrderId", ""}};
  RememberClientToken(ctx, result);
  return result;
}

json AttachDisk(Context& ctx) {
  const auto& p = ctx.params;
  auto& inst = ctx.store.InstanceOrThrow(p.Required("InstanceId"), OptionalRegion(ctx));
  auto& disk = ctx.store.DiskOrThrow(p.Required("DiskId"), OptionalRegion(ctx));
  const bool deleteWithInstance = p.Bool("DeleteWithInstance", false);
  p.Bool("Bootable", false);
  CheckNotLockedForSecurity(inst);
  if (inst.status != "Running" && inst.status != "Stopped") throw api::IncorrectInstanceStatus(400);
  if (disk.status != "Available") throw api::IncorrectDiskStatus();
  if (disk.zoneId != inst.zoneId) {
    throw Forbidden("ResourcesNotInSameZone", "The specified instance and disk are not in the same zone.");
  }
  if (!disk.portable) throw Forbidden("DiskNotPortable", "The specified disk is not a portable disk.");
  if (disk.type == "system") {
    // A system disk goes back only onto a stopped instance that has no system disk.
    bool hasSystem = false;
    for (auto* d : ctx.store.DisksOf(inst.id)) hasSystem = hasSystem || d->type == "system";
    if (inst.status != "Stopped" || hasSystem) throw api::IncorrectInstanceStatus(400);
  }
  CheckDiskLimit(ctx, inst);
  FinishDryRun(ctx);
  disk.deleteWithInstance = deleteWithInstance;
  ctx.store.BeginAttach(disk, inst, false);
  return json::object();
}

json DetachDisk(Context& ctx) {
  const auto& p = ctx.params;
  auto& inst = ctx.store.InstanceOrThrow(p.Required("InstanceId"), OptionalRegion(ctx));
  auto& disk = ctx.store.DiskOrThrow(p.Required("DiskId"), OptionalRegion(ctx));
  const auto deleteWithInstance = p.Get("DeleteWithInstance");
  if (disk.status != "In_use") throw api::IncorrectDiskStatus();
  if (disk.instanceId != inst.id) {
    throw api::IncorrectDiskStatus("The specified disk is not attached to the specified instance.");
  }
  if (inst.status != "Running" && inst.status != "Stopped") throw api::IncorrectInstanceStatus();
  if (disk.type == "system" && inst.status != "Stopped") throw api::IncorrectInstanceStatus();
  if (deleteWithInstance) disk.deleteWithInstance = p.Bool("DeleteWithInstance", false);
  FinishDryRun(ctx);
  ctx.store.BeginDetach(disk, false);
  return json::object();
}

json DeleteDisk(Context& ctx) {
  auto& disk = ctx.store.DiskOrThrow(ctx.params.Required("DiskId"), OptionalRegion(ctx));
  if (disk.status != "Available") throw api::IncorrectDiskStatus();
  FinishDryRun(ctx);
  ctx.store.DeleteDisk(disk.id);
  return json::object();
}

}  // namespace

void RegisterDiskActions(HandlerMap& map) {
  map["DescribeDisks"] = DescribeDisks;
  map["CreateDisk"] = CreateDisk;
  map["AttachDisk"] = AttachDisk;
  map["DetachDisk"] = DetachDisk;
  map["DeleteDisk"] = DeleteDisk;
}

}  // namespace hxsim::actions
