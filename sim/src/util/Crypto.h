// Hashing and MAC primitives used by request signing (thin wrappers over OpenSSL).
#pragma once

#include <string>
#include <string_view>

namespace hxsim::crypto {

// Raw (binary) digests; the returned strings hold bytes, not text.
std::string HmacSha1(std::string_view key, std::string_view data);
std::string HmacSha256(std::string_view key, std::string_view data);
std::string Sha256(std::string_view data);

std::string Hex(std::string_view bytes);  // lowercase
// Base64 and constant-time comparison: hxutil/Codec.h.

}  // namespace hxsim::crypto
