// The CVMInfo services that depend on the host: the cancel flag and the mount folder.
#include <sys/stat.h>
#include <unistd.h>

#include "FsUtil.h"
#include "VMInfo.h"
#include "hxruntime/HostApi.h"

bool CVMInfo::IsJobCancelled() { return hxruntime::IsCancelRaised(); }

// Ready means: `path` is a directory this process can write into. With `create`, missing
// folders (parents included) are made with mode 0700; an existing folder keeps its mode.
int CVMInfo::_PrepareMountPathDirectory(const string& path, bool create) {
    try {
        if (path.empty()) return 0;
        struct stat st{};
        if (::stat(path.c_str(), &st) != 0) {
            if (!create || !hxruntime::detail::MakeDirectories(path, 0700)) return 0;
        } else if (!S_ISDIR(st.st_mode)) {
            return 0;
        }
        return ::access(path.c_str(), W_OK | X_OK) == 0 ? 1 : 0;
    } catch (...) {
        return 0;
    }
}
