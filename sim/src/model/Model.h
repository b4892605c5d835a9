// The emulator's resource model: plain records for every ECS object it serves. All
// sizes are GiB unless a name says otherwise; times are steady-clock points (for
// transitions) or wall-clock ISO strings (as reported by the API).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace hxsim::model {

using SteadyTime = std::chrono::steady_clock::time_point;
using Tags = std::map<std::string, std::string>;

// A pending status change: the object takes `status` once `due` has passed.
struct Step {
  std::string status;
  SteadyTime due;
};

struct Zone {
  std::string id;
  std::string localName;
  std::vector<std::string> instanceTypes;   // offered in this zone
  std::vector<std::string> diskCategories;  // e.g. cloud_essd, cloud_auto
};

struct Region {
  std::string id;
  std::string localName;
  std::vector<Zone> zones;
};

struct InstanceType {
  std::string id;
  std::string family;
  int cpu = 2;
  double memoryGiB = 8;
  // Most cloud disks (system disk included) an instance of this type can have attached.
  int diskQuantity = 17;
  std::string nvmeSupport = "unsupported";
  std::string cpuArchitecture = "X86";
  int eniQuantity = 3;
};

// Durations of the asynchronous transitions, in seconds at time scale 1.
struct Timings {
  double diskCreate = 3;
  double diskAttach = 5;
  double diskDetach = 5;
  double snapshot = 20;
  double image = 30;
  double instancePending = 10;
  double instanceStart = 10;
  double instanceStop = 10;
  // How long a create stays "in progress" for its ClientToken: a repetition with the same
  // token in that window is answered LastTokenProcessing, later ones replay the result.
  double tokenProcessing = 1;
};

// Networking: each region's instances live in VPCs; a vSwitch is one zone's slice of a
// VPC's addresses; a security group belongs to one VPC and only takes its instances.
struct Vpc {
  std::string id;
  std::string regionId;
  std::string cidrBlock;
};

struct VSwitch {
  std::string id;
  std::string vpcId;
  std::string regionId;
  std::string zoneId;
  std::string cidrBlock;
};

struct SecurityGroup {
  std::string id;
  std::string name;
  std::string vpcId;
  std::string regionId;
};

struct Instance {
  std::string id;
  std::string name;
  std::string hostName;
  std::string description;
  std::string regionId;
  std::string zoneId;
  std::string instanceType;
  std::string imageId;
  std::string osName = "Alibaba Cloud Linux 3";
  std::string osType = "linux";
  std::string status;  // Pending, Starting, Running, Stopping, Stopped
  std::deque<Step> steps;
  std::string vpcId;
  std::string vswitchId;
  std::vector<std::string> securityGroupIds;  // in joining order; never empty
  std::string privateIp;
  std::string chargeType = "PostPaid";
  std::string serialNumber;
  std::string creationTime;
  std::string startTime;
  std::vector<std::string> lockReasons;  // OperationLocks; "security" blocks everything
  Tags tags;
  uint64_t sequence = 0;  // creation order
};

struct Disk {
  std::string id;
  std::string name;
  std::string description;
  std::string regionId;
  std::string zoneId;
  std::string category = "cloud_essd";
  std::string performanceLevel = "PL0";
  std::string type = "data";  // system | data
  int64_t sizeGiB = 1;
  std::string status;  // Creating, Available, Attaching, In_use, Detaching
  std::deque<Step> steps;
  std::string instanceId;  // set from Attaching until Detaching completes
  std::string device;      // API device name, e.g. /dev/xvdb (not the guest's name)
  std::string sourceSnapshotId;
  std::string imageId;
  bool deleteWithInstance = false;
  bool portable = true;
  bool everAttached = false;
  std::string creationTime;
  std::string attachedTime;
  std::string detachedTime;
  Tags tags;
  uint64_t sequence = 0;
  std::filesystem::path file;  // sparse file of sizeGiB * 2^30 bytes
};

struct Snapshot {
  std::string id;
  std::string name;
  std::string description;
  std::string regionId;
  std::string sourceDiskId;
  std::string sourceDiskType;  // system | data
  std::string sourceDiskCategory;
  int64_t sourceDiskSizeGiB = 0;
  std::string status;  // progressing, accomplished, failed
  SteadyTime started;
  SteadyTime due;
  bool stalled = false;  // fault injection: never completes
  int retentionDays = 0;
  std::string creationTime;
  Tags tags;
  uint64_t sequence = 0;
  std::filesystem::path file;  // frozen content of the source disk at creation
};

struct ImageMapping {
  std::string snapshotId;
  std::string device;  // /dev/xvda for the system disk, /dev/xvdb... for data
  std::string type;    // system | data
  int64_t sizeGiB = 0;
  std::filesystem::path file;  // the image's own copy; empty for content-less system images
};

struct Image {
  std::string id;
  std::string name;
  std::string description;
  std::string regionId;  // empty for public images offered in every region
  std::string status;    // Creating, Available, ...
  SteadyTime started;
  SteadyTime due;
  std::string architecture = "x86_64";
  std::string platform = "Aliyun";
  std::string osType = "linux";
  std::string osName = "Alibaba Cloud Linux 3";
  std::string bootMode = "UEFI-Preferred";
  std::string ownerAlias = "self";  // system | self
  int64_t sizeGiB = 20;
  std::vector<ImageMapping> mappings;
  std::string creationTime;
  Tags tags;
  uint64_t sequence = 0;
};

}  // namespace hxsim::model
