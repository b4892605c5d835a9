#include "server/Control.h"

#include "model/Render.h"

namespace hxsim::server {

using nlohmann::json;

namespace {

api::HttpReply Json(int status, const json& body) { return {status, "application/json", body.dump()}; }
api::HttpReply Error(int status, const std::string& message) { return Json(status, {{"error", message}}); }

json Info(World& world) {
  const auto& keys = world.config().scenario.accessKeys;
  auto lock = world.store().Lock();
  return {{"endpoint", world.endpoint},
          {"metadataEndpoint", world.endpoint},
          {"deviceRoot", world.dataPlane().DeviceRoot().string()},
          {"byIdDir", world.dataPlane().ByIdDir().string()},
          {"stateDir", world.dataPlane().StateDir().string()},
          {"proxyInstanceId", world.store().proxyInstanceId},
          {"proxyRegionId", world.store().instances.count(world.store().proxyInstanceId) ? world.store().instances.at(world.store().proxyInstanceId).regionId : ""},
          {"accessKeyId", keys.empty() ? "" : keys.front().id},
          {"accessKeySecret", keys.empty() ? "" : keys.front().secret},
          {"timeScale", world.clock().Scale()},
          {"credentialsIssued", world.credentialsIssued.load()},
          {"apiVersion", "2014-05-26"}};
}

json State(World& world) {
  auto lock = world.store().Lock();
  auto& store = world.store();
  store.Advance();
  json instances = json::array(), disks = json::array(), snapshots = json::array(), images = json::array();
  for (const auto& [id, i] : store.instances) instances.push_back(model::RenderInstance(store, i));
  for (const auto& [id, d] : store.disks) {
    json j = model::RenderDisk(store, d);
    j["File"] = d.file.string();
    disks.push_back(j);
  }
  for (const auto& [id, s] : store.snapshots) {
    json j = model::RenderSnapshot(store, s);
    j["File"] = s.file.string();
    j["Stalled"] = s.stalled;
    snapshots.push_back(j);
  }
  for (const auto& [id, m] : store.images) images.push_back(model::RenderImage(store, m));
  json vswitches = json::array(), groups = json::array();
  for (const auto& [id, w] : store.vswitches) {
    vswitches.push_back({{"VSwitchId", id}, {"VpcId", w.vpcId}, {"ZoneId", w.zoneId}, {"CidrBlock", w.cidrBlock}});
  }
  for (const auto& [id, g] : store.securityGroups) {
    groups.push_back({{"SecurityGroupId", id}, {"SecurityGroupName", g.name}, {"VpcId", g.vpcId}, {"RegionId", g.regionId}});
  }
  return {{"instances", instances},
          {"disks", disks},
          {"snapshots", snapshots},
          {"images", images},
          {"vSwitches", vswitches},
          {"securityGroups", groups},
          {"deviceLinks", world.dataPlane().DeviceLinks()},
          {"proxyInstanceId", store.proxyInstanceId}};
}

}  // namespace

api::HttpReply HandleControl(World& world, const std::string& method, const std::string& path,
                             const std::string& body) {
  try {
    if (path == "/_sim/info" && method == "GET") return Json(200, Info(world));
    if (path == "/_sim/state" && method == "GET") return Json(200, State(world));
    if (path == "/_sim/calls") {
      if (method == "GET") return Json(200, world.counter().Snapshot());
      if (method == "DELETE") {
        world.counter().Clear();
        return Json(200, json::object());
      }
    }
    if (path == "/_sim/faults") {
      if (method == "GET") return Json(200, world.faults().Describe());
      if (method == "DELETE") {
        world.faults().Clear();
        return Json(200, json::object());
      }
      if (method == "POST") {
        json parsed = json::parse(body, nullptr, false);
        if (parsed.is_discarded()) return Error(400, "body is not JSON");
        std::string error = world.faults().Add(parsed);
        if (!error.empty()) return Error(400, error);
        return Json(200, world.faults().Describe());
      }
    }
    if (path == "/_sim/throttle" && method == "POST") {
      json parsed = json::parse(body, nullptr, false);
      std::string error = world.throttle().Configure(parsed);
      if (!error.empty()) return Error(400, error);
      return Json(200, json::object());
    }
    if (path == "/_sim/reset" && method == "POST") {
      std::string error = world.Reset();
      if (!error.empty()) return Error(500, error);
      return Json(200, json::object());
    }
    if (path == "/_sim/metadata" && method == "POST") {
      json parsed = json::parse(body, nullptr, false);
      if (parsed.is_discarded() || !parsed.contains("tokenRequired") || !parsed["tokenRequired"].is_boolean()) {
        return Error(400, "expected {\"tokenRequired\": true|false}");
      }
      world.metadataTokenRequired = parsed["tokenRequired"].get<bool>();
      return Json(200, json::object());
    }
    return Error(404, "no such control route: " + method + " " + path);
  } catch (const std::exception& e) {
    return Error(500, e.what());
  }
}

}  // namespace hxsim::server
