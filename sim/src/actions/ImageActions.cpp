// CreateImage, DescribeImages, DeleteImage.
//
// An image keeps its own copy of every snapshot it is made from (so the content survives
// later changes), and a new instance's disks start from those copies.
// Decisions: CreateImage from InstanceId snapshots every disk attached to the instance
// first (the snapshots are ordinary, visible snapshots); the image becomes Available
// once those snapshots are accomplished and the image duration has passed. DeleteImage
// of a public image is refused (OperationDenied); an unknown ImageId is ignored.
#include <algorithm>
#include <sstream>

#include "actions/Paging.h"
#include "actions/Registry.h"
#include "model/Render.h"

namespace hxsim::actions {

using api::BadRequest;
using api::Forbidden;
using nlohmann::json;

namespace {

bool VisibleIn(const model::Image& image, const std::string& region) {
  return image.regionId.empty() || image.regionId == region;
}

std::vector<std::string> SplitComma(const std::string& s) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string item;
  while (std::getline(in, item, ',')) {
    item = enc::Trim(item);
    if (!item.empty()) out.push_back(item);
  }
  return out;
}

const model::Snapshot& ReadySnapshot(Context& ctx, const std::string& id, const std::string& region) {
  const auto& snap = ctx.store.SnapshotOrThrow(id, region);
  if (snap.status != "accomplished") {
    throw Forbidden("InvalidSnapshotId.NotReady", "The specified snapshot has not completed yet.");
  }
  return snap;
}

json CreateImage(Context& ctx) {
  const auto& p = ctx.params;
  if (auto replay = ReplayClientToken(ctx)) return *replay;
  const std::string region = RequiredRegion(ctx);
  model::Image image;
  image.name = p.GetOr("ImageName", "");
  CheckName(image.name, "InvalidImageName.Malformed");
  if (image.name.rfind("aliyun", 0) == 0 || image.name.rfind("acs:", 0) == 0) {
    throw BadRequest("InvalidImageName.Malformed", "The specified image name is not valid.");
  }
  for (const auto& [id, other] : ctx.store.images) {
    if (!image.name.empty() && other.name == image.name && VisibleIn(other, region)) {
      throw BadRequest("InvalidImageName.Duplicated", "The specified ImageName is already in use.");
    }
  }
  image.description = p.GetOr("Description", "");
  image.architecture = p.GetOr("Architecture", "x86_64");
  if (image.architecture != "x86_64" && image.architecture != "i386" && image.architecture != "arm64") {
    throw api::InvalidParameter("Architecture");
  }
  image.platform = p.GetOr("Platform", "Others Linux");
  // The values CreateImage accepts; anything else (a display name, "Windows Server 2012 R2")
  // is refused as ECS does.
  static const std::vector<std::string> kPlatforms = {
      "Aliyun",      "Anolis",      "CentOS",       "CentOS Stream",       "Ubuntu",              "Debian",
      "SUSE",        "OpenSUSE",    "RedHat",       "Fedora",              "Fedora CoreOS",       "CoreOS",
      "FreeBSD",     "AlmaLinux",   "Rocky Linux",  "Kylin",               "UOS",                 "Gentoo",
      "Customized Linux", "Others Linux", "Windows Server 2003", "Windows Server 2008", "Windows Server 2012",
      "Windows Server 2016", "Windows Server 2019", "Windows Server 2022"};
  if (std::find(kPlatforms.begin(), kPlatforms.end(), image.platform) == kPlatforms.end()) {
    throw BadRequest("InvalidPlatform.Malformed", "The specified parameter Platform is not valid.");
  }
  image.osName = image.platform;
  image.bootMode = p.GetOr("BootMode", "UEFI-Preferred");
  if (image.platform.rfind("Windows", 0) == 0) image.osType = "windows";
  auto tags = p.Tags();

  // Sources, by the service's priority: InstanceId > DiskDeviceMapping > SnapshotId.
  struct Source {
    std::string snapshotId;  // empty: snapshot to be taken of diskId
    std::string diskId;
    std::string type;
    std::string device;
    int64_t size = 0;
  };
  std::vector<Source> sources;
  const std::string instanceId = p.GetOr("InstanceId", "");
  const auto mappings = p.ObjectList("DiskDeviceMapping");
  if (!instanceId.empty()) {
    auto& inst = ctx.store.InstanceOrThrow(instanceId, region);
    if (inst.status != "Running" && inst.status != "Stopped") throw api::IncorrectInstanceStatus();
    auto disks = ctx.store.DisksOf(inst.id);
    std::sort(disks.begin(), disks.end(), [](auto* a, auto* b) { return a->device < b->device; });
    for (auto* d : disks) {
      if (d->status != "In_use") throw api::IncorrectDiskStatus();
      sources.push_back({"", d->id, d->type, d->device, d->sizeGiB});
    }
  } else if (!mappings.empty()) {
    if (mappings.size() > 17) throw api::InvalidParameter("DiskDeviceMapping");
    char next = 'b';
    for (auto m : mappings) {
      Source s;
      s.type = m.count("DiskType") ? m["DiskType"] : (sources.empty() ? "system" : "data");
      if (s.type != "system" && s.type != "data") throw api::InvalidParameter("DiskDeviceMapping.N.DiskType");
      s.snapshotId = m["SnapshotId"];
      if (s.snapshotId.empty()) throw api::MissingParameter("DiskDeviceMapping.N.SnapshotId");
      s.device = s.type == "system" ? "/dev/xvda" : std::string("/dev/xvd") + next++;
      if (m.count("Device") && !m["Device"].empty()) s.device = m["Device"];
      s.size = ReadySnapshot(ctx, s.snapshotId, region).sourceDiskSizeGiB;
      if (m.count("Size") && !m["Size"].empty()) {
        try {
          s.size = std::max<int64_t>(s.size, std::stoll(m["Size"]));
        } catch (const std::exception&) {
          throw api::InvalidParameter("DiskDeviceMapping.N.Size");
        }
      }
      sources.push_back(s);
    }
    if (std::count_if(sources.begin(), sources.end(), [](const Source& s) { return s.type == "system"; }) != 1) {
      throw api::InvalidParameter("DiskDeviceMapping", "Exactly one mapping must be the system disk.");
    }
  } else {
    const std::string snapshotId = p.GetOr("SnapshotId", "");
    if (snapshotId.empty()) throw api::MissingParameter("SnapshotId");
    const auto& snap = ReadySnapshot(ctx, snapshotId, region);
    sources.push_back({snapshotId, "", "system", "/dev/xvda", snap.sourceDiskSizeGiB});
  }
  FinishDryRun(ctx);

  image.id = ctx.store.NewId("m-");
  image.regionId = region;
  image.status = "Creating";
  image.ownerAlias = "self";
  image.started = ctx.store.clock().Now();
  model::SteadyTime ready = image.started;
  for (size_t k = 0; k < sources.size(); ++k) {
    auto& s = sources[k];
    if (s.snapshotId.empty()) {
      model::Snapshot snap;
      snap.id = ctx.store.NewId("s-");
      snap.name = "CreatedByImage-" + image.id;
      auto& created = ctx.store.CreateSnapshot(ctx.store.disks.at(s.diskId), snap);
      s.snapshotId = created.id;
      ready = std::max(ready, created.due);
    }
    model::ImageMapping m{s.snapshotId, s.device, s.type, s.size, ctx.store.dataPlane().ImagePath(image.id, k)};
    data::DataPlane::Copy(ctx.store.snapshots.at(s.snapshotId).file, m.file,
                          static_cast<uint64_t>(s.size) * data::kGiB);
    if (s.type == "system") image.sizeGiB = s.size;
    image.mappings.push_back(m);
  }
  image.due = ready + ctx.store.clock().Scaled(ctx.store.timings().image);
  image.creationTime = ctx.store.NowIso();
  image.sequence = ctx.store.NextSequence();
  ApplyTags(image.tags, tags);
  const std::string id = image.id;
  ctx.store.images[id] = std::move(image);
  ctx.store.Notify();
  json result = {{"ImageId", id}};
  RememberClientToken(ctx, result);
  return result;
}

json DescribeImages(Context& ctx) {
  const auto& p = ctx.params;
  const std::string region = RequiredRegion(ctx);
  const auto ids = SplitComma(p.GetOr("ImageId", ""));
  const std::string name = p.GetOr("ImageName", "");
  const std::string owner = p.GetOr("ImageOwnerAlias", "");
  const std::string snapshot = p.GetOr("SnapshotId", "");
  const auto statuses = SplitComma(p.GetOr("Status", "Available"));
  const std::string osType = p.GetOr("OSType", "");
  const std::string arch = p.GetOr("Architecture", "");
  const auto tags = p.Tags();
  if (!owner.empty() && owner != "system" && owner != "self" && owner != "others" && owner != "marketplace") {
    throw api::InvalidParameter("ImageOwnerAlias");
  }
  std::vector<const model::Image*> matches;
  for (const auto& [id, m] : ctx.store.images) {
    if (!VisibleIn(m, region)) continue;
    if (!ids.empty() && !Contains(ids, id)) continue;
    if (!name.empty() && m.name.find(name) == std::string::npos && !WildcardMatch(name, m.name)) continue;
    if (!owner.empty() && m.ownerAlias != owner) continue;
    if (!Contains(statuses, m.status)) continue;
    if (!osType.empty() && m.osType != osType) continue;
    if (!arch.empty() && m.architecture != arch) continue;
    if (!snapshot.empty() && std::none_of(m.mappings.begin(), m.mappings.end(),
                                          [&](const auto& x) { return x.snapshotId == snapshot; })) {
      continue;
    }
    if (!TagsMatch(m.tags, tags)) continue;
    matches.push_back(&m);
  }
  std::sort(matches.begin(), matches.end(), [](auto* a, auto* b) { return a->sequence < b->sequence; });
  PagingRules rules;
  rules.tokens = false;
  Page page = ParsePaging(p, rules);
  json list = json::array();
  for (size_t k = page.Begin(matches.size()); k < page.End(matches.size()); ++k) {
    list.push_back(model::RenderImage(ctx.store, *matches[k]));
  }
  json out = page.Fields(matches.size(), false);
  out["RegionId"] = region;
  out["Images"] = {{"Image", list}};
  return out;
}

json DeleteImage(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const std::string id = ctx.params.Required("ImageId");
  ctx.params.Bool("Force", false);
  auto it = ctx.store.images.find(id);
  if (it == ctx.store.images.end() || !VisibleIn(it->second, region)) {
    FinishDryRun(ctx);
    return json::object();  // the service ignores unknown images
  }
  if (it->second.ownerAlias != "self") {
    throw Forbidden("OperationDenied", "The specified image is not owned by this account.");
  }
  FinishDryRun(ctx);
  for (const auto& m : it->second.mappings) data::DataPlane::Remove(m.file);
  ctx.store.images.erase(it);
  return json::object();
}

}  // namespace

void RegisterImageActions(HandlerMap& map) {
  map["CreateImage"] = CreateImage;
  map["DescribeImages"] = DescribeImages;
  map["DeleteImage"] = DeleteImage;
}

}  // namespace hxsim::actions
