#include "scenario/Scenario.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "model/Store.h"
#include "util/Ipv4.h"

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

// The default VPC, security group and vSwitches of every region, unless listed.
void AddDefaultNetworks(Scenario& s) {
  auto listed = [](const auto& list, const std::string& id) {
    return std::any_of(list.begin(), list.end(), [&](const auto& o) { return o.id == id; });
  };
  std::vector<model::Vpc> vpcs;
  std::vector<model::VSwitch> vswitches;
  std::vector<model::SecurityGroup> groups;
  const uint32_t first = *ipv4::Parse("172.16.0.0");
  for (const auto& r : s.regions) {
    const std::string vpcId = "vpc-hxsim" + r.id;
    if (!listed(s.vpcs, vpcId)) vpcs.push_back({vpcId, r.id, "172.16.0.0/12"});
    if (!listed(s.securityGroups, "sg-hxsim" + r.id)) groups.push_back({"sg-hxsim" + r.id, "default", vpcId, r.id});
    for (size_t k = 0; k < r.zones.size(); ++k) {
      const std::string id = "vsw-hxsim" + r.zones[k].id;
      if (k >= 256) throw std::runtime_error("region " + r.id + ": too many zones for default vSwitches");
      if (!listed(s.vswitches, id)) {
        vswitches.push_back({id, vpcId, r.id, r.zones[k].id,
                             ipv4::Format(first + static_cast<uint32_t>(k) * 4096) + "/20"});
      }
    }
  }
  s.vpcs.insert(s.vpcs.begin(), vpcs.begin(), vpcs.end());
  s.vswitches.insert(s.vswitches.begin(), vswitches.begin(), vswitches.end());
  s.securityGroups.insert(s.securityGroups.begin(), groups.begin(), groups.end());
}

// Checks the networks and completes every instance's vSwitch, groups and address.
void ResolveNetworks(Scenario& s) {
  std::set<std::string> ids, zones;
  for (const auto& r : s.regions)
    for (const auto& z : r.zones) zones.insert(r.id + "/" + z.id);
  auto unique = [&](const std::string& id, const char* what) {
    if (id.empty()) throw std::runtime_error(std::string(what) + " without an id");
    if (!ids.insert(id).second) throw std::runtime_error("duplicate id " + id);
  };
  std::map<std::string, const model::Vpc*> vpcs;
  for (const auto& v : s.vpcs) {
    unique(v.id, "VPC");
    if (std::none_of(s.regions.begin(), s.regions.end(), [&](const auto& r) { return r.id == v.regionId; })) {
      throw std::runtime_error("VPC " + v.id + ": unknown region " + v.regionId);
    }
    if (!ipv4::ParseCidr(v.cidrBlock)) throw std::runtime_error("VPC " + v.id + ": bad cidrBlock " + v.cidrBlock);
    vpcs[v.id] = &v;
  }
  auto vpcOf = [&](const std::string& vpcId, const std::string& who) -> const model::Vpc& {
    auto it = vpcs.find(vpcId);
    if (it == vpcs.end()) throw std::runtime_error(who + ": unknown VPC " + vpcId);
    return *it->second;
  };
  std::map<std::string, model::VSwitch*> vswitches;
  for (auto& w : s.vswitches) {
    unique(w.id, "vSwitch");
    const auto& vpc = vpcOf(w.vpcId, "vSwitch " + w.id);
    w.regionId = vpc.regionId;
    if (!zones.count(w.regionId + "/" + w.zoneId)) {
      throw std::runtime_error("vSwitch " + w.id + ": zone " + w.zoneId + " is not in region " + w.regionId);
    }
    auto block = ipv4::ParseCidr(w.cidrBlock);
    if (!block || !ipv4::ParseCidr(vpc.cidrBlock)->Contains(*block)) {
      throw std::runtime_error("vSwitch " + w.id + ": cidrBlock " + w.cidrBlock + " is not inside " + vpc.cidrBlock);
    }
    for (const auto& [otherId, other] : vswitches) {
      if (other->vpcId == w.vpcId && ipv4::ParseCidr(other->cidrBlock)->Overlaps(*block)) {
        throw std::runtime_error("vSwitch " + w.id + ": cidrBlock overlaps " + otherId);
      }
    }
    vswitches[w.id] = &w;
  }
  std::map<std::string, const model::SecurityGroup*> groups;
  for (auto& g : s.securityGroups) {
    unique(g.id, "security group");
    g.regionId = vpcOf(g.vpcId, "security group " + g.id).regionId;
    groups[g.id] = &g;
  }

  // Listed addresses first, so that the defaults handed out next never take one.
  std::map<std::string, std::set<uint32_t>> used;  // by vSwitch
  for (auto& i : s.instances) {
    if (i.vSwitchId.empty()) i.vSwitchId = "vsw-hxsim" + i.zoneId;
    auto w = vswitches.find(i.vSwitchId);
    if (w == vswitches.end()) throw std::runtime_error("instance " + i.id + ": unknown vSwitch " + i.vSwitchId);
    if (w->second->zoneId != i.zoneId) throw std::runtime_error("instance " + i.id + ": vSwitch " + i.vSwitchId + " is in another zone");
    if (i.securityGroupIds.empty()) {
      const std::string fallback = "sg-hxsim" + i.regionId;
      auto g = groups.find(fallback);
      if (g != groups.end() && g->second->vpcId == w->second->vpcId) {
        i.securityGroupIds.push_back(fallback);
      } else {
        for (const auto& g2 : s.securityGroups) {
          if (g2.vpcId == w->second->vpcId) {
            i.securityGroupIds.push_back(g2.id);
            break;
          }
        }
      }
      if (i.securityGroupIds.empty()) throw std::runtime_error("instance " + i.id + ": no security group in its VPC");
    }
    if (i.securityGroupIds.size() > 5) throw std::runtime_error("instance " + i.id + ": more than 5 security groups");
    std::set<std::string> seen;
    for (const auto& id : i.securityGroupIds) {
      auto g = groups.find(id);
      if (g == groups.end()) throw std::runtime_error("instance " + i.id + ": unknown security group " + id);
      if (g->second->vpcId != w->second->vpcId) throw std::runtime_error("instance " + i.id + ": security group " + id + " is in another VPC");
      if (!seen.insert(id).second) throw std::runtime_error("instance " + i.id + ": security group " + id + " listed twice");
    }
    if (i.privateIp.empty()) continue;
    auto address = ipv4::Parse(i.privateIp);
    auto block = *ipv4::ParseCidr(w->second->cidrBlock);
    if (!address || !block.Contains(*address) || block.Reserved(*address)) {
      throw std::runtime_error("instance " + i.id + ": privateIpAddress " + i.privateIp + " is not usable in " + i.vSwitchId);
    }
    if (!used[i.vSwitchId].insert(*address).second) {
      throw std::runtime_error("instance " + i.id + ": privateIpAddress " + i.privateIp + " is taken");
    }
  }
  for (auto& i : s.instances) {
    if (!i.privateIp.empty()) continue;
    auto free = ipv4::LowestFree(*ipv4::ParseCidr(vswitches[i.vSwitchId]->cidrBlock), used[i.vSwitchId]);
    if (!free) throw std::runtime_error("instance " + i.id + ": vSwitch " + i.vSwitchId + " is full");
    used[i.vSwitchId].insert(*free);
    i.privateIp = ipv4::Format(*free);
  }
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
      s.timings.tokenProcessing = Num<double>(*t, "tokenProcessingSeconds", s.timings.tokenProcessing);
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
    for (const auto& v : j.value("vpcs", json::array())) {
      s.vpcs.push_back({Str(v, "vpcId"), Str(v, "regionId"), Str(v, "cidrBlock", "172.16.0.0/12")});
    }
    for (const auto& w : j.value("vSwitches", json::array())) {
      s.vswitches.push_back({Str(w, "vSwitchId"), Str(w, "vpcId"), "", Str(w, "zoneId"), Str(w, "cidrBlock")});
    }
    for (const auto& g : j.value("securityGroups", json::array())) {
      s.securityGroups.push_back({Str(g, "securityGroupId"), Str(g, "securityGroupName"), Str(g, "vpcId"), ""});
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
      spec.vSwitchId = Str(i, "vSwitchId");
      spec.privateIp = Str(i, "privateIpAddress");
      spec.securityGroupIds = StrList(i, "securityGroupIds");
      spec.tags = TagsOf(i);
      for (const auto& d : i.value("disks", json::array())) spec.disks.push_back(ParseDisk(d));
      s.instances.push_back(std::move(spec));
    }
    for (const auto& d : j.value("disks", json::array())) s.disks.push_back(ParseDisk(d));
    s.proxyInstanceId = Str(j, "proxyInstanceId");
    Validate(s);
    AddDefaultNetworks(s);
    ResolveNetworks(s);
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
  for (const auto& v : s.vpcs) store.vpcs[v.id] = v;
  for (const auto& w : s.vswitches) store.vswitches[w.id] = w;
  for (const auto& g : s.securityGroups) store.securityGroups[g.id] = g;

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

  for (const auto& spec : s.instances) {
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
    inst.vswitchId = spec.vSwitchId;
    inst.vpcId = store.vswitches.at(spec.vSwitchId).vpcId;
    inst.securityGroupIds = spec.securityGroupIds;
    inst.privateIp = spec.privateIp;
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
