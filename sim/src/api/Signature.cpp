#include "api/Signature.h"

#include <algorithm>

#include "hxutil/Codec.h"
#include "util/Crypto.h"

namespace hxsim::sig {

namespace {
std::string CanonicalQuery(const enc::KeyValues& params, bool skipSignature) {
  std::vector<std::pair<std::string, std::string>> encoded;
  encoded.reserve(params.size());
  for (const auto& [k, v] : params) {
    if (skipSignature && k == "Signature") continue;
    encoded.emplace_back(enc::PercentEncode(k), enc::PercentEncode(v));
  }
  std::sort(encoded.begin(), encoded.end());
  std::string out;
  for (const auto& [k, v] : encoded) {
    if (!out.empty()) out += '&';
    out += k;
    out += '=';
    out += v;
  }
  return out;
}
}  // namespace

std::string V2StringToSign(const std::string& method, const enc::KeyValues& params) {
  return method + "&" + enc::PercentEncode("/") + "&" + enc::PercentEncode(CanonicalQuery(params, true));
}

std::string V2Sign(const std::string& secret, const std::string& stringToSign) {
  return hxutil::Base64Encode(crypto::HmacSha1(secret + "&", stringToSign));
}

std::optional<V3Authorization> ParseV3Authorization(const std::string& header) {
  std::string h = enc::Trim(header);
  size_t space = h.find(' ');
  if (space == std::string::npos) return std::nullopt;
  V3Authorization auth;
  auth.algorithm = h.substr(0, space);
  std::string rest = h.substr(space + 1);
  bool haveCredential = false, haveHeaders = false, haveSignature = false;
  size_t pos = 0;
  while (pos <= rest.size()) {
    size_t comma = rest.find(',', pos);
    if (comma == std::string::npos) comma = rest.size();
    std::string part = enc::Trim(std::string_view(rest).substr(pos, comma - pos));
    size_t eq = part.find('=');
    if (eq != std::string::npos) {
      std::string key = part.substr(0, eq), value = part.substr(eq + 1);
      if (key == "Credential") {
        auth.accessKeyId = value;
        haveCredential = true;
      } else if (key == "SignedHeaders") {
        size_t p = 0;
        while (p <= value.size()) {
          size_t semi = value.find(';', p);
          if (semi == std::string::npos) semi = value.size();
          if (semi > p) auth.signedHeaders.push_back(enc::ToLower(value.substr(p, semi - p)));
          p = semi + 1;
        }
        haveHeaders = true;
      } else if (key == "Signature") {
        auth.signature = enc::ToLower(value);
        haveSignature = true;
      }
    }
    pos = comma + 1;
  }
  if (!haveCredential || !haveHeaders || !haveSignature || auth.accessKeyId.empty()) return std::nullopt;
  return auth;
}

std::string V3CanonicalRequest(const std::string& method, const std::string& path, const enc::KeyValues& query,
                               const HeaderMap& headers, const std::vector<std::string>& signedHeaders,
                               const std::string& hashedPayload) {
  std::vector<std::string> names = signedHeaders;
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  std::string canonicalHeaders, signedList;
  for (const auto& name : names) {
    std::vector<std::string> values;
    auto [b, e] = headers.equal_range(name);
    for (auto it = b; it != e; ++it) values.push_back(enc::Trim(it->second));
    std::sort(values.begin(), values.end());
    std::string joined;
    for (size_t i = 0; i < values.size(); ++i) joined += (i ? "," : "") + values[i];
    canonicalHeaders += name + ":" + joined + "\n";
    signedList += (signedList.empty() ? "" : ";") + name;
  }
  return method + "\n" + (path.empty() ? "/" : path) + "\n" + CanonicalQuery(query, false) + "\n" + canonicalHeaders +
         "\n" + signedList + "\n" + hashedPayload;
}

std::string V3StringToSign(const std::string& canonicalRequest) {
  return "ACS3-HMAC-SHA256\n" + crypto::Hex(crypto::Sha256(canonicalRequest));
}

std::string V3Sign(const std::string& secret, const std::string& stringToSign) {
  return crypto::Hex(crypto::HmacSha256(secret, stringToSign));
}

}  // namespace hxsim::sig
