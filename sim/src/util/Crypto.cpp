#include "util/Crypto.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

namespace hxsim::crypto {
namespace {

std::string Hmac(const EVP_MD* md, std::string_view key, std::string_view data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  HMAC(md, key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(data.data()), data.size(), out, &len);
  return std::string(reinterpret_cast<const char*>(out), len);
}

}  // namespace

std::string HmacSha1(std::string_view key, std::string_view data) { return Hmac(EVP_sha1(), key, data); }
std::string HmacSha256(std::string_view key, std::string_view data) { return Hmac(EVP_sha256(), key, data); }

std::string Sha256(std::string_view data) {
  unsigned char out[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), out);
  return std::string(reinterpret_cast<const char*>(out), sizeof out);
}

std::string Hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xF]);
  }
  return out;
}

}  // namespace hxsim::crypto
