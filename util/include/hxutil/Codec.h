// Base64 and constant-time comparison, from OpenSSL.
#pragma once

#include <string>
#include <string_view>

namespace hxutil {

// Standard alphabet with '=' padding.
std::string Base64Encode(std::string_view bytes);
// Equal contents, in time that does not depend on where they first differ (it does
// depend on the lengths, which are not secret where this is used).
bool ConstantTimeEquals(std::string_view a, std::string_view b);

}  // namespace hxutil
