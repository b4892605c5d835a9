#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>

#include "FxUtil.h"
#include "Glob.h"

struct CZuDirectory::State {
    DIR* dir = nullptr;
    std::string path;
    std::string pattern;
    bool filesOnly = false;
};

CZuDirectory::CZuDirectory() : state_(std::make_unique<State>()) {}

CZuDirectory::~CZuDirectory() { Close(); }

CZuError CZuDirectory::Open(const std::string& path, const std::string& pattern, bool filesOnly) {
    Close();
    DIR* d = ::opendir(path.c_str());
    if (!d) return CZuError::FromErrno(errno, "open directory " + path);
    state_->dir = d;
    state_->path = path;
    state_->pattern = pattern.empty() ? "*" : pattern;
    state_->filesOnly = filesOnly;
    return {};
}

CZuError CZuDirectory::GetEntry(SZuDirEntry* entry, bool& end) {
    end = false;
    if (!entry) return CZuError(EINVAL, "no entry to fill");
    *entry = SZuDirEntry{};
    if (!state_->dir) return CZuError(EBADF, "directory is not open");
    for (;;) {
        errno = 0;
        struct dirent* de = ::readdir(state_->dir);
        if (!de) {
            if (errno != 0) return CZuError::FromErrno(errno, "read directory " + state_->path);
            end = true;
            return {};
        }
        std::string name = de->d_name;
        if (name == "." || name == "..") continue;
        if (!hxcommon::GlobMatch(state_->pattern, name, false)) continue;
        struct stat st{};
        std::string full = CZuPath::Append(state_->path, name);
        bool isDir = ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        if (isDir && state_->filesOnly) continue;
        entry->name = name;
        entry->isDirectory = isDir;
        entry->size = S_ISREG(st.st_mode) ? static_cast<std::int64_t>(st.st_size) : 0;
        return {};
    }
}

CZuError CZuDirectory::Close() {
    if (!state_->dir) return {};
    int rc = ::closedir(state_->dir);
    state_->dir = nullptr;
    if (rc != 0) return CZuError::FromErrno(errno, "close directory " + state_->path);
    return {};
}
