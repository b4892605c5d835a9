#include "actions/Registry.h"

#include <algorithm>

namespace hxsim::actions {

using api::BadRequest;
using nlohmann::json;

const HandlerMap& Handlers() {
  static const HandlerMap map = [] {
    HandlerMap m;
    RegisterRegionActions(m);
    RegisterInstanceActions(m);
    RegisterDiskActions(m);
    RegisterSnapshotActions(m);
    RegisterImageActions(m);
    RegisterTagActions(m);
    RegisterSecurityGroupActions(m);
    return m;
  }();
  return map;
}

std::string RequiredRegion(Context& ctx) {
  std::string region = ctx.params.Required("RegionId");
  ctx.store.RegionOrThrow(region);
  return region;
}

std::string OptionalRegion(Context& ctx) {
  std::string region = ctx.params.GetOr("RegionId", "");
  if (!region.empty()) ctx.store.RegionOrThrow(region);
  return region;
}

api::ApiError MissingInput(const std::string& name) {
  return BadRequest("MissingParameter",
                    "The input parameter \"" + name + "\" that is mandatory for processing this request is not supplied.");
}

void FinishDryRun(Context& ctx) {
  if (ctx.params.Bool("DryRun", false)) {
    throw BadRequest("DryRunOperation", "Request validation has been passed with DryRun flag set.");
  }
}

namespace {
std::string TokenKey(Context& ctx, const std::string& token) { return ctx.action + "\n" + token; }
}  // namespace

std::optional<json> ReplayClientToken(Context& ctx) {
  std::string token = ctx.params.GetOr("ClientToken", "");
  if (token.empty()) return std::nullopt;
  if (token.size() > 64) throw api::InvalidParameter("ClientToken");
  auto it = ctx.store.clientTokens.find(TokenKey(ctx, token));
  if (it == ctx.store.clientTokens.end()) return std::nullopt;
  if (it->second.fingerprint != ctx.params.Fingerprint()) {
    throw BadRequest("IdempotentParameterMismatch",
                     "The request uses the same client token as a previous, but non-identical request.");
  }
  return json::parse(it->second.resultJson);
}

void RememberClientToken(Context& ctx, const json& result) {
  std::string token = ctx.params.GetOr("ClientToken", "");
  if (token.empty()) return;
  ctx.store.clientTokens[TokenKey(ctx, token)] = {ctx.params.Fingerprint(), result.dump()};
}

void CheckName(const std::string& value, const std::string& code, bool allowEmpty) {
  if (value.empty() && allowEmpty) return;
  bool ok = value.size() >= 2 && value.size() <= 128 && std::isalpha(static_cast<unsigned char>(value[0])) &&
            value.rfind("http://", 0) != 0 && value.rfind("https://", 0) != 0;
  if (!ok) throw BadRequest(code, "The specified name is not valid.");
}

std::optional<std::pair<int64_t, int64_t>> DiskSizeRange(const std::string& category, const std::string& level) {
  if (category == "cloud") return std::pair<int64_t, int64_t>{5, 2000};
  if (category == "cloud_efficiency" || category == "cloud_ssd") return std::pair<int64_t, int64_t>{20, 32768};
  if (category == "cloud_auto") return std::pair<int64_t, int64_t>{1, 65536};
  if (category == "cloud_essd_entry") return std::pair<int64_t, int64_t>{10, 32768};
  if (category == "cloud_essd") {
    if (level == "PL0") return std::pair<int64_t, int64_t>{1, 65536};
    if (level == "PL1" || level.empty()) return std::pair<int64_t, int64_t>{20, 65536};
    if (level == "PL2") return std::pair<int64_t, int64_t>{461, 65536};
    if (level == "PL3") return std::pair<int64_t, int64_t>{1261, 65536};
  }
  return std::nullopt;
}

bool WildcardMatch(const std::string& pattern, const std::string& text) {
  size_t p = 0, t = 0, star = std::string::npos, mark = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p;
      ++t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool TagsMatch(const model::Tags& tags, const std::vector<std::pair<std::string, std::string>>& filters) {
  for (const auto& [key, value] : filters) {
    auto it = tags.find(key);
    if (it == tags.end() || (!value.empty() && it->second != value)) return false;
  }
  return true;
}

void ApplyTags(model::Tags& tags, const std::vector<std::pair<std::string, std::string>>& add) {
  for (const auto& [key, value] : add) {
    if (key.rfind("aliyun", 0) == 0 || key.rfind("acs:", 0) == 0 || key.size() > 128) {
      throw BadRequest("InvalidTagKey.Malformed", "The specified Tag.n.Key is not valid.");
    }
    tags[key] = value;
  }
  if (tags.size() > 20) throw BadRequest("InvalidTagCount", "The maximum number of tags per resource is 20.");
}

bool Contains(const std::vector<std::string>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace hxsim::actions
