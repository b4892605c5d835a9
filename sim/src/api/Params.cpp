#include "api/Params.h"

#include <nlohmann/json.hpp>
#include <set>

#include "api/ApiError.h"
#include "util/Crypto.h"

namespace hxsim::api {

int DefaultStatusForCode(const std::string& code) {
  if (code == "InternalError" || code == "UnknownError") return 500;
  if (code == "ServiceUnavailable") return 503;
  if (code.size() > 9 && code.compare(code.size() - 9, 9, ".NotFound") == 0) return 404;
  if (code.rfind("Throttling", 0) == 0 || code.rfind("Invalid", 0) == 0 || code.rfind("Missing", 0) == 0) return 400;
  return 403;
}

void Params::AddQuery(std::string key, std::string value) {
  merged_[key] = value;
  query_.emplace_back(std::move(key), std::move(value));
}

void Params::AddBody(std::string key, std::string value) {
  merged_.emplace(key, value);  // query wins on conflict
  body_.emplace_back(std::move(key), std::move(value));
}

std::optional<std::string> Params::Get(const std::string& name) const {
  auto it = merged_.find(name);
  if (it == merged_.end()) return std::nullopt;
  return it->second;
}

std::string Params::GetOr(const std::string& name, const std::string& fallback) const {
  auto v = Get(name);
  return v ? *v : fallback;
}

std::string Params::Required(const std::string& name) const {
  auto v = Get(name);
  if (!v || v->empty()) throw MissingParameter(name);
  return *v;
}

bool Params::Bool(const std::string& name, bool fallback) const {
  auto v = Get(name);
  if (!v || v->empty()) return fallback;
  std::string lower = enc::ToLower(*v);
  if (lower == "true") return true;
  if (lower == "false") return false;
  throw InvalidParameter(name);
}

std::optional<int64_t> Params::OptionalInt(const std::string& name, int64_t min, int64_t max) const {
  auto v = Get(name);
  if (!v || v->empty()) return std::nullopt;
  size_t used = 0;
  int64_t n = 0;
  try {
    n = std::stoll(*v, &used);
  } catch (const std::exception&) {
    throw InvalidParameter(name);
  }
  if (used != v->size() || n < min || n > max) throw InvalidParameter(name);
  return n;
}

int64_t Params::Int(const std::string& name, int64_t fallback, int64_t min, int64_t max) const {
  auto v = OptionalInt(name, min, max);
  return v ? *v : fallback;
}

std::optional<std::vector<std::string>> Params::JsonArray(const std::string& name, size_t maxItems) const {
  auto v = Get(name);
  if (!v) return std::nullopt;
  auto parsed = nlohmann::json::parse(*v, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_array() || parsed.size() > maxItems) throw InvalidParameter(name);
  std::vector<std::string> out;
  for (const auto& item : parsed) {
    if (!item.is_string()) throw InvalidParameter(name);
    out.push_back(item.get<std::string>());
  }
  return out;
}

namespace {
// Index of "Prefix.N" or "Prefix.N.Rest" keys; returns 0 when the key does not match.
size_t IndexAfter(const std::string& key, const std::string& prefix, std::string* rest) {
  if (key.size() <= prefix.size() + 1 || key.compare(0, prefix.size(), prefix) != 0 || key[prefix.size()] != '.') {
    return 0;
  }
  size_t pos = prefix.size() + 1;
  size_t end = pos;
  while (end < key.size() && std::isdigit(static_cast<unsigned char>(key[end]))) ++end;
  if (end == pos || end - pos > 6) return 0;
  size_t index = std::stoul(key.substr(pos, end - pos));
  if (end == key.size()) {
    if (rest) rest->clear();
  } else if (key[end] == '.' && rest) {
    *rest = key.substr(end + 1);
  } else {
    return 0;
  }
  return index;
}
}  // namespace

std::vector<std::string> Params::RepeatList(const std::string& name) const {
  std::map<size_t, std::string> byIndex;
  for (const auto& [k, v] : merged_) {
    std::string rest = "x";
    size_t i = IndexAfter(k, name, &rest);
    if (i > 0 && rest.empty()) byIndex[i] = v;
  }
  std::vector<std::string> out;
  for (auto& [i, v] : byIndex) out.push_back(v);
  return out;
}

std::vector<std::map<std::string, std::string>> Params::ObjectList(const std::string& name) const {
  std::map<size_t, std::map<std::string, std::string>> byIndex;
  for (const auto& [k, v] : merged_) {
    std::string rest;
    size_t i = IndexAfter(k, name, &rest);
    if (i > 0 && !rest.empty()) byIndex[i][rest] = v;
  }
  std::vector<std::map<std::string, std::string>> out;
  for (auto& [i, fields] : byIndex) out.push_back(std::move(fields));
  return out;
}

std::map<std::string, std::string> Params::Object(const std::string& name) const {
  std::map<std::string, std::string> out;
  const std::string prefix = name + ".";
  for (const auto& [k, v] : merged_) {
    if (k.size() > prefix.size() && k.compare(0, prefix.size(), prefix) == 0) out[k.substr(prefix.size())] = v;
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> Params::Tags() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (auto& fields : ObjectList("Tag")) {
    auto key = fields.find("Key");
    if (key == fields.end() || key->second.empty()) throw InvalidParameter("Tag.N.Key");
    auto value = fields.find("Value");
    out.emplace_back(key->second, value == fields.end() ? "" : value->second);
  }
  return out;
}

std::string Params::Fingerprint() const {
  static const std::set<std::string> kCommon = {
      "AccessKeyId", "Signature", "SignatureMethod", "SignatureVersion", "SignatureNonce", "SignatureType",
      "Timestamp",   "Format",    "Version",         "SecurityToken",    "ClientToken",    "Action"};
  std::string canonical;
  for (const auto& [k, v] : merged_) {
    if (kCommon.count(k)) continue;
    canonical += k;
    canonical += '=';
    canonical += v;
    canonical += '\n';
  }
  return crypto::Hex(crypto::Sha256(canonical));
}

}  // namespace hxsim::api
