#include "scenario/Scenario.h"

#include <nlohmann/json.hpp>
#include <set>

#include "model/Store.h"

namespace hxsim::scenario {

using nlohmann::json;

namespace {

std::string Str(const json& j, const char* key, const std::string& fallback = "") {
  auto it = j.find(key);
  return it == j.end() || it->is_null() ? fallback : it->get<std::string>();
}

template <typename T>
T Num(const json& j, const char* key, T fallback) {
  auto it = j.find(key);
  return it == j.end() || it->is_null() ? fallback : it->get<T>();
}

std::vector<std::string> StrList(const json& j, const char* key) {
  std::vector<std::string> out;
  auto it = j.find(key);
  if (it != j.end())
    for (const auto& v : *it) out.push_back(v.get<std::string>());
  return out;
}

model::Tags TagsOf(const json& j) {
  model::Tags tags;
  auto it = j.find("tags");
  if (it != j.end())
    for (auto t = it->begin(); t != it->end(); ++t) tags[t.key()] = t.value().get<std::string>();
  return tags;
}

DiskSpec ParseDisk(const json& j) {
  DiskSpec d;
  d.id = Str(j, "diskId");
  d.name = Str(j, "diskName");
  d.regionId = Str(j, "regionId");
  d.zoneId = Str(j, "zoneId");
  d.type = Str(j, "type", "data");
  d.sizeGiB = Num<int64_t>(j, "sizeGiB", 1);
  d.category = Str(j, "category", "cloud_essd");
  d.performanceLevel = Str(j, "performanceLevel", d.category == "cloud_essd" ? "PL0" : "");
  d.deleteWithInstance = Num<bool>(j, "deleteWithInstance", d.type == "system");
  if (auto c = j.find("content"); c != j.end()) {
    d.content.kind = Str(*c, "pattern", "zero");
    d.content.dataMiB = Num<uint64_t>(*c, "dataMiB", 0);
    d.content.seed = Num<uint64_t>(*c, "seed", 0);
  }
  d.tags = TagsOf(j);
  if (d.type != "system" && d.type != "data") throw std::runtime_error("disk type must be system or data");
  if (d.sizeGiB < 1) throw std::runtime_error("disk sizeGiB must be at least 1");
  if (d.content.kind != "zero" && d.content.kind != "marker" && d.content.kind != "random") {
    throw std::runtime_error("content pattern must be zero, marker or random");
  }
  return d;
}

void Validate(const Scenario& s) {
  if (s.accessKeys.empty()) throw std::runtime_error("at least one access key is required");
  std::set<std::string> zones, types, ids;
  for (const auto& t : s.instanceTypes) types.insert(t.id);
  for (const auto& r : s.regions)
    for (const auto& z : r.zones) {
      zones.insert(r.id + "/" + z.id);
      for (const auto& t : z.instanceTypes)
        if (!types.count(t)) throw std::runtime_error("zone " + z.id + " offers unknown instance type " + t);
    }
  auto unique = [&](const std::string& id) {
    if (!id.empty() && !ids.insert(id).second) throw std::runtime_error("duplicate id " + id);
  };
  bool proxyFound = s.proxyInstanceId.empty();
  for (const auto& i : s.instances) {
    unique(i.id);
    if (!zones.count(i.regionId + "/" + i.zoneId)) {
      throw std::runtime_error("instance " + i.id + ": zone " + i.zoneId + " is not in region " + i.regionId);
    }
    auto type = std::find_if(s.instanceTypes.begin(), s.instanceTypes.end(),
                             [&](const auto& t) { return t.id == i.instanceType; });
    if (type == s.instanceTypes.end()) throw std::runtime_error("instance " + i.id + ": unknown instance type");
    size_t count = i.disks.size();
    size_t systems = 0;
    for (const auto& d : i.disks) {
      unique(d.id);
      systems += d.type == "system";
    }
    if (systems > 1) throw std::runtime_error("instance " + i.id + " has more than one system disk");
    if (systems == 0) ++count;
    if (count > static_cast<size_t>(type->diskQuantity)) {
      throw std::runtime_error("instance " + i.id + " has more disks than its type's DiskQuantity");
    }
    if (i.status != "Running" && i.status != "Stopped") throw std::runtime_error("instance status must be Running or Stopped");
    proxyFound = proxyFound || i.id == s.proxyInstanceId;
  }
  for (const auto& d : s.disks) {
    unique(d.id);
    if (!zones.count(d.regionId + "/" + d.zoneId)) throw std::runtime_error("disk " + d.id + ": unknown zone");
  }
  if (!proxyFound) throw std::runtime_error("proxyInstanceId names no instance");
}

}  // namespace

std::optional<Scenario> Parse(const std::string& text, std::string* error) {
  try {
    json j = json::parse(text);
    Scenario s;
    for (const auto& k : j.at("accessKeys")) {
      api::AccessKey key{Str(k, "accessKeyId"), Str(k, "accessKeySecret"), Str(k, "securityToken"), std::nullopt};
      if (key.id.empty() || key.secret.empty()) throw std::runtime_error("access keys need id and secret");
      std::string expiration = Str(k, "expiration");
      if (!expiration.empty()) {
        key.expiration = timefmt::ParseIso8601(expiration);
        if (!key.expiration) throw std::runtime_error("bad expiration " + expiration);
      }
      s.accessKeys.push_back(std::move(key));
    }
    if (auto t = j.find("timings"); t != j.end()) {
      s.timings.diskCreate = Num<double>(*t, "diskCreateSeconds", s.timings.diskCreate);
      s.timings.diskAttach = Num<double>(*t, "diskAttachSeconds", s.timings.diskAttach);
      s.timings.diskDetach = Num<double>(*t, "diskDetachSeconds", s.timings.diskDetach);
      s.timings.snapshot = Num<double>(*t, "snapshotSeconds", s.timings.snapshot);
      s.timings.image = Num<double>(*t, "imageSeconds", s.timings.image);
      s.timings.instancePending = Num<double>(*t, "instancePendingSeconds", s.timings.instancePending);
      s.timings.instanceStart = Num<double>(*t, "instanceStartSeconds", s.timings.instanceStart);
      s.timings.instanceStop = Num<double>(*t, "instanceStopSeconds", s.timings.instanceStop);
    }
    for (const auto& t : j.at("instanceTypes")) {
      model::InstanceType type;
      type.id = Str(t, "instanceTypeId");
      type.family = Str(t, "family", type.id.substr(0, type.id.rfind('.')));
      type.cpu = Num<int>(t, "cpu", 2);
      type.memoryGiB = Num<double>(t, "memoryGiB", 8);
      type.diskQuantity = Num<int>(t, "diskQuantity", 17);
      type.nvmeSupport = Str(t, "nvmeSupport", "unsupported");
      type.cpuArchitecture = Str(t, "cpuArchitecture", "X86");
      if (type.id.empty() || type.diskQuantity < 1) throw std::runtime_error("bad instance type");
      s.instanceTypes.push_back(type);
    }
    for (const auto& r : j.at("regions")) {
      model::Region region{Str(r, "regionId"), Str(r, "localName"), {}};
      for (const auto& z : r.at("zones")) {
        region.zones.push_back({Str(z, "zoneId"), Str(z, "localName"), StrList(z, "instanceTypes"),
                                StrList(z, "diskCategories")});
      }
      s.regions.push_back(std::move(region));
    }
    for (const auto& m : j.value("images", json::array())) {
      ImageSpec image;
      image.id = Str(m, "imageId");
      image.name = Str(m, "imageName", image.id);
      image.regionId = Str(m, "regionId");
      image.platform = Str(m, "platform", image.platform);
      image.osName = Str(m, "osName", image.osName);
      image.osType = Str(m, "osType", image.osType);
      image.architecture = Str(m, "architecture", image.architecture);
      image.sizeGiB = Num<int64_t>(m, "sizeGiB", image.sizeGiB);
      s.images.push_back(image);
    }
    for (const auto& i : j.value("instances", json::array())) {
      InstanceSpec spec;
      spec.id = Str(i, "instanceId");
      spec.name = Str(i, "instanceName");
      spec.regionId = Str(i, "regionId");
      spec.zoneId = Str(i, "zoneId");
      spec.instanceType = Str(i, "instanceType");
      spec.imageId = Str(i, "imageId");
      spec.status = Str(i, "status", "Running");
      spec.tags = TagsOf(i);
      for (const auto& d : i.value("disks", json::array())) spec.disks.push_back(ParseDisk(d));
      s.instances.push_back(std::move(spec));
    }
    for (const auto& d : j.value("disks", json::array())) s.disks.push_back(ParseDisk(d));
    s.proxyInstanceId = Str(j, "proxyInstanceId");
    Validate(s);
    return s;
  } catch (const std::exception& e) {
    if (error) *error = std::string("invalid scenario: ") + e.what();
    return std::nullopt;
  }
}

namespace {

model::Disk MakeDisk(model::Store& store, const DiskSpec& spec, const std::string& regionId,
                     const std::string& zoneId) {
  model::Disk d;
  d.id = spec.id.empty() ? store.NewId("d-") : spec.id;
  d.name = spec.name;
  d.regionId = regionId;
  d.zoneId = zoneId;
  d.type = spec.type;
  d.sizeGiB = spec.sizeGiB;
  d.category = spec.category;
  d.performanceLevel = spec.performanceLevel;
  d.deleteWithInstance = spec.deleteWithInstance;
  d.tags = spec.tags;
  return d;
}

void FillDisk(const model::Disk& disk, const DiskSpec& spec) {
  data::ContentPattern pattern = spec.content;
  pattern.label = disk.id;
  if (pattern.seed == 0) pattern.seed = std::hash<std::string>{}(disk.id);
  data::DataPlane::Fill(disk.file, static_cast<uint64_t>(disk.sizeGiB) * data::kGiB, pattern);
}

}  // namespace

void Apply(const Scenario& s, model::Store& store) {
  store.timings() = s.timings;
  store.regions() = s.regions;
  for (const auto& t : s.instanceTypes) store.instanceTypes()[t.id] = t;
  store.proxyInstanceId = s.proxyInstanceId;

  for (const auto& spec : s.images) {
    model::Image image;
    image.id = spec.id;
    image.name = spec.name;
    image.regionId = spec.regionId;
    image.status = "Available";
    image.ownerAlias = "system";
    image.platform = spec.platform;
    image.osName = spec.osName;
    image.osType = spec.osType;
    image.architecture = spec.architecture;
    image.sizeGiB = spec.sizeGiB;
    image.mappings.push_back({"", "/dev/xvda", "system", spec.sizeGiB, {}});
    image.creationTime = store.NowIso();
    image.sequence = store.NextSequence();
    store.images[image.id] = image;
  }

  int index = 0;
  for (const auto& spec : s.instances) {
    ++index;
    model::Instance inst;
    inst.id = spec.id.empty() ? store.NewId("i-") : spec.id;
    inst.name = spec.name.empty() ? inst.id : spec.name;
    inst.hostName = "iZ" + inst.id.substr(2) + "Z";
    inst.regionId = spec.regionId;
    inst.zoneId = spec.zoneId;
    inst.instanceType = spec.instanceType;
    inst.imageId = spec.imageId;
    if (auto image = store.images.find(spec.imageId); image != store.images.end()) {
      inst.osName = image->second.osName;
      inst.osType = image->second.osType;
    }
    inst.status = spec.status;
    inst.vpcId = "vpc-hxsim" + spec.regionId;
    inst.vswitchId = "vsw-hxsim" + spec.zoneId;
    inst.securityGroupId = "sg-hxsim" + spec.regionId;
    inst.privateIp = "172.16." + std::to_string(index / 250) + "." + std::to_string(10 + index % 250);
    inst.serialNumber = store.NewId("");
    inst.creationTime = store.NowIso(false);
    inst.startTime = spec.status == "Running" ? inst.creationTime : "";
    inst.tags = spec.tags;
    inst.sequence = store.NextSequence();
    const model::Instance& stored = store.instances[inst.id] = inst;

    std::vector<DiskSpec> disks = spec.disks;
    if (std::none_of(disks.begin(), disks.end(), [](const auto& d) { return d.type == "system"; })) {
      DiskSpec system;
      system.type = "system";
      system.deleteWithInstance = true;
      disks.insert(disks.begin(), system);
    }
    // The system disk takes /dev/xvda; data disks follow in listed order.
    std::stable_partition(disks.begin(), disks.end(), [](const auto& d) { return d.type == "system"; });
    for (const auto& diskSpec : disks) {
      model::Disk& disk = store.CreateDisk(MakeDisk(store, diskSpec, spec.regionId, spec.zoneId), {}, true);
      if (disk.type == "system") disk.imageId = spec.imageId;
      FillDisk(disk, diskSpec);
      store.BeginAttach(disk, stored, true);
    }
  }
  for (const auto& spec : s.disks) {
    model::Disk& disk = store.CreateDisk(MakeDisk(store, spec, spec.regionId, spec.zoneId), {}, true);
    FillDisk(disk, spec);
  }
}

}  // namespace hxsim::scenario
