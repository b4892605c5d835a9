// The Platform value CreateImage accepts, from a free-form OS name.
#pragma once

#include <string>

namespace hxbridge {

// Restores hand the guest OS's display name ("Ubuntu 22.04 64 bit", "CentOS 7.9 64位",
// "Windows Server  2016 数据中心版 64位中文版", with ECS's double space) where CreateImage
// takes one of its Platform values: Aliyun, Anolis, CentOS, CentOS Stream, Ubuntu, Debian,
// SUSE, OpenSUSE, RedHat, Fedora, Fedora CoreOS, CoreOS, FreeBSD, AlmaLinux, Rocky Linux,
// Kylin, UOS, Gentoo, Others Linux, Windows Server 2003/2008/2012/2016/2019/2022. Anything
// else ("Windows Server 2012 R2", say) is refused (InvalidPlatform.Malformed), so every name
// maps to one of them: Windows by its year (an unknown one to 2022), other names by prefix,
// the rest to "Others Linux". Case and runs of blanks do not matter.
std::string ImagePlatformFor(const std::string& osName);

}  // namespace hxbridge
