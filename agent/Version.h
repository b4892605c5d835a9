// hxagent's version, recorded in every manifest.
#pragma once

namespace hxagent {
inline constexpr const char* kAgentVersion = "0.2.0";
}  // namespace hxagent
