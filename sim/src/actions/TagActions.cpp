// TagResources, UntagResources, ListTagResources for instances, disks, snapshots and
// images (ResourceType values instance | disk | snapshot | image).
#include <algorithm>

#include "actions/Paging.h"
#include "actions/Registry.h"

namespace hxsim::actions {

using api::BadRequest;
using nlohmann::json;

namespace {

// The tags of a resource of the given type, or nullptr when there is no such resource.
model::Tags* TagsOf(Context& ctx, const std::string& type, const std::string& id, const std::string& region) {
  auto pick = [&](auto& map) -> model::Tags* {
    auto it = map.find(id);
    if (it == map.end() || (!it->second.regionId.empty() && it->second.regionId != region)) return nullptr;
    return &it->second.tags;
  };
  if (type == "instance") return pick(ctx.store.instances);
  if (type == "disk") return pick(ctx.store.disks);
  if (type == "snapshot") return pick(ctx.store.snapshots);
  if (type == "image") return pick(ctx.store.images);
  return nullptr;
}

std::string ResourceType(Context& ctx) {
  std::string type = enc::ToLower(ctx.params.Required("ResourceType"));
  if (type != "instance" && type != "disk" && type != "snapshot" && type != "image") {
    throw BadRequest("InvalidResourceType.NotSupported", "The specified ResourceType is not supported.");
  }
  return type;
}

std::vector<model::Tags*> Resources(Context& ctx, const std::string& type, const std::string& region) {
  const auto ids = ctx.params.RepeatList("ResourceId");
  if (ids.empty()) throw api::MissingParameter("ResourceId.1");
  if (ids.size() > 50) throw api::InvalidParameter("ResourceId");
  std::vector<model::Tags*> out;
  for (const auto& id : ids) {
    auto* tags = TagsOf(ctx, type, id, region);
    if (!tags) throw api::NotFound("InvalidResourceId.NotFound", "The specified ResourceIds are not found in our records.");
    out.push_back(tags);
  }
  return out;
}

json TagResources(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const std::string type = ResourceType(ctx);
  const auto tags = ctx.params.Tags();
  if (tags.empty()) throw api::MissingParameter("Tag.1.Key");
  auto resources = Resources(ctx, type, region);
  // Validate against copies first so that a refused request changes nothing.
  for (auto* r : resources) {
    model::Tags copy = *r;
    ApplyTags(copy, tags);
  }
  for (auto* r : resources) ApplyTags(*r, tags);
  return json::object();
}

json UntagResources(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const std::string type = ResourceType(ctx);
  const auto keys = ctx.params.RepeatList("TagKey");
  const bool all = ctx.params.Bool("All", false);
  for (auto* r : Resources(ctx, type, region)) {
    if (all) r->clear();
    for (const auto& k : keys) r->erase(k);
  }
  return json::object();
}

json ListTagResources(Context& ctx) {
  const std::string region = RequiredRegion(ctx);
  const std::string type = ResourceType(ctx);
  const auto ids = ctx.params.RepeatList("ResourceId");
  const auto filters = ctx.params.Tags();
  json entries = json::array();
  auto visit = [&](const auto& map) {
    for (const auto& [id, r] : map) {
      if (!r.regionId.empty() && r.regionId != region) continue;
      if (!ids.empty() && !Contains(ids, id)) continue;
      if (!TagsMatch(r.tags, filters)) continue;
      for (const auto& [k, v] : r.tags) {
        entries.push_back({{"ResourceId", id}, {"ResourceType", type}, {"TagKey", k}, {"TagValue", v}});
      }
    }
  };
  if (type == "instance") visit(ctx.store.instances);
  if (type == "disk") visit(ctx.store.disks);
  if (type == "snapshot") visit(ctx.store.snapshots);
  if (type == "image") visit(ctx.store.images);
  PagingRules rules;
  rules.pages = false;
  rules.defaultSize = 50;
  Page page = ParsePaging(ctx.params, rules);
  page.tokenMode = true;
  json list = json::array();
  for (size_t k = page.Begin(entries.size()); k < page.End(entries.size()); ++k) list.push_back(entries[k]);
  return {{"TagResources", {{"TagResource", list}}}, {"NextToken", page.Fields(entries.size(), true)["NextToken"]}};
}

}  // namespace

void RegisterTagActions(HandlerMap& map) {
  map["TagResources"] = TagResources;
  map["UntagResources"] = UntagResources;
  map["ListTagResources"] = ListTagResources;
}

}  // namespace hxsim::actions
