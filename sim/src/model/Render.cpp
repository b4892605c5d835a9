#include "model/Render.h"

#include <cmath>
#include <cstdio>

namespace hxsim::model {

using nlohmann::json;

json RenderTags(const Tags& tags) {
  json list = json::array();
  for (const auto& [k, v] : tags) list.push_back({{"TagKey", k}, {"TagValue", v}});
  return {{"Tag", list}};
}

namespace {
// The instance's primary network interface. ECS gives each instance one, with its own id
// and a MAC in Alibaba's 00:16:3e range; here both derive from the instance id, so they
// stay the same for the instance's life.
json PrimaryNetworkInterface(const Instance& i) {
  uint32_t h = 2166136261u;  // FNV-1a of the id
  for (unsigned char c : i.id) h = (h ^ c) * 16777619u;
  char mac[18];
  std::snprintf(mac, sizeof mac, "00:16:3e:%02x:%02x:%02x", (h >> 16) & 0xff, (h >> 8) & 0xff, h & 0xff);
  const std::string suffix = i.id.size() > 2 ? i.id.substr(2) : i.id;
  return {{"NetworkInterfaceId", "eni-" + suffix},
          {"MacAddress", mac},
          {"PrimaryIpAddress", i.privateIp},
          {"Type", "Primary"},
          {"PrivateIpSets", {{"PrivateIpSet", json::array({{{"PrivateIpAddress", i.privateIp}, {"Primary", true}}})}}}};
}
}  // namespace

json RenderInstance(Store& store, const Instance& i) {
  const InstanceType& type = store.TypeOf(i);
  json locks = json::array();
  for (const auto& reason : i.lockReasons) locks.push_back({{"LockReason", reason}});
  return {
      {"InstanceId", i.id},
      {"InstanceName", i.name},
      {"HostName", i.hostName},
      {"Description", i.description},
      {"RegionId", i.regionId},
      {"ZoneId", i.zoneId},
      {"Status", i.status},
      {"InstanceType", i.instanceType},
      {"InstanceTypeFamily", type.family},
      {"Cpu", type.cpu},
      {"Memory", static_cast<int64_t>(std::llround(type.memoryGiB * 1024))},  // MiB
      {"ImageId", i.imageId},
      {"OSType", i.osType},
      {"OSName", i.osName},
      {"InstanceChargeType", i.chargeType},
      {"InternetChargeType", "PayByTraffic"},
      {"InstanceNetworkType", "vpc"},
      {"SerialNumber", i.serialNumber},
      {"CreationTime", i.creationTime},
      {"StartTime", i.startTime},
      {"ExpiredTime", "2099-12-31T15:59Z"},
      {"DeletionProtection", false},
      {"IoOptimized", true},
      {"VpcAttributes",
       {{"VpcId", i.vpcId},
        {"VSwitchId", i.vswitchId},
        {"NatIpAddress", ""},
        {"PrivateIpAddress", {{"IpAddress", json::array({i.privateIp})}}}}},
      {"SecurityGroupIds", {{"SecurityGroupId", i.securityGroupIds}}},
      {"NetworkInterfaces", {{"NetworkInterface", json::array({PrimaryNetworkInterface(i)})}}},
      {"PublicIpAddress", {{"IpAddress", json::array()}}},
      {"OperationLocks", {{"LockReason", locks}}},
      {"Tags", RenderTags(i.tags)},
  };
}

json RenderDisk(Store&, const Disk& d) {
  json attachments = json::array();
  if (!d.instanceId.empty() && d.status != "Attaching") {
    attachments.push_back({{"InstanceId", d.instanceId}, {"Device", d.device}, {"AttachedTime", d.attachedTime}});
  }
  // While attaching, ECS already reports the target instance on the disk.
  return {
      {"DiskId", d.id},
      {"DiskName", d.name},
      {"Description", d.description},
      {"RegionId", d.regionId},
      {"ZoneId", d.zoneId},
      {"Status", d.status},
      {"Type", d.type},
      {"Category", d.category},
      {"PerformanceLevel", d.performanceLevel},
      {"Size", d.sizeGiB},
      {"InstanceId", d.instanceId},
      {"Device", d.device},
      {"SerialNumber", Store::SerialOf(d.id)},
      {"SourceSnapshotId", d.sourceSnapshotId},
      {"ImageId", d.imageId},
      {"DeleteWithInstance", d.deleteWithInstance},
      {"DeleteAutoSnapshot", false},
      {"EnableAutoSnapshot", false},
      {"Portable", d.portable},
      {"Encrypted", false},
      {"DiskChargeType", "PostPaid"},
      {"CreationTime", d.creationTime},
      {"AttachedTime", d.attachedTime},
      {"DetachedTime", d.detachedTime},
      {"Attachments", {{"Attachment", attachments}}},
      {"OperationLocks", {{"OperationLock", json::array()}}},
      {"Tags", RenderTags(d.tags)},
  };
}

json RenderSnapshot(Store& store, const Snapshot& s) {
  const int progress = store.SnapshotProgress(s);
  const double remain =
      s.status == "progressing" ? std::max(0.0, store.clock().Unscaled(s.due - store.clock().Now())) : 0.0;
  return {
      {"SnapshotId", s.id},
      {"SnapshotName", s.name},
      {"Description", s.description},
      {"RegionId", s.regionId},
      {"Status", s.status},
      {"Progress", std::to_string(progress) + "%"},
      {"RemainTime", s.stalled ? 3600 : static_cast<int>(std::ceil(remain))},
      {"Available", s.status == "accomplished"},
      {"SourceDiskId", s.sourceDiskId},
      {"SourceDiskSize", std::to_string(s.sourceDiskSizeGiB)},
      {"SourceDiskType", s.sourceDiskType},
      {"SourceStorageType", "disk"},
      {"SnapshotType", "user"},
      {"Category", "standard"},
      {"InstantAccess", false},
      {"Encrypted", false},
      {"RetentionDays", s.retentionDays},
      {"CreationTime", s.creationTime},
      {"LastModifiedTime", s.creationTime},
      {"Usage", "none"},
      {"Tags", RenderTags(s.tags)},
  };
}

json RenderImage(Store& store, const Image& m) {
  json mappings = json::array();
  for (const auto& mapping : m.mappings) {
    mappings.push_back({{"SnapshotId", mapping.snapshotId},
                        {"Device", mapping.device},
                        {"Type", mapping.type},
                        {"Size", std::to_string(mapping.sizeGiB)},
                        {"Format", ""},
                        {"Progress", std::to_string(store.ImageProgress(m)) + "%"}});
  }
  return {
      {"ImageId", m.id},
      {"ImageName", m.name},
      {"Description", m.description},
      {"Status", m.status},
      {"Progress", std::to_string(store.ImageProgress(m)) + "%"},
      {"Architecture", m.architecture},
      {"Platform", m.platform},
      {"OSType", m.osType},
      {"OSName", m.osName},
      {"BootMode", m.bootMode},
      {"ImageOwnerAlias", m.ownerAlias},
      {"IsSelfShared", ""},
      {"IsSupportCloudinit", true},
      {"IsSupportIoOptimized", true},
      {"Size", m.sizeGiB},
      {"Usage", "none"},
      {"CreationTime", m.creationTime},
      {"DiskDeviceMappings", {{"DiskDeviceMapping", mappings}}},
      {"Tags", RenderTags(m.tags)},
  };
}

}  // namespace hxsim::model
