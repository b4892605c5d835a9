#include "signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <stdexcept>

#include "percent_encode.h"
#include "hxutil/Codec.h"
#include "hxutil/IsoTime.h"
#include "hxutil/Random.h"

namespace hxbridge {

std::string CanonicalQuery(const Params& params) {
    std::string out;
    for (const auto& [key, value] : params) {
        if (key == "Signature") continue;
        if (!out.empty()) out.push_back('&');
        out += PercentEncode(key);
        out.push_back('=');
        out += PercentEncode(value);
    }
    return out;
}

std::string StringToSign(const std::string& method, const Params& params) {
    return method + "&" + PercentEncode("/") + "&" + PercentEncode(CanonicalQuery(params));
}

std::string HmacSha1Base64(const std::string& secret, const std::string& stringToSign) {
    const std::string key = secret + "&";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(stringToSign.data()), stringToSign.size(), digest,
             &digestLen) == nullptr) {
        throw std::runtime_error("HMAC-SHA1 failed");
    }
    return hxutil::Base64Encode(std::string_view(reinterpret_cast<const char*>(digest), digestLen));
}

RequestSigner::RequestSigner(Clock clock, NonceSource nonce)
    : clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })),
      nonce_(nonce ? std::move(nonce) : NonceSource(hxutil::RandomUuid)) {}

Params RequestSigner::Sign(const std::string& method, const std::string& action, const std::string& version,
                           Params params, const Credentials& credentials) const {
    params["Action"] = action;
    params["Version"] = version;
    params["Format"] = "JSON";
    params["AccessKeyId"] = credentials.accessKeyId;
    params["SignatureMethod"] = "HMAC-SHA1";
    params["SignatureVersion"] = "1.0";
    params["SignatureNonce"] = nonce_();
    params["Timestamp"] = hxutil::IsoUtc(clock_());
    if (!credentials.securityToken.empty()) params["SecurityToken"] = credentials.securityToken;
    params.erase("Signature");
    params["Signature"] = HmacSha1Base64(credentials.accessKeySecret, StringToSign(method, params));
    return params;
}

}  // namespace hxbridge
