// From ECS answers to the framework's records. Every function is pure.
//
// SVMInfo (one DescribeInstances "Instance"):
//   guid = InstanceId, name = InstanceName, description = Description,
//   regionId = RegionId, hostName = ZoneId (the zone, not the guest's host name),
//   status = Status, powerState = 1 for Running or Starting, else 0,
//   vmProfile = InstanceType, imageId = ImageId, cpuCount = Cpu, memoryMiB = Memory (MiB),
//   guestOS = "<OSName>;<architecture>" (OSName, else OSNameEn; architecture as below),
//   networkCards: one per NetworkInterfaces.NetworkInterface (id, MacAddress,
//     PrimaryIpAddress, primary = Type "Primary"); the primary card also carries
//     VpcAttributes.VSwitchId, and every card VpcAttributes.VpcId; an instance without
//     interface entries but with VpcAttributes gets one primary card from them,
//   securityGroups: SecurityGroupIds.SecurityGroupId (ids; names left empty),
//   disks: not filled here (see DiskFromJson; the bridge adds them from DescribeDisks).
// Architecture: from the instance type's CpuArchitecture ("X86" -> "x86_64",
//   "ARM" -> "arm64"), "i386" when the OS name says 32 bit, "x86_64" when unknown. These
//   are the values CreateImage accepts, so a restore can hand the string back unchanged.
// SDisk (one DescribeDisks "Disk"):
//   diskId = DiskId, diskName = DiskName, diskSize = Size (GiB), size = Size * 2^30 bytes,
//   category = Category, performanceLevel = PerformanceLevel, zone = ZoneId,
//   isOSDisk = (Type == "system"), diskType = 1 for cloud disks (category "cloud*",
//   "elastic_ephemeral_disk*"), 0 for local disks (never snapshotted or attached),
//   createFlag = Encrypted, serialNumber = SerialNumber, diskLabel = Device (the API's
//   device name, informational only: it does not match the guest's device name).
// SDataCenterInfo (one DescribeRegions "Region"): name = RegionId, localName = LocalName.
// SHostInfo (one DescribeZones "Zone"): name = ZoneId, regionId = the region asked.
// SVMSizeInfo (one DescribeInstanceTypes "InstanceType"): name = InstanceTypeId,
//   specValue1 = CpuCoreCount, specValue2 = MemorySize (GiB) * 1024, maxDisks = DiskQuantity.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "VMInfoStructs.h"

namespace hxbridge {

// Flag bits of the inventory calls.
inline constexpr UINT64 kFlagFillInstances = 0x20000000ULL;         // bit 29: fill vmList
inline constexpr UINT64 kFlagFillZones = 0x0020000000000000ULL;     // bit 53: fill hostList

inline constexpr std::int64_t kBytesPerGiB = 1024LL * 1024 * 1024;

VMInfoStructs::SDisk DiskFromJson(const nlohmann::json& disk);
VMInfoStructs::SVMInfo InstanceFromJson(const nlohmann::json& instance, const std::string& architecture);
VMInfoStructs::SVMSizeInfo InstanceTypeFromJson(const nlohmann::json& type);
VMInfoStructs::SDataCenterInfo RegionFromJson(const nlohmann::json& region);
VMInfoStructs::SHostInfo ZoneFromJson(const nlohmann::json& zone, const std::string& regionId);

// "x86_64", "arm64" or "i386" (see above).
std::string ArchitectureOf(const std::string& cpuArchitecture, const std::string& osName);

// OSName, else OSNameEn.
std::string OsNameOf(const nlohmann::json& instance);

// The smallest data disk ECS makes in a category (GiB): cloud 5, cloud_efficiency and
// cloud_ssd 20, cloud_essd by performance level (PL0 1, PL1 20, PL2 461, PL3 1261; PL1 when
// not given, as ECS assumes), cloud_essd_entry 10, cloud_auto and anything else 1.
std::int64_t MinimumDiskSizeGiB(const std::string& category, const std::string& performanceLevel);

// The smallest system disk ECS accepts (GiB).
inline constexpr std::int64_t kMinimumSystemDiskGiB = 20;

// Whether a category names a cloud disk (snapshots, attach and create work on it).
bool IsCloudDiskCategory(const std::string& category);

}  // namespace hxbridge
