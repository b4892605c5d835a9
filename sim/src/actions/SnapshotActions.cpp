// CreateSnapshot, DescribeSnapshots, DeleteSnapshot.
//
// The snapshot's content is frozen when CreateSnapshot is accepted (the disk file is
// cloned then); Status/Progress then advance over the configured duration. `Available`
// is reported once the snapshot is accomplished.
// Decisions: a snapshot used by an image cannot be deleted (SnapshotCreatedImage); one
// that disks were created from needs Force=true (SnapshotCreatedDisk). As ECS documents,
// deleting a snapshot that does not exist (in the request's region) is ignored: it
// answers success, so a repeated delete converges.
#include <algorithm>

#include "actions/Paging.h"
#include "actions/Registry.h"
#include "model/Render.h"

namespace hxsim::actions {

using api::BadRequest;
using api::Forbidden;
using nlohmann::json;

namespace {

json CreateSnapshot(Context& ctx) {
  const auto& p = ctx.params;
  if (auto replay = ReplayClientToken(ctx)) return *replay;
  auto& disk = ctx.store.DiskOrThrow(p.Required("DiskId"), OptionalRegion(ctx));
  model::Snapshot snap;
  snap.name = p.GetOr("SnapshotName", "");
  CheckName(snap.name, "InvalidSnapshotName.Malformed");
  if (snap.name.rfind("auto", 0) == 0) throw BadRequest("InvalidSnapshotName.Malformed", "The name must not start with \"auto\".");
  snap.description = p.GetOr("Description", "");
  snap.retentionDays = static_cast<int>(p.Int("RetentionDays", 0, 1, 65536));
  auto tags = p.Tags();

  if (disk.status == "In_use") {
    const auto& inst = ctx.store.InstanceOrThrow(disk.instanceId);
    if (inst.status != "Running" && inst.status != "Stopped") throw api::IncorrectInstanceStatus();
  } else if (disk.status == "Available") {
    if (!disk.everAttached) {
      throw api::IncorrectDiskStatus("A disk that has never been attached to an instance cannot be snapshotted.");
    }
  } else {
    throw api::IncorrectDiskStatus();
  }
  FinishDryRun(ctx);

  snap.id = ctx.store.NewId("s-");
  snap.stalled = ctx.faults.TakeSnapshotStall();
  ApplyTags(snap.tags, tags);
  auto& created = ctx.store.CreateSnapshot(disk, snap);
  json result = {{"SnapshotId", created.id}};
  RememberClientToken(ctx, result);
  return result;
}

json DescribeSnapshots(Context& ctx) {
  const auto& p = ctx.params;
  const std::string region = RequiredRegion(ctx);
  const auto ids = p.JsonArray("SnapshotIds");
  const std::string diskId = p.GetOr("DiskId", "");
  const std::string instanceId = p.GetOr("InstanceId", "");
  const std::string status = p.GetOr("Status", "all");
  const std::string name = p.GetOr("SnapshotName", "");
  const std::string type = p.GetOr("SnapshotType", "all");
  const std::string sourceType = enc::ToLower(p.GetOr("SourceDiskType", ""));
  const auto tags = p.Tags();
  if (status != "all" && status != "progressing" && status != "accomplished" && status != "failed") {
    throw api::InvalidParameter("Status");
  }
  if (type != "all" && type != "user" && type != "auto") throw api::InvalidParameter("SnapshotType");

  std::vector<const model::Snapshot*> matches;
  for (const auto& [id, s] : ctx.store.snapshots) {
    if (s.regionId != region) continue;
    if (ids && !Contains(*ids, id)) continue;
    if (!diskId.empty() && s.sourceDiskId != diskId) continue;
    if (!instanceId.empty()) {
      auto disk = ctx.store.disks.find(s.sourceDiskId);
      if (disk == ctx.store.disks.end() || disk->second.instanceId != instanceId) continue;
    }
    if (status != "all" && s.status != status) continue;
    if (!name.empty() && s.name != name) continue;
    if (type == "auto") continue;  // the emulator takes no automatic snapshots
    if (!sourceType.empty() && s.sourceDiskType != sourceType) continue;
    if (!TagsMatch(s.tags, tags)) continue;
    matches.push_back(&s);
  }
  std::sort(matches.begin(), matches.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  Page page = ParsePaging(p, PagingRules{});
  json list = json::array();
  for (size_t k = page.Begin(matches.size()); k < page.End(matches.size()); ++k) {
    list.push_back(model::RenderSnapshot(ctx.store, *matches[k]));
  }
  json out = page.Fields(matches.size(), true);
  out["Snapshots"] = {{"Snapshot", list}};
  return out;
}

json DeleteSnapshot(Context& ctx) {
  const std::string snapshotId = ctx.params.Required("SnapshotId");
  const std::string region = OptionalRegion(ctx);
  const auto found = ctx.store.snapshots.find(snapshotId);
  if (found == ctx.store.snapshots.end() || (!region.empty() && found->second.regionId != region)) {
    FinishDryRun(ctx);
    return json::object();
  }
  auto& snap = found->second;
  const bool force = ctx.params.Bool("Force", false);
  for (const auto& [id, image] : ctx.store.images) {
    for (const auto& m : image.mappings) {
      if (m.snapshotId == snap.id) {
        throw Forbidden("SnapshotCreatedImage", "The snapshot has been used to create user-defined image(s).");
      }
    }
  }
  if (!force) {
    for (const auto& [id, disk] : ctx.store.disks) {
      if (disk.sourceSnapshotId == snap.id) {
        throw Forbidden("SnapshotCreatedDisk", "The snapshot has been used to create disk(s); use Force to delete it.");
      }
    }
  }
  FinishDryRun(ctx);
  data::DataPlane::Remove(snap.file);
  ctx.store.snapshots.erase(snap.id);
  return json::object();
}

}  // namespace

void RegisterSnapshotActions(HandlerMap& map) {
  map["CreateSnapshot"] = CreateSnapshot;
  map["DescribeSnapshots"] = DescribeSnapshots;
  map["DeleteSnapshot"] = DeleteSnapshot;
}

}  // namespace hxsim::actions
