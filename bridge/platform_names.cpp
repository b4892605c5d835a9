#include "platform_names.h"

#include <array>
#include <cctype>
#include <string_view>
#include <utility>

namespace hxbridge {

namespace {

// Lower case, every run of blanks one space: ECS's own OS names carry two spaces in
// "Windows Server  2016 ...".
std::string Normalise(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (std::isspace(c)) {
            if (!out.empty() && out.back() != ' ') out.push_back(' ');
        } else {
            out.push_back(static_cast<char>(std::tolower(c)));
        }
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

std::string WindowsPlatform(const std::string& name) {
    // ECS takes the release year only: "2012 R2" is "Windows Server 2012".
    for (std::string_view year : {"2022", "2019", "2016", "2012", "2008", "2003"}) {
        if (name.find(year) != std::string::npos) return "Windows Server " + std::string(year);
    }
    return "Windows Server 2022";  // a newer or unnamed release boots as the newest known
}

}  // namespace

std::string ImagePlatformFor(const std::string& osName) {
    const std::string name = Normalise(osName);
    if (name.rfind("windows", 0) == 0) return WindowsPlatform(name);
    // More specific prefixes first ("fedora coreos" before "fedora", "opensuse" before "suse").
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 22> kLinux = {{
        {"alibaba cloud linux", "Aliyun"}, {"aliyun", "Aliyun"},       {"anolis", "Anolis"},
        {"centos stream", "CentOS Stream"}, {"centos", "CentOS"},      {"ubuntu", "Ubuntu"},
        {"debian", "Debian"},              {"opensuse", "OpenSUSE"},   {"suse", "SUSE"},
        {"red hat", "RedHat"},             {"redhat", "RedHat"},       {"rhel", "RedHat"},
        {"fedora coreos", "Fedora CoreOS"}, {"fedora", "Fedora"},      {"coreos", "CoreOS"},
        {"freebsd", "FreeBSD"},            {"almalinux", "AlmaLinux"}, {"rocky linux", "Rocky Linux"},
        {"kylin", "Kylin"},                {"uos", "UOS"},             {"gentoo", "Gentoo"},
        {"others linux", "Others Linux"},
    }};
    for (const auto& [prefix, platform] : kLinux) {
        if (name.rfind(prefix, 0) == 0) return std::string(platform);
    }
    return "Others Linux";
}

}  // namespace hxbridge
