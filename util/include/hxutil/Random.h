// Unpredictable identifiers from OpenSSL's CSPRNG (seeded by the kernel). Neither throws:
// should OpenSSL have no randomness, std::random_device fills in (still unique enough to
// name an object, and on Linux itself backed by the kernel).
#pragma once

#include <cstddef>
#include <string>

namespace hxutil {

// RFC 4122 version 4, lowercase: "1b4e28ba-2fa1-4d3b-a3f5-ef19b5a7633b".
std::string RandomUuid();
// `bytes` random bytes as lowercase hex (2 * bytes characters).
std::string RandomHex(std::size_t bytes);

}  // namespace hxutil
