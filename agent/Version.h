// hxagent's version (the project's, set in the top-level CMakeLists.txt), printed by
// --version and recorded in every manifest and job log.
#pragma once

#include "hx_build_info.h"

namespace hxagent {
inline constexpr const char* kAgentVersion = HX_VERSION;
}  // namespace hxagent
