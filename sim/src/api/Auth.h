// Request authentication: which AccessKey signed a request, and whether the signature,
// timestamp, nonce and (for temporary keys) security token are acceptable.
// Thread-safe. Failures are reported by throwing ApiError (caught by the RPC pipeline).
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "api/Params.h"
#include "api/Signature.h"
#include "util/Time.h"

namespace hxsim::api {

struct AccessKey {
  std::string id;
  std::string secret;
  // Non-empty for STS-style temporary keys: every request must carry this exact token
  // (SecurityToken parameter with V2, x-acs-security-token header with V3).
  std::string securityToken;
  std::optional<timefmt::WallTime> expiration;  // temporary keys only
};

struct RequestView {
  std::string method;  // "GET" / "POST"
  std::string path;    // always "/" for RPC
  const Params* params = nullptr;
  const sig::HeaderMap* headers = nullptr;  // lowercase names
  const std::string* body = nullptr;
};

struct AuthResult {
  std::string accessKeyId;
  int signatureVersion = 0;  // 2 or 3
};

class Authenticator {
 public:
  // Requests whose timestamp differs from "now" by more than maxSkew are refused
  // (InvalidTimeStamp.Expired); a nonce is remembered for twice that long, which is as
  // long as a request carrying it could still pass the timestamp check.
  explicit Authenticator(std::vector<AccessKey> keys,
                         std::chrono::seconds maxSkew = std::chrono::minutes(15));

  AuthResult Verify(const RequestView& request, timefmt::WallTime now);
  void ForgetNonces();

  // A new STS-style key ("STS." id, random secret and token) valid until `expiration`;
  // a request signed with it after that is refused with InvalidSecurityToken.Expired.
  AccessKey IssueTemporary(timefmt::WallTime expiration);

 private:
  AuthResult VerifyV2(const RequestView& request, timefmt::WallTime now);
  AuthResult VerifyV3(const RequestView& request, timefmt::WallTime now);
  AccessKey FindKey(const std::string& id) const;
  void CheckTimestamp(const std::string& value, const std::string& name, timefmt::WallTime now) const;
  void CheckToken(const AccessKey& key, const std::optional<std::string>& token, timefmt::WallTime now) const;
  void ConsumeNonce(const std::string& keyId, const std::string& nonce, timefmt::WallTime now);

  std::chrono::seconds maxSkew_;
  mutable std::mutex mutex_;  // keys_ (temporary keys are added while serving) and nonces_
  std::map<std::string, AccessKey> keys_;
  std::map<std::string, timefmt::WallTime> nonces_;  // "keyId\nnonce" -> forget after
};

}  // namespace hxsim::api
