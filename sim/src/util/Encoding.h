// Text encodings of the RPC protocol: the signing percent-encoding, URL decoding and
// query/form parsing. Pure functions, no state.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace hxsim::enc {

using KeyValues = std::vector<std::pair<std::string, std::string>>;

// RFC 3986 encoding used by both signature schemes: unreserved bytes stay, every other
// UTF-8 byte becomes %XY (uppercase), so space is %20, '*' is %2A and '~' stays.
std::string PercentEncode(std::string_view s);

// Decodes %XY escapes; '+' becomes a space only when plusIsSpace (form bodies and
// queries written by form encoders). Malformed escapes are kept literally.
std::string UrlDecode(std::string_view s, bool plusIsSpace);

// Splits "a=1&b=2" into decoded pairs, in order; a key without '=' gets an empty value.
KeyValues ParseQuery(std::string_view query);

std::string ToLower(std::string_view s);
std::string Trim(std::string_view s);

}  // namespace hxsim::enc
