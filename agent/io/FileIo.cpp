#include "io/FileIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace hxagent::io {

namespace {
// One granule of zeros: the reference for zero detection and the source of streamed zeros.
alignas(4096) const unsigned char kZeros[kGranule] = {};
}  // namespace

std::string Why(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

Fd OpenSequentialSource(const std::string& path, std::string& error) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        error = Why("cannot open", path);
        return fd;
    }
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

Fd::~Fd() {
    if (fd_ >= 0) ::close(fd_);
}

int Fd::Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

bool Fd::Close() {
    const int fd = Release();
    return fd < 0 || ::close(fd) == 0;
}

Buffer AllocateBuffer(std::size_t bytes) {
    void* p = nullptr;
    if (::posix_memalign(&p, 4096, bytes) != 0) return Buffer();
    return Buffer(static_cast<unsigned char*>(p));
}

bool ReadAt(int fd, unsigned char* buf, std::size_t n, std::uint64_t off) {
    std::size_t got = 0;
    while (got < n) {
        const ssize_t r = ::pread(fd, buf + got, n - got, static_cast<off_t>(off + got));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = EIO;
            return false;
        }
        got += static_cast<std::size_t>(r);
    }
    return true;
}

bool WriteAt(int fd, const unsigned char* buf, std::size_t n, std::uint64_t off) {
    std::size_t put = 0;
    while (put < n) {
        const ssize_t w = ::pwrite(fd, buf + put, n - put, static_cast<off_t>(off + put));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            if (w == 0) errno = EIO;
            return false;
        }
        put += static_cast<std::size_t>(w);
    }
    return true;
}

long long ReadStream(int fd, unsigned char* buf, std::size_t n) {
    std::size_t got = 0;
    while (got < n) {
        const ssize_t r = ::read(fd, buf + got, n - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<std::size_t>(r);
    }
    return static_cast<long long>(got);
}

bool WriteStream(int fd, const unsigned char* buf, std::size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, buf, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            if (w == 0) errno = EIO;
            return false;
        }
        buf += w;
        n -= static_cast<std::size_t>(w);
    }
    return true;
}

bool WriteZerosToStream(int fd, std::uint64_t n) {
    while (n > 0) {
        const std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(n, kGranule));
        if (!WriteStream(fd, kZeros, step)) return false;
        n -= step;
    }
    return true;
}

std::uint64_t NextData(int fd, std::uint64_t off, std::uint64_t end) {
    const off_t r = ::lseek(fd, static_cast<off_t>(off), SEEK_DATA);
    if (r < 0) return errno == ENXIO ? end : off;
    return std::min<std::uint64_t>(static_cast<std::uint64_t>(r), end);
}

std::uint64_t NonZeroGranules(const unsigned char* buf, std::size_t n) {
    std::uint64_t mask = 0;
    for (std::size_t i = 0, bit = 0; i < n && bit < 64; i += kGranule, ++bit)
        if (std::memcmp(buf + i, kZeros, std::min(kGranule, n - i)) != 0) mask |= 1ull << bit;
    return mask;
}

bool WriteGranules(int fd, const unsigned char* buf, std::size_t n, std::uint64_t mask, std::uint64_t off,
                   std::uint64_t& written) {
    std::size_t bit = 0;
    const std::size_t granules = (n + kGranule - 1) / kGranule;
    while (bit < granules) {
        if (!(mask >> bit & 1)) {
            ++bit;
            continue;
        }
        const std::size_t first = bit;
        while (bit < granules && (mask >> bit & 1)) ++bit;
        const std::size_t start = first * kGranule, stop = std::min(n, bit * kGranule);
        if (!WriteAt(fd, buf + start, stop - start, off + start)) return false;
        written += stop - start;
    }
    return true;
}

}  // namespace hxagent::io
