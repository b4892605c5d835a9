// IPv4 addresses and CIDR blocks, enough for vSwitch address management: parse and
// format dotted quads, test membership and overlap, and tell the addresses a vSwitch
// keeps for itself (the first and the last three of its block) from the usable ones.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace hxsim::ipv4 {

// Strict dotted quad: four decimal octets 0-255, no leading zeros, nothing else.
inline std::optional<uint32_t> Parse(const std::string& text) {
  uint32_t value = 0;
  size_t pos = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (pos >= text.size() || text[pos] != '.') return std::nullopt;
      ++pos;
    }
    const size_t start = pos;
    uint32_t part = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && pos - start < 3) {
      part = part * 10 + static_cast<uint32_t>(text[pos] - '0');
      ++pos;
    }
    const size_t digits = pos - start;
    if (digits == 0 || part > 255 || (digits > 1 && text[start] == '0')) return std::nullopt;
    value = (value << 8) | part;
  }
  if (pos != text.size()) return std::nullopt;
  return value;
}

inline std::string Format(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
         std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

struct Cidr {
  uint32_t base = 0;  // network address (host bits zero)
  int prefix = 32;

  uint32_t Mask() const { return prefix == 0 ? 0 : ~uint32_t{0} << (32 - prefix); }
  uint64_t Size() const { return uint64_t{1} << (32 - prefix); }
  uint32_t Last() const { return base | ~Mask(); }
  bool Contains(uint32_t address) const { return (address & Mask()) == base; }
  bool Contains(const Cidr& other) const { return other.prefix >= prefix && Contains(other.base); }
  bool Overlaps(const Cidr& other) const { return Contains(other.base) || other.Contains(base); }
  // The block's first address and its last three are the vSwitch's own.
  bool Reserved(uint32_t address) const { return address == base || uint64_t{address} + 2 >= Last(); }
  std::string ToString() const { return Format(base) + "/" + std::to_string(prefix); }
};

// "a.b.c.d/n" with host bits zero and n between 8 and 29 (the range vSwitches and VPCs
// accept, leaving room for the reserved addresses).
inline std::optional<Cidr> ParseCidr(const std::string& text) {
  const size_t slash = text.find('/');
  if (slash == std::string::npos) return std::nullopt;
  auto base = Parse(text.substr(0, slash));
  const std::string bits = text.substr(slash + 1);
  if (!base || bits.empty() || bits.size() > 2 || bits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  Cidr cidr{*base, std::stoi(bits)};
  if (cidr.prefix < 8 || cidr.prefix > 29 || (cidr.base & ~cidr.Mask()) != 0) return std::nullopt;
  return cidr;
}

// The lowest usable address of the block not in `used`.
inline std::optional<uint32_t> LowestFree(const Cidr& cidr, const std::set<uint32_t>& used) {
  for (uint64_t a = uint64_t{cidr.base} + 1; a <= cidr.Last(); ++a) {
    const auto address = static_cast<uint32_t>(a);
    if (!cidr.Reserved(address) && !used.count(address)) return address;
  }
  return std::nullopt;
}

}  // namespace hxsim::ipv4
