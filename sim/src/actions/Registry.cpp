#include "actions/Registry.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace hxsim::actions {

using api::BadRequest;
using nlohmann::json;

const HandlerMap& Handlers() {
  static const HandlerMap map = [] {
    HandlerMap m;
    RegisterRegionActions(m);
    RegisterInstanceActions(m);
    RegisterInstanceAttributeActions(m);
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
  // ECS answers a repetition that arrives while the first request still runs with this
  // code (HTTP status: our choice, the documentation gives none); the client retries.
  if (ctx.store.clock().Now() < it->second.readyAt) {
    throw BadRequest("LastTokenProcessing", "The last token request is processing.");
  }
  return json::parse(it->second.resultJson);
}

void RememberClientToken(Context& ctx, const json& result) {
  std::string token = ctx.params.GetOr("ClientToken", "");
  if (token.empty()) return;
  const auto readyAt = ctx.store.clock().Now() + ctx.store.clock().Scaled(ctx.store.timings().tokenProcessing);
  ctx.store.clientTokens[TokenKey(ctx, token)] = {ctx.params.Fingerprint(), result.dump(), readyAt};
}

namespace {
// UTF-8 code points of `s`; nullopt for a malformed sequence.
std::optional<std::vector<char32_t>> CodePoints(const std::string& s) {
  std::vector<char32_t> out;
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    const int extra = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
    if (extra < 0 || i + extra >= s.size()) return std::nullopt;
    char32_t cp = extra == 0 ? c : (c & (0x3F >> extra));
    for (int k = 1; k <= extra; ++k) {
      const unsigned char next = static_cast<unsigned char>(s[i + k]);
      if ((next & 0xC0) != 0x80) return std::nullopt;
      cp = (cp << 6) | (next & 0x3F);
    }
    out.push_back(cp);
    i += extra + 1;
  }
  return out;
}
bool IsLetter(char32_t c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsChinese(char32_t c) { return (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0x3400 && c <= 0x4DBF); }
}  // namespace

// ECS's name rule: 2-128 characters; a letter or a Chinese character first; then letters,
// Chinese characters, digits, ':', '_', '.', '-'; never http:// or https:// at the start.
void CheckName(const std::string& value, const std::string& code, bool allowEmpty) {
  if (value.empty() && allowEmpty) return;
  const auto chars = CodePoints(value);
  bool ok = chars && chars->size() >= 2 && chars->size() <= 128 &&
            (IsLetter(chars->front()) || IsChinese(chars->front())) && value.rfind("http://", 0) != 0 &&
            value.rfind("https://", 0) != 0;
  for (size_t i = 0; ok && i < chars->size(); ++i) {
    const char32_t c = (*chars)[i];
    ok = IsLetter(c) || IsChinese(c) || (c >= '0' && c <= '9') || c == ':' || c == '_' || c == '.' || c == '-';
  }
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

void CheckNotLockedForSecurity(const model::Instance& instance) {
  if (Contains(instance.lockReasons, "security")) {
    throw api::Forbidden("InstanceLockedForSecurity",
                         "The specified operation is denied as your instance is locked for security reasons.");
  }
}

}  // namespace hxsim::actions
