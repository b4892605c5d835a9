#include "storage/StreamCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace hxagent {

namespace {

std::string Why(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

struct Digest {
    Digest() : ctx(EVP_MD_CTX_new()) { ok = ctx && EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr) == 1; }
    ~Digest() { EVP_MD_CTX_free(ctx); }
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;
    void Update(const void* p, size_t n) {
        if (ok && n) ok = EVP_DigestUpdate(ctx, p, n) == 1;
    }
    std::string Hex() {
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned len = 0;
        if (!ok || EVP_DigestFinal_ex(ctx, md, &len) != 1) return {};
        static const char* digits = "0123456789abcdef";
        std::string out;
        for (unsigned i = 0; i < len; ++i) out += {digits[md[i] >> 4], digits[md[i] & 15]};
        return out;
    }
    EVP_MD_CTX* ctx;
    bool ok = false;
};

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

bool ReadAt(int fd, char* buf, size_t n, std::uint64_t off) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = ::pread(fd, buf + got, n - got, static_cast<off_t>(off + got));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = EIO;
            return false;
        }
        got += static_cast<size_t>(r);
    }
    return true;
}

// Reads up to n bytes from a stream; returns the count (0 at EOF) or -1.
ssize_t ReadStream(int fd, char* buf, size_t n) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = ::read(fd, buf + got, n - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

bool WriteAll(int fd, const char* buf, size_t n) {
    while (n > 0) {
        ssize_t w = ::write(fd, buf, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        buf += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool WriteAt(int fd, const char* buf, size_t n, std::uint64_t off) {
    while (n > 0) {
        ssize_t w = ::pwrite(fd, buf, n, static_cast<off_t>(off));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        buf += w;
        n -= static_cast<size_t>(w);
        off += static_cast<std::uint64_t>(w);
    }
    return true;
}

bool AllZero(const char* p, size_t n) {
    static const std::vector<char> zeros(kGranuleBytes, 0);
    return std::memcmp(p, zeros.data(), n) == 0;
}

// Writes the non-zero granules of buf, coalesced into runs.
bool WriteNonZero(int fd, const char* buf, size_t n, std::uint64_t off, std::uint64_t& written) {
    size_t i = 0;
    while (i < n) {
        size_t g = std::min<size_t>(kGranuleBytes, n - i);
        if (AllZero(buf + i, g)) {
            i += g;
            continue;
        }
        const size_t start = i;
        while (i < n && !AllZero(buf + i, std::min<size_t>(kGranuleBytes, n - i)))
            i += std::min<size_t>(kGranuleBytes, n - i);
        if (!WriteAt(fd, buf + start, i - start, off + start)) return false;
        written += i - start;
    }
    return true;
}

double Since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

MoveResult DeviceToStream(const std::string& source, std::uint64_t size, int fd, const std::string& fdName,
                          const MoveOptions& options) {
    MoveResult r;
    const auto started = std::chrono::steady_clock::now();
    FdCloser src{::open(source.c_str(), O_RDONLY | O_CLOEXEC)};
    if (src.fd < 0) {
        r.error = Why("cannot open", source);
        return r;
    }
    ::posix_fadvise(src.fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    Digest sha;
    std::vector<char> buf(kChunkBytes);
    std::uint64_t off = 0;
    while (off < size) {
        if (options.cancelled && options.cancelled()) {
            r.cancelled = true;
            r.error = "cancelled";
            return r;
        }
        const size_t n = static_cast<size_t>(std::min(size - off, kChunkBytes));
        // A chunk that starts in a hole reaching past its end is known to be zeros.
        off_t data = ::lseek(src.fd, static_cast<off_t>(off), SEEK_DATA);
        const bool hole = (data < 0 && errno == ENXIO) || (data >= 0 && static_cast<std::uint64_t>(data) >= off + n);
        if (hole) {
            std::memset(buf.data(), 0, n);
        } else if (!ReadAt(src.fd, buf.data(), n, off)) {
            r.error = Why("cannot read", source);
            return r;
        } else {
            r.dataBytes += n;
        }
        sha.Update(buf.data(), n);
        if (!WriteAll(fd, buf.data(), n)) {
            r.error = Why("cannot stream to", fdName);
            return r;
        }
        off += n;
        if (options.progress) options.progress(off, size);
    }
    r.sha256 = sha.Hex();
    if (r.sha256.empty()) {
        r.error = "SHA-256 computation failed";
        return r;
    }
    r.bytes = size;
    r.seconds = Since(started);
    r.ok = true;
    return r;
}

MoveResult StreamToDevice(int fd, const std::string& fdName, std::uint64_t size, const std::string& target,
                          const MoveOptions& options) {
    MoveResult r;
    const auto started = std::chrono::steady_clock::now();
    FdCloser dst{target.empty() ? -1 : ::open(target.c_str(), O_WRONLY | O_CLOEXEC)};
    if (!target.empty() && dst.fd < 0) {
        r.error = Why("cannot open for writing", target);
        return r;
    }
    if (dst.fd >= 0) {
        const off_t end = ::lseek(dst.fd, 0, SEEK_END);
        if (end >= 0 && static_cast<std::uint64_t>(end) < size) {
            r.error = "target " + target + " holds " + std::to_string(end) + " bytes, the disk needs " +
                      std::to_string(size);
            return r;
        }
    }
    Digest sha;
    std::vector<char> buf(kChunkBytes);
    std::uint64_t off = 0;
    while (off < size) {
        if (options.cancelled && options.cancelled()) {
            r.cancelled = true;
            r.error = "cancelled";
            return r;
        }
        const size_t want = static_cast<size_t>(std::min(size - off, kChunkBytes));
        const ssize_t got = ReadStream(fd, buf.data(), want);
        if (got < 0) {
            r.error = Why("cannot read from", fdName);
            return r;
        }
        if (static_cast<size_t>(got) != want) {
            r.error = fdName + " ended after " + std::to_string(off + static_cast<std::uint64_t>(got)) +
                      " bytes; the disk holds " + std::to_string(size);
            return r;
        }
        sha.Update(buf.data(), want);
        if (dst.fd >= 0 && !WriteNonZero(dst.fd, buf.data(), want, off, r.dataBytes)) {
            r.error = Why("cannot write", target);
            return r;
        }
        off += want;
        if (options.progress) options.progress(off, size);
    }
    char extra;
    if (ReadStream(fd, &extra, 1) > 0) {
        r.error = fdName + " holds more than the " + std::to_string(size) + " bytes of the disk";
        return r;
    }
    if (dst.fd >= 0) {
        const int closing = dst.fd;
        dst.fd = -1;
        const bool flushed = ::fsync(closing) == 0;
        if (::close(closing) != 0 || !flushed) {
            r.error = Why("cannot flush", target);
            return r;
        }
    }
    r.sha256 = sha.Hex();
    r.bytes = size;
    r.seconds = Since(started);
    r.ok = !r.sha256.empty();
    if (!r.ok) r.error = "SHA-256 computation failed";
    return r;
}

}  // namespace hxagent
