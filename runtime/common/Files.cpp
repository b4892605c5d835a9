// Paths and whole-file helpers.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "FxUtil.h"

CZuError CZuError::FromErrno(int err, const std::string& what) {
    return CZuError(err, what + ": " + std::strerror(err));
}

bool FXPath::DoesPathExist(const std::string& path) {
    struct stat st{};
    return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

std::string CZuPath::Append(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    if (dir.back() == '/') return dir + name;
    return dir + "/" + name;
}

std::string CZuPath::GetExt(const std::string& path) {
    size_t slash = path.find_last_of('/');
    std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    size_t dot = last.find_last_of('.');
    if (dot == std::string::npos || dot == 0) return {};
    return last.substr(dot + 1);
}

CZuError CZuFile::Delete(const std::string& path) {
    if (::unlink(path.c_str()) != 0) return CZuError::FromErrno(errno, "delete " + path);
    return {};
}

bool ReadWholeFile(const std::string& path, std::string& text) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string data;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            ::close(fd);
            return false;
        }
        if (n == 0) break;
        data.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    text = std::move(data);
    return true;
}

namespace {
bool WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}
}  // namespace

bool WriteWholeFile(const std::string& path, const std::string& text) {
    if (path.empty()) return false;
    // Write beside the target, then rename over it: readers see the old or the new file,
    // never a torn one, even if this process dies half-way.
    std::string tmp = path + ".tmp." + std::to_string(::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = WriteAll(fd, text) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) {
        size_t slash = path.find_last_of('/');
        std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dfd >= 0) {
            ::fsync(dfd);
            ::close(dfd);
        }
        return true;
    }
    ::unlink(tmp.c_str());
    return false;
}

bool FileSize(const std::string& path, long long& size) {
    struct stat st{};
    if (::stat(path.c_str(), &st) != 0) return false;
    if (S_ISBLK(st.st_mode)) {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return false;
        unsigned long long bytes = 0;
        bool ok = ::ioctl(fd, BLKGETSIZE64, &bytes) == 0;
        ::close(fd);
        if (!ok) return false;
        size = static_cast<long long>(bytes);
        return true;
    }
    if (!S_ISREG(st.st_mode)) return false;
    size = static_cast<long long>(st.st_size);
    return true;
}
