#include "FsUtil.h"

#include <sys/stat.h>

#include <cerrno>

namespace hxruntime::detail {

namespace {

bool IsDirectory(const std::string& path) {
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

std::string ParentOf(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? std::string() : std::string("/");
    size_t slash = path.find_last_of('/', end);
    if (slash == std::string::npos) return {};
    size_t keep = path.find_last_not_of('/', slash);
    return keep == std::string::npos ? std::string("/") : path.substr(0, keep + 1);
}

bool MakeDirectories(const std::string& path, mode_t mode) {
    if (path.empty()) return false;
    if (IsDirectory(path)) return true;
    std::string parent = ParentOf(path);
    if (!parent.empty() && parent != path && !MakeDirectories(parent, mode)) return false;
    if (::mkdir(path.c_str(), mode) == 0) {
        ::chmod(path.c_str(), mode);  // mkdir applied the umask; the caller asked for `mode`
        return true;
    }
    return errno == EEXIST && IsDirectory(path);
}

}  // namespace hxruntime::detail
