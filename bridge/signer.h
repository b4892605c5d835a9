// Signature V2 (HMAC-SHA1) of ECS RPC requests. Pure: no clock, no randomness, no I/O.
// The caller supplies timestamp and nonce (see RequestSigner below for the injected forms).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace hxbridge {

// Request parameters, keyed by their (unencoded) name. A std::map keeps the names in byte
// order, which equals the order of the encoded names: encoding never reorders the
// unreserved characters that parameter names use.
using Params = std::map<std::string, std::string>;

// "k1=v1&k2=v2" with both sides percent-encoded, in key order; `Signature` is left out.
std::string CanonicalQuery(const Params& params);

// METHOD & %2F & pct(CanonicalQuery).
std::string StringToSign(const std::string& method, const Params& params);

// Base64(HMAC-SHA1(secret + "&", stringToSign)).
std::string HmacSha1Base64(const std::string& secret, const std::string& stringToSign);

// The Timestamp parameter is hxutil::IsoUtc (UTC, whole seconds) and the nonce
// hxutil::RandomUuid. Only the canonical query and the string to sign stay the signer's own:
// the emulator verifies them with code written apart from this, so the two check each other.

struct Credentials {
    std::string accessKeyId;
    std::string accessKeySecret;
    std::string securityToken;  // empty unless STS credentials are used
};

// Adds the common parameters (Format, Version, AccessKeyId, SignatureMethod/-Version/-Nonce,
// Timestamp, SecurityToken) to a request's own parameters and signs them. The clock and the
// nonce source are injectable so that a signature can be reproduced in tests.
class RequestSigner {
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;
    using NonceSource = std::function<std::string()>;

    explicit RequestSigner(Clock clock = nullptr, NonceSource nonce = nullptr);

    // Returns every parameter of the request, `Signature` included (unencoded).
    Params Sign(const std::string& method, const std::string& action, const std::string& version,
                Params params, const Credentials& credentials) const;

private:
    Clock clock_;
    NonceSource nonce_;
};

}  // namespace hxbridge
