#include "signer.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <ctime>
#include <stdexcept>

#include "percent_encode.h"

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
    unsigned char b64[4 * ((EVP_MAX_MD_SIZE + 2) / 3) + 1];
    const int n = EVP_EncodeBlock(b64, digest, static_cast<int>(digestLen));
    return std::string(reinterpret_cast<const char*>(b64), static_cast<size_t>(n));
}

std::string FormatTimestamp(std::chrono::system_clock::time_point t) {
    const std::time_t secs = std::chrono::system_clock::to_time_t(t);
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

std::string RandomUuid() {
    unsigned char b[16];
    if (RAND_bytes(b, sizeof b) != 1) throw std::runtime_error("no random bytes available");
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
        out.push_back(kHex[b[i] >> 4]);
        out.push_back(kHex[b[i] & 0x0F]);
    }
    return out;
}

RequestSigner::RequestSigner(Clock clock, NonceSource nonce)
    : clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })),
      nonce_(nonce ? std::move(nonce) : NonceSource(RandomUuid)) {}

Params RequestSigner::Sign(const std::string& method, const std::string& action, const std::string& version,
                           Params params, const Credentials& credentials) const {
    params["Action"] = action;
    params["Version"] = version;
    params["Format"] = "JSON";
    params["AccessKeyId"] = credentials.accessKeyId;
    params["SignatureMethod"] = "HMAC-SHA1";
    params["SignatureVersion"] = "1.0";
    params["SignatureNonce"] = nonce_();
    params["Timestamp"] = FormatTimestamp(clock_());
    if (!credentials.securityToken.empty()) params["SecurityToken"] = credentials.securityToken;
    params.erase("Signature");
    params["Signature"] = HmacSha1Base64(credentials.accessKeySecret, StringToSign(method, params));
    return params;
}

}  // namespace hxbridge
