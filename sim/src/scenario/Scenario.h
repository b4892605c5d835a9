// Scenario files: the world an emulator run starts from (access keys, regions, zones,
// instance types, networks, public images, instances with their disks and content, the
// proxy), plus the durations of the asynchronous transitions. JSON; see
// DefaultScenario.cpp for a complete example (printed by `ecs-sim --print-default-scenario`).
//
// Networks: every region has a default VPC `vpc-hxsim<region>` (172.16.0.0/12) with a
// default security group `sg-hxsim<region>`, and every zone a default vSwitch
// `vsw-hxsim<zone>` in it (the region's k-th zone gets 172.16.<16k>.0/20). Listed VPCs,
// vSwitches and security groups come in addition (one listed with a default's id replaces
// it). An instance without vSwitchId, privateIpAddress or securityGroupIds gets its zone's
// default vSwitch, the lowest free address in it, and its VPC's default group.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "api/Auth.h"
#include "data/DataPlane.h"
#include "model/Model.h"

namespace hxsim::model {
class Store;
}

namespace hxsim::scenario {

struct DiskSpec {
  std::string id;  // generated when empty
  std::string name;
  std::string regionId;  // loose disks only; attached disks take their instance's
  std::string zoneId;
  std::string type = "data";  // system | data
  int64_t sizeGiB = 1;
  std::string category = "cloud_essd";
  std::string performanceLevel = "PL0";
  bool deleteWithInstance = false;  // system disks are always deleted with their instance
  data::ContentPattern content;
  model::Tags tags;
};

struct InstanceSpec {
  std::string id;  // generated when empty
  std::string name;
  std::string regionId;
  std::string zoneId;
  std::string instanceType;
  std::string imageId;
  std::string status = "Running";  // Running | Stopped
  std::string vSwitchId;                      // filled in by Parse when not given
  std::string privateIp;                      // empty: the vSwitch's lowest free address
  std::vector<std::string> securityGroupIds;  // filled in by Parse when not given
  model::Tags tags;
  std::vector<DiskSpec> disks;  // a 1 GiB system disk is added when none is listed
};

struct ImageSpec {
  std::string id;
  std::string name;
  std::string regionId;  // empty: offered in every region
  std::string platform = "Aliyun";
  std::string osName = "Alibaba Cloud Linux 3";
  std::string osType = "linux";
  std::string architecture = "x86_64";
  int64_t sizeGiB = 20;
};

struct Scenario {
  std::vector<api::AccessKey> accessKeys;
  model::Timings timings;
  std::vector<model::Region> regions;
  std::vector<model::InstanceType> instanceTypes;
  std::vector<model::Vpc> vpcs;                       // defaults included once parsed
  std::vector<model::VSwitch> vswitches;              // defaults included once parsed
  std::vector<model::SecurityGroup> securityGroups;  // defaults included once parsed
  std::vector<ImageSpec> images;
  std::vector<InstanceSpec> instances;
  std::vector<DiskSpec> disks;  // unattached disks
  std::string proxyInstanceId;
};

// Parses and validates (zones exist, types exist, the proxy exists, disk counts within
// DiskQuantity, ids unique, vSwitch blocks inside their VPC and apart, instance addresses
// inside their vSwitch and unique, groups in the instance's VPC). Never throws; on failure returns nullopt and sets *error.
std::optional<Scenario> Parse(const std::string& json, std::string* error);

// The built-in demo world, as JSON text.
const std::string& DefaultScenarioJson();

// Loads the scenario into an empty store: catalogue, resources, disk files with their
// content, and the proxy's device links. Requires the store lock; throws on file errors.
void Apply(const Scenario& scenario, model::Store& store);

}  // namespace hxsim::scenario
