#include "api/Auth.h"

#include <random>

#include "api/ApiError.h"
#include "hxutil/Codec.h"
#include "util/Crypto.h"

namespace hxsim::api {

namespace {
std::optional<std::string> Header(const sig::HeaderMap& headers, const std::string& name) {
  auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}

ApiError SignatureMismatch(const std::string& stringToSign) {
  return BadRequest("SignatureDoesNotMatch",
                    "Specified signature is not matched with our calculation. server string to sign is:" +
                        stringToSign);
}
}  // namespace

AccessKey Authenticator::IssueTemporary(timefmt::WallTime expiration) {
  thread_local std::mt19937_64 rng{std::random_device{}()};
  auto random = [](size_t n) {
    static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += kChars[rng() % 62];
    return s;
  };
  AccessKey key{"STS.NT" + random(22), random(40), "CAIS" + random(120), expiration};
  std::lock_guard lock(mutex_);
  // Keys expired for long can no longer pass any check worth a distinct answer.
  const auto now = std::chrono::system_clock::now();
  for (auto it = keys_.begin(); it != keys_.end();)
    it = it->second.expiration && *it->second.expiration + std::chrono::hours(1) < now ? keys_.erase(it) : std::next(it);
  keys_[key.id] = key;
  return key;
}

Authenticator::Authenticator(std::vector<AccessKey> keys, std::chrono::seconds maxSkew) : maxSkew_(maxSkew) {
  for (auto& k : keys) keys_[k.id] = std::move(k);
}

AuthResult Authenticator::Verify(const RequestView& request, timefmt::WallTime now) {
  if (request.params->Has("Signature")) return VerifyV2(request, now);
  auto authorization = Header(*request.headers, "authorization");
  if (authorization) return VerifyV3(request, now);
  if (request.params->Has("AccessKeyId")) throw MissingParameter("Signature");
  throw BadRequest("MissingAuthorization", "Authorization is mandatory for this action.");
}

AccessKey Authenticator::FindKey(const std::string& id) const {
  std::lock_guard lock(mutex_);
  auto it = keys_.find(id);
  if (it == keys_.end()) throw NotFound("InvalidAccessKeyId.NotFound", "Specified access key is not found.");
  return it->second;
}

void Authenticator::CheckTimestamp(const std::string& value, const std::string& name, timefmt::WallTime now) const {
  auto t = timefmt::ParseIso8601(value);
  if (!t) {
    throw BadRequest("InvalidTimeStamp.Format",
                     "Specified time stamp or date value is not well formatted (" + name + ").");
  }
  auto skew = *t > now ? *t - now : now - *t;
  if (skew > maxSkew_) throw BadRequest("InvalidTimeStamp.Expired", "Specified time stamp or date value is expired.");
}

void Authenticator::CheckToken(const AccessKey& key, const std::optional<std::string>& token,
                               timefmt::WallTime now) const {
  if (key.securityToken.empty()) return;  // a permanent key ignores any token
  if (!token || token->empty()) throw MissingParameter("SecurityToken");
  if (!hxutil::ConstantTimeEquals(*token, key.securityToken)) {
    throw BadRequest("InvalidSecurityToken.MismatchWithAccessKey", "The security token does not match access key.");
  }
  if (key.expiration && now >= *key.expiration) {
    throw BadRequest("InvalidSecurityToken.Expired", "Specified SecurityToken is expired.");
  }
}

void Authenticator::ConsumeNonce(const std::string& keyId, const std::string& nonce, timefmt::WallTime now) {
  std::lock_guard lock(mutex_);
  if (nonces_.size() > 4096) {
    for (auto it = nonces_.begin(); it != nonces_.end();) it = it->second < now ? nonces_.erase(it) : std::next(it);
  }
  auto [it, inserted] = nonces_.emplace(keyId + "\n" + nonce, now + 2 * maxSkew_);
  if (!inserted) {
    if (it->second >= now) throw BadRequest("SignatureNonceUsed", "Specified signature nonce was used already.");
    it->second = now + 2 * maxSkew_;
  }
}

void Authenticator::ForgetNonces() {
  std::lock_guard lock(mutex_);
  nonces_.clear();
}

AuthResult Authenticator::VerifyV2(const RequestView& request, timefmt::WallTime now) {
  const Params& p = *request.params;
  const AccessKey key = FindKey(p.Required("AccessKeyId"));
  auto method = p.GetOr("SignatureMethod", "HMAC-SHA1");
  if (method != "HMAC-SHA1") {
    throw BadRequest("InvalidSignatureMethod", "Specified signature method \"" + method + "\" is not supported.");
  }
  if (p.GetOr("SignatureVersion", "1.0") != "1.0") {
    throw BadRequest("InvalidSignatureVersion", "Specified signature version is not supported.");
  }
  CheckTimestamp(p.Required("Timestamp"), "Timestamp", now);
  std::string nonce = p.Required("SignatureNonce");

  // Every parameter the client sent, wherever it put it, is part of the signed string.
  enc::KeyValues all = p.Query();
  all.insert(all.end(), p.Body().begin(), p.Body().end());
  std::string stringToSign = sig::V2StringToSign(request.method, all);
  if (!hxutil::ConstantTimeEquals(sig::V2Sign(key.secret, stringToSign), p.GetOr("Signature", ""))) {
    throw SignatureMismatch(stringToSign);
  }
  CheckToken(key, p.Get("SecurityToken"), now);
  ConsumeNonce(key.id, nonce, now);
  return {key.id, 2};
}

AuthResult Authenticator::VerifyV3(const RequestView& request, timefmt::WallTime now) {
  const auto& headers = *request.headers;
  auto auth = sig::ParseV3Authorization(*Header(headers, "authorization"));
  if (!auth) throw BadRequest("IncompleteSignature", "The request signature does not conform to Aliyun standards.");
  if (auth->algorithm != "ACS3-HMAC-SHA256") {
    throw BadRequest("InvalidSignatureMethod",
                     "Specified signature method \"" + auth->algorithm + "\" is not supported.");
  }
  const AccessKey key = FindKey(auth->accessKeyId);

  // The signature must cover the headers that make a request unique and bind it to us.
  for (const char* required : {"host", "x-acs-action", "x-acs-version", "x-acs-date", "x-acs-signature-nonce",
                               "x-acs-content-sha256"}) {
    bool signedIt = false;
    for (const auto& h : auth->signedHeaders) signedIt = signedIt || h == required;
    if (!signedIt || !Header(headers, required)) {
      throw BadRequest("IncompleteSignature", std::string("The request signature does not conform to Aliyun "
                                                          "standards: header ") + required + " is not signed.");
    }
  }
  CheckTimestamp(*Header(headers, "x-acs-date"), "x-acs-date", now);

  std::string payloadHash = *Header(headers, "x-acs-content-sha256");
  if (payloadHash != crypto::Hex(crypto::Sha256(*request.body))) {
    throw BadRequest("ContentSHA256NotMatched", "The x-acs-content-sha256 header does not match the request body.");
  }
  std::string canonical = sig::V3CanonicalRequest(request.method, request.path, request.params->Query(), headers,
                                                  auth->signedHeaders, payloadHash);
  std::string stringToSign = sig::V3StringToSign(canonical);
  if (!hxutil::ConstantTimeEquals(sig::V3Sign(key.secret, stringToSign), auth->signature)) {
    throw SignatureMismatch(stringToSign);
  }
  auto token = Header(headers, "x-acs-security-token");
  if (!token) token = request.params->Get("SecurityToken");
  CheckToken(key, token, now);
  ConsumeNonce(key.id, *Header(headers, "x-acs-signature-nonce"), now);
  return {key.id, 3};
}

}  // namespace hxsim::api
