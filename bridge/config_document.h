// The instance configuration document: what a backup keeps of an instance so that a
// restore can rebuild it. JSON, UTF-8, written by GetVMInfoAndConfigFile and read back by
// GetVMInfoFromConfigFile, CreateInstance and AddPeripheralComponents.
//
// Version 1:
//   {
//     "kind": "hx.alicloud.ecs.instance-config",   // fixed; identifies the document
//     "version": 1,                                 // integer; readers refuse others
//     "createdAt": "2024-05-01T10:00:00Z",          // UTC, when the backup described it
//     "regionId": "cn-hangzhou",
//     "architecture": "x86_64",                     // x86_64 | arm64 | i386
//     "instance": { ... },      // the DescribeInstances "Instance" object, as ECS sent it
//     "disks": [ { ... } ],     // the DescribeDisks "Disk" objects of the instance
//     "instanceType": { ... }   // the DescribeInstanceTypes entry, or null when unknown
//   }
// Keeping ECS's own objects, rather than a digest of them, lets a later reader use fields
// this version does not interpret. Nothing secret is in them (ECS never returns
// passwords or keys through these actions).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "VMInfoStructs.h"

namespace hxbridge {

inline constexpr const char* kConfigKind = "hx.alicloud.ecs.instance-config";
inline constexpr int kConfigVersion = 1;

struct ConfigDocument {
    int version = kConfigVersion;
    std::string createdAt;
    std::string regionId;
    std::string architecture;
    nlohmann::json instance = nlohmann::json::object();
    std::vector<nlohmann::json> disks;
    nlohmann::json instanceType;  // null when unknown

    // The document's text (pretty-printed, stable key order).
    std::string Serialize() const;

    // Throws ApiError(Client, "InvalidConfigDocument") for text that is not such a document
    // (not JSON, wrong kind, missing instance) and ApiError(Client,
    // "UnsupportedConfigDocumentVersion") for a version other than 1.
    static ConfigDocument Parse(const std::string& text);

    // The instance with its disks (system disk first, then as listed), mapped as in mapping.h.
    VMInfoStructs::SVMInfo ToVMInfo() const;

    // The system disk's entry, or null.
    const nlohmann::json* SystemDisk() const;

    // User tags of the instance (Tags.Tag[].TagKey/TagValue); keys reserved by the cloud
    // ("acs:", "aliyun") are left out because they cannot be set.
    std::vector<std::pair<std::string, std::string>> UserTags() const;
};

}  // namespace hxbridge
