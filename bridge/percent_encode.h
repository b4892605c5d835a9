// Percent-encoding as the ECS RPC signature defines it (RFC 3986 unreserved set).
#pragma once

#include <string>
#include <string_view>

namespace hxbridge {

// Leaves A-Z a-z 0-9 - _ . ~ unchanged and writes every other byte (UTF-8 bytes included)
// as %XY with upper-case hex. Space becomes %20, never '+'; '~' is never escaped.
std::string PercentEncode(std::string_view text);

// Decodes %XY sequences; '+' is kept as '+'. Malformed escapes are copied unchanged.
std::string PercentDecode(std::string_view text);

}  // namespace hxbridge
