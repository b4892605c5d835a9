#include "platform_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace hxbridge {

namespace {
std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}
}  // namespace

std::string ImagePlatformFor(const std::string& osName) {
    // Longer, more specific names first: "Windows Server 2012 R2" before "Windows Server 2012".
    static constexpr std::array<std::string_view, 24> kPlatforms = {
        "Windows Server 2012 R2", "Windows Server 2008 R2", "Windows Server 2022", "Windows Server 2019",
        "Windows Server 2016",    "Windows Server 2012",    "Windows Server 2008", "Alibaba Cloud Linux",
        "Aliyun",                 "Anolis",                 "CentOS Stream",       "CentOS",
        "Ubuntu",                 "Debian",                 "OpenSUSE",            "SUSE",
        "Red Hat",                "RedHat",                 "FreeBSD",             "Fedora",
        "AlmaLinux",              "Rocky Linux",            "CoreOS",              "Others Linux",
    };
    const std::string name = Lower(osName);
    for (std::string_view p : kPlatforms) {
        const std::string lp = Lower(std::string(p));
        if (name.rfind(lp, 0) == 0) {
            if (p == "Alibaba Cloud Linux") return "Aliyun";
            if (p == "Red Hat") return "RedHat";
            return std::string(p);
        }
    }
    if (name.rfind("windows", 0) == 0) return "Windows Server 2022";
    return "Others Linux";
}

}  // namespace hxbridge
