// The Platform value CreateImage accepts, from a free-form OS name.
#pragma once

#include <string>

namespace hxbridge {

// Restores hand the guest OS's display name ("Ubuntu 22.04 64 bit", "CentOS 7.9 64位",
// "Windows Server 2022 数据中心版 64位中文版") where CreateImage wants a platform keyword
// ("Ubuntu", "CentOS", "Windows Server 2022"). A name that is already a keyword is kept;
// names matching no known platform give "Others Linux" (or "Windows Server 2022" for an
// unrecognised Windows). Matching ignores case and looks at the start of the name.
std::string ImagePlatformFor(const std::string& osName);

}  // namespace hxbridge
