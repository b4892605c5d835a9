// Tolerant readers for ECS JSON answers. ECS wraps lists ({"Disks":{"Disk":[...]}}) and is
// not always consistent about numbers as strings ("Size": 40 vs "SourceDiskSize": "40").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace hxbridge::jv {

using nlohmann::json;

// The array under obj[outer][inner]; also accepts obj[outer] being the array itself.
// Missing or null parts give an empty list.
std::vector<json> WrappedList(const json& obj, const char* outer, const char* inner);

// The same list from a top-level answer that must carry it: a missing or mistyped wrapper
// means the answer is not what ECS sends, so it throws ApiError(Malformed) naming `action`
// instead of passing for "nothing found". An empty list ({"Disks":{"Disk":[]}}) is fine.
std::vector<json> RequiredList(const json& answer, const char* outer, const char* inner, const std::string& action);

// obj[key] as text: strings as they are, numbers and booleans printed, else `fallback`.
std::string Str(const json& obj, const char* key, const std::string& fallback = {});

// obj[key] as an integer: numbers, or strings that start with digits ("100%" gives 100).
std::int64_t Int(const json& obj, const char* key, std::int64_t fallback = 0);

// obj[key] as a boolean: true/false, "true"/"false", 1/0.
bool Bool(const json& obj, const char* key, bool fallback = false);

// A JSON-array string (InstanceIds, DiskIds, SnapshotIds parameters): ["a","b"].
std::string IdArray(const std::vector<std::string>& ids);

}  // namespace hxbridge::jv
