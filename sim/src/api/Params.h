// The parameters of one RPC request: query and form body kept apart (signature V3 signs
// only the query) plus a merged view for the action handlers, with typed accessors that
// answer malformed input the way ECS does (ApiError, 400).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "util/Encoding.h"

namespace hxsim::api {

class Params {
 public:
  void AddQuery(std::string key, std::string value);
  void AddBody(std::string key, std::string value);
  // Used by handlers that call other handlers' logic with synthesised parameters.
  void Set(const std::string& key, std::string value) { merged_[key] = std::move(value); }

  const enc::KeyValues& Query() const { return query_; }
  const enc::KeyValues& Body() const { return body_; }
  const std::map<std::string, std::string>& All() const { return merged_; }

  // When a key is in both the query and the body, the query wins.
  std::optional<std::string> Get(const std::string& name) const;
  bool Has(const std::string& name) const { return merged_.count(name) != 0; }
  std::string GetOr(const std::string& name, const std::string& fallback) const;
  // Throws Missing<name> when absent or empty.
  std::string Required(const std::string& name) const;

  // "true"/"false" (case-insensitive); anything else is InvalidParameter.
  bool Bool(const std::string& name, bool fallback) const;
  // Decimal integer within [min, max]; anything else is InvalidParameter.
  int64_t Int(const std::string& name, int64_t fallback, int64_t min, int64_t max) const;
  std::optional<int64_t> OptionalInt(const std::string& name, int64_t min, int64_t max) const;

  // A parameter whose value is a JSON array of strings, e.g. DiskIds=["d-1","d-2"].
  // Absent gives nullopt; malformed or longer than maxItems is InvalidParameter.
  std::optional<std::vector<std::string>> JsonArray(const std::string& name, size_t maxItems = 100) const;
  // RepeatList Name.1, Name.2, ... in index order.
  std::vector<std::string> RepeatList(const std::string& name) const;
  // Name.N.Field entries grouped per N, in index order.
  std::vector<std::map<std::string, std::string>> ObjectList(const std::string& name) const;
  // Name.Field entries (e.g. SystemDisk.Category).
  std::map<std::string, std::string> Object(const std::string& name) const;
  // Tag.N.Key / Tag.N.Value pairs; a key is required for every entry.
  std::vector<std::pair<std::string, std::string>> Tags() const;

  // A stable digest of the action's own parameters (signing and common parameters
  // left out), used to tell a ClientToken retry from a different request.
  std::string Fingerprint() const;

 private:
  enc::KeyValues query_;
  enc::KeyValues body_;
  std::map<std::string, std::string> merged_;
};

}  // namespace hxsim::api
