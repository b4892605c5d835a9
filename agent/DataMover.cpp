#include "DataMover.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace hxagent {

namespace {

std::string Why(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Closes explicitly, so that a failing close (a deferred write error) is seen.
    bool Close() {
        int fd = fd_;
        fd_ = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_;
};

class Sha256 {
public:
    Sha256() : ctx_(EVP_MD_CTX_new()) { ok_ = ctx_ && EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr) == 1; }
    ~Sha256() { EVP_MD_CTX_free(ctx_); }
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    bool ok() const { return ok_; }
    void Update(const void* p, size_t n) {
        if (ok_ && n) ok_ = EVP_DigestUpdate(ctx_, p, n) == 1;
    }
    std::string Hex() {
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned int len = 0;
        if (!ok_ || EVP_DigestFinal_ex(ctx_, md, &len) != 1) return {};
        static const char* digits = "0123456789abcdef";
        std::string out;
        for (unsigned i = 0; i < len; ++i) {
            out += digits[md[i] >> 4];
            out += digits[md[i] & 15];
        }
        return out;
    }

private:
    EVP_MD_CTX* ctx_;
    bool ok_ = false;
};

struct AlignedFree {
    void operator()(unsigned char* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, AlignedFree>;

Buffer Allocate(size_t n) {
    void* p = nullptr;
    if (::posix_memalign(&p, 4096, n) != 0) return Buffer();
    return Buffer(static_cast<unsigned char*>(p));
}

const unsigned char* ZeroBlock() {
    static const Buffer zeros = [] {
        Buffer b = Allocate(kChunkBytes);
        if (b) std::memset(b.get(), 0, kChunkBytes);
        return b;
    }();
    return zeros.get();
}

bool IsZero(const unsigned char* p, size_t n) { return std::memcmp(p, ZeroBlock(), n) == 0; }

// Reads exactly n bytes at off (short reads and EINTR retried). False on error or EOF.
bool ReadFull(int fd, unsigned char* buf, size_t n, std::uint64_t off) {
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

bool WriteFull(int fd, const unsigned char* buf, size_t n, std::uint64_t off) {
    size_t put = 0;
    while (put < n) {
        ssize_t w = ::pwrite(fd, buf + put, n - put, static_cast<off_t>(off + put));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) {
            if (w == 0) errno = EIO;
            return false;
        }
        put += static_cast<size_t>(w);
    }
    return true;
}

// Start of the next data range at or after `off`, or `end` when only holes remain. File
// systems (and block devices) without SEEK_DATA report everything as data.
std::uint64_t NextData(int fd, std::uint64_t off, std::uint64_t end) {
    off_t r = ::lseek(fd, static_cast<off_t>(off), SEEK_DATA);
    if (r < 0) return errno == ENXIO ? end : off;
    return std::min<std::uint64_t>(static_cast<std::uint64_t>(r), end);
}
std::uint64_t NextHole(int fd, std::uint64_t off, std::uint64_t end) {
    off_t r = ::lseek(fd, static_cast<off_t>(off), SEEK_HOLE);
    if (r < 0) return end;
    return std::min<std::uint64_t>(static_cast<std::uint64_t>(r), end);
}

// Writes the non-zero granules of buf (n bytes, logical offset off) to fd, coalesced.
bool WriteNonZero(int fd, const unsigned char* buf, size_t n, std::uint64_t off, std::uint64_t& written) {
    size_t i = 0;
    while (i < n) {
        size_t g = std::min<size_t>(kGranuleBytes, n - i);
        if (IsZero(buf + i, g)) {
            i += g;
            continue;
        }
        size_t start = i;
        while (i < n) {
            g = std::min<size_t>(kGranuleBytes, n - i);
            if (IsZero(buf + i, g)) break;
            i += g;
        }
        if (!WriteFull(fd, buf + start, i - start, off + start)) return false;
        written += i - start;
    }
    return true;
}

// The copy loop shared by the three operations: walks [0, size) of `src`, hashes
// everything, and hands non-zero data to `dst` when it is open.
MoveResult Pump(int src, const std::string& srcPath, std::uint64_t size, int dst, const std::string& dstPath,
                const MoveOptions& options) {
    MoveResult r;
    const auto started = std::chrono::steady_clock::now();
    Sha256 sha;
    Buffer buf = Allocate(kChunkBytes);
    if (!sha.ok() || !buf || !ZeroBlock()) {
        r.error = "cannot set up the copy buffers";
        return r;
    }
    ::posix_fadvise(src, 0, 0, POSIX_FADV_SEQUENTIAL);
    std::uint64_t off = 0;
    while (off < size) {
        if (options.cancelled && options.cancelled()) {
            r.cancelled = true;
            r.error = "cancelled";
            return r;
        }
        std::uint64_t data = NextData(src, off, size);
        if (data > off) {
            // A hole: nothing to read or write, but the checksum covers its zeros.
            std::uint64_t n = std::min(data - off, kChunkBytes);
            sha.Update(ZeroBlock(), n);
            off += n;
        } else {
            std::uint64_t limit = std::min(NextHole(src, off, size), size);
            if (limit <= off) limit = size;
            size_t n = static_cast<size_t>(std::min(limit - off, kChunkBytes));
            if (!ReadFull(src, buf.get(), n, off)) {
                r.error = Why("cannot read", srcPath);
                return r;
            }
            sha.Update(buf.get(), n);
            if (dst >= 0 && !WriteNonZero(dst, buf.get(), n, off, r.dataBytes)) {
                r.error = Why("cannot write", dstPath);
                return r;
            }
            off += n;
        }
        if (options.progress) options.progress(off, size);
    }
    r.sha256 = sha.Hex();
    if (r.sha256.empty()) {
        r.error = "SHA-256 computation failed";
        return r;
    }
    r.bytes = size;
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    r.ok = true;
    return r;
}

}  // namespace

std::int64_t DeviceOrFileSize(const std::string& path, std::string& error) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.ok()) {
        error = Why("cannot open", path);
        return -1;
    }
    struct stat st{};
    if (::fstat(fd.get(), &st) != 0) {
        error = Why("cannot stat", path);
        return -1;
    }
    if (S_ISREG(st.st_mode)) return static_cast<std::int64_t>(st.st_size);
    if (S_ISBLK(st.st_mode)) {
        std::uint64_t bytes = 0;
        if (::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0) {
            error = Why("cannot size block device", path);
            return -1;
        }
        return static_cast<std::int64_t>(bytes);
    }
    error = path + " is neither a block device nor a regular file";
    return -1;
}

MoveResult ReadToImage(const std::string& source, std::uint64_t size, const std::string& image,
                       const MoveOptions& options) {
    MoveResult r;
    Fd src(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!src.ok()) {
        r.error = Why("cannot open", source);
        return r;
    }
    Fd dst(::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!dst.ok()) {
        r.error = Why("cannot create", image);
        return r;
    }
    // Sized first: everything not written afterwards stays a hole.
    if (::ftruncate(dst.get(), static_cast<off_t>(size)) != 0) {
        r.error = Why("cannot size", image);
        return r;
    }
    r = Pump(src.get(), source, size, dst.get(), image, options);
    if (!r.ok) return r;
    if (::fsync(dst.get()) != 0 || !dst.Close()) {
        r.ok = false;
        r.error = Why("cannot flush", image);
    }
    return r;
}

MoveResult WriteImageToDevice(const std::string& image, const std::string& target, const MoveOptions& options) {
    MoveResult r;
    std::string error;
    std::int64_t imageSize = DeviceOrFileSize(image, error);
    if (imageSize < 0) {
        r.error = error;
        return r;
    }
    std::int64_t targetSize = DeviceOrFileSize(target, error);
    if (targetSize < 0) {
        r.error = error;
        return r;
    }
    if (targetSize < imageSize) {
        r.error = "target " + target + " holds " + std::to_string(targetSize) + " bytes, the image " + image +
                  " needs " + std::to_string(imageSize);
        return r;
    }
    Fd src(::open(image.c_str(), O_RDONLY | O_CLOEXEC));
    if (!src.ok()) {
        r.error = Why("cannot open", image);
        return r;
    }
    Fd dst(::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (!dst.ok()) {
        r.error = Why("cannot open for writing", target);
        return r;
    }
    r = Pump(src.get(), image, static_cast<std::uint64_t>(imageSize), dst.get(), target, options);
    if (!r.ok) return r;
    if (::fsync(dst.get()) != 0 || !dst.Close()) {
        r.ok = false;
        r.error = Why("cannot flush", target);
    }
    return r;
}

MoveResult HashFile(const std::string& path, const MoveOptions& options) {
    MoveResult r;
    std::string error;
    std::int64_t size = DeviceOrFileSize(path, error);
    if (size < 0) {
        r.error = error;
        return r;
    }
    Fd src(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!src.ok()) {
        r.error = Why("cannot open", path);
        return r;
    }
    return Pump(src.get(), path, static_cast<std::uint64_t>(size), -1, {}, options);
}

bool SameContent(const std::string& a, const std::string& b, std::uint64_t size, std::string& error) {
    Fd fa(::open(a.c_str(), O_RDONLY | O_CLOEXEC));
    Fd fb(::open(b.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fa.ok() || !fb.ok()) {
        error = Why("cannot open", fa.ok() ? b : a);
        return false;
    }
    Buffer ba = Allocate(kChunkBytes), bb = Allocate(kChunkBytes);
    if (!ba || !bb) {
        error = "out of memory";
        return false;
    }
    std::uint64_t off = 0;
    while (off < size) {
        // Ranges that are holes in both files are equal without reading them.
        std::uint64_t next = std::min(NextData(fa.get(), off, size), NextData(fb.get(), off, size));
        if (next >= size) break;
        off = next;
        size_t n = static_cast<size_t>(std::min(size - off, kChunkBytes));
        if (!ReadFull(fa.get(), ba.get(), n, off)) {
            error = Why("cannot read", a);
            return false;
        }
        if (!ReadFull(fb.get(), bb.get(), n, off)) {
            error = Why("cannot read", b);
            return false;
        }
        if (std::memcmp(ba.get(), bb.get(), n) != 0) return false;
        off += n;
    }
    return true;
}

}  // namespace hxagent
