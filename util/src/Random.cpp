#include "hxutil/Random.h"

#include <openssl/rand.h>

#include <random>
#include <vector>

namespace hxutil {

namespace {

std::vector<unsigned char> RandomBytes(std::size_t n) {
    std::vector<unsigned char> b(n);
    if (n > 0 && RAND_bytes(b.data(), static_cast<int>(n)) != 1) {
        std::random_device fallback;
        for (auto& c : b) c = static_cast<unsigned char>(fallback());
    }
    return b;
}

std::string Hex(const unsigned char* b, std::size_t n) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(kHex[b[i] >> 4]);
        out.push_back(kHex[b[i] & 0x0F]);
    }
    return out;
}

}  // namespace

std::string RandomUuid() {
    auto b = RandomBytes(16);
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // variant 10
    const std::string hex = Hex(b.data(), b.size());
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" + hex.substr(16, 4) + "-" +
           hex.substr(20);
}

std::string RandomHex(std::size_t bytes) {
    const auto b = RandomBytes(bytes);
    return Hex(b.data(), b.size());
}

}  // namespace hxutil
