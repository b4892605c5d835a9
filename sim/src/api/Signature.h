// The two request signature schemes of the ECS RPC API, computed server-side so that a
// request can be checked against the secret of the AccessKey it names.
//   V2 ("HMAC-SHA1", SignatureVersion 1.0): Signature parameter in the query/body.
//   V3 ("ACS3-HMAC-SHA256"): Authorization header over a canonical request.
// Pure functions; verification policy (keys, nonces, clocks) lives in Auth.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "util/Encoding.h"

namespace hxsim::sig {

// METHOD&%2F&pct(sorted canonical query). Any "Signature" entry in params is ignored.
std::string V2StringToSign(const std::string& method, const enc::KeyValues& params);
// Base64(HMAC-SHA1(secret + "&", stringToSign)).
std::string V2Sign(const std::string& secret, const std::string& stringToSign);

struct V3Authorization {
  std::string algorithm;  // "ACS3-HMAC-SHA256"
  std::string accessKeyId;
  std::vector<std::string> signedHeaders;  // lowercase, as listed by the client
  std::string signature;                   // lowercase hex
};
// Parses "ACS3-HMAC-SHA256 Credential=AK,SignedHeaders=a;b,Signature=hex"; nullopt if malformed.
std::optional<V3Authorization> ParseV3Authorization(const std::string& header);

// Headers keyed by lowercase name; repeated headers have several values.
using HeaderMap = std::multimap<std::string, std::string>;

// METHOD\nURI\nCanonicalQuery\nCanonicalHeaders\nSignedHeaders\nHashedPayload, where the
// canonical headers are the signedHeaders' values (trimmed, repeated values sorted and
// joined with ',').
std::string V3CanonicalRequest(const std::string& method, const std::string& path, const enc::KeyValues& query,
                               const HeaderMap& headers, const std::vector<std::string>& signedHeaders,
                               const std::string& hashedPayload);
// "ACS3-HMAC-SHA256\n" + hex(SHA256(canonicalRequest)).
std::string V3StringToSign(const std::string& canonicalRequest);
// hex(HMAC-SHA256(secret, stringToSign)); the key has no trailing '&'.
std::string V3Sign(const std::string& secret, const std::string& stringToSign);

}  // namespace hxsim::sig
