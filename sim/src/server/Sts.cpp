#include "server/Sts.h"

#include <cctype>

#include "api/ApiError.h"
#include "util/Time.h"

namespace hxsim::server {

namespace {

using nlohmann::json;

constexpr int kMinDuration = 900;
constexpr int kMaxDuration = 43200;

struct RoleArn {
  std::string account, name;
};

bool AllOf(const std::string& s, size_t min, size_t max, const char* extra) {
  if (s.size() < min || s.size() > max) return false;
  for (char c : s)
    if (!std::isalnum(static_cast<unsigned char>(c)) && std::string_view(extra).find(c) == std::string_view::npos)
      return false;
  return true;
}

bool AllDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s)
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

// "acs:ram::<digits>:<kind>/<name>" split into account and name; false when malformed.
bool SplitArn(const std::string& arn, const std::string& kind, RoleArn& out) {
  const std::string prefix = "acs:ram::";
  if (arn.rfind(prefix, 0) != 0) return false;
  const size_t colon = arn.find(':', prefix.size());
  if (colon == std::string::npos || arn.compare(colon + 1, kind.size() + 1, kind + "/") != 0) return false;
  out.account = arn.substr(prefix.size(), colon - prefix.size());
  out.name = arn.substr(colon + kind.size() + 2);
  return AllDigits(out.account) && AllOf(out.name, 1, 64, "._-");
}

RoleArn ParseRoleArn(const std::string& arn) {
  RoleArn r;
  if (!SplitArn(arn, "role", r)) throw api::BadRequest("InvalidParameter.RoleArn", "The parameter RoleArn is wrongly formed.");
  if (r.name.rfind("missing", 0) == 0) throw api::NotFound("EntityNotExist.Role", "The specified Role not exists: " + arn);
  return r;
}

int Duration(const api::Params& p) {
  const std::string text = p.GetOr("DurationSeconds", "3600");
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0' || v < kMinDuration || v > kMaxDuration) {
    throw api::BadRequest("InvalidParameter.DurationSeconds",
                          "The parameter DurationSeconds must be between 900 and 43200.");
  }
  return static_cast<int>(v);
}

std::string SessionName(const api::Params& p) {
  const std::string name = p.Required("RoleSessionName");
  if (!AllOf(name, 2, 64, "_.@-")) {
    throw api::BadRequest("InvalidParameter.RoleSessionName", "The parameter RoleSessionName is wrongly formed.");
  }
  return name;
}

json Issue(World& world, const RoleArn& role, const std::string& session, int seconds) {
  api::AccessKey key = world.IssueTemporaryKey(seconds);
  return {{"AssumedRoleUser",
           {{"Arn", "acs:ram::" + role.account + ":role/" + role.name + "/" + session},
            {"AssumedRoleId", "3" + std::to_string(std::hash<std::string>{}(role.name) % 100000000) + ":" + session}}},
          {"Credentials",
           {{"AccessKeyId", key.id},
            {"AccessKeySecret", key.secret},
            {"SecurityToken", key.securityToken},
            {"Expiration", timefmt::Iso8601(*key.expiration, true)}}}};
}

// A JWT: three base64url parts separated by dots.
bool LooksLikeJwt(const std::string& token) {
  const size_t a = token.find('.');
  const size_t b = a == std::string::npos ? a : token.find('.', a + 1);
  if (b == std::string::npos) return false;
  return AllOf(token.substr(0, a), 1, 8192, "_-") && AllOf(token.substr(a + 1, b - a - 1), 1, 8192, "_-") &&
         AllOf(token.substr(b + 1), 0, 8192, "_-");
}

}  // namespace

bool IsStsAction(const std::string& action) {
  return action == "AssumeRole" || action == "AssumeRoleWithOIDC" || action == "GetCallerIdentity";
}

bool IsAnonymousStsAction(const std::string& action) { return action == "AssumeRoleWithOIDC"; }

json HandleSts(World& world, const std::string& action, const api::Params& params, const std::string& accessKeyId) {
  if (action == "GetCallerIdentity") {
    return {{"AccountId", "1234567890123456"}, {"IdentityType", accessKeyId.rfind("STS.", 0) == 0 ? "AssumedRoleUser" : "Account"}};
  }
  const RoleArn role = ParseRoleArn(params.Required("RoleArn"));
  const std::string session = SessionName(params);
  const int seconds = Duration(params);
  if (action == "AssumeRoleWithOIDC") {
    RoleArn provider;
    if (!SplitArn(params.Required("OIDCProviderArn"), "oidc-provider", provider)) {
      throw api::BadRequest("InvalidParameter.OIDCProviderArn", "The parameter OIDCProviderArn is wrongly formed.");
    }
    if (!LooksLikeJwt(params.Required("OIDCToken"))) {
      throw api::BadRequest("AuthenticationFail.OIDCToken.Invalid", "The OIDC token is invalid.");
    }
  }
  return Issue(world, role, session, seconds);
}

}  // namespace hxsim::server
