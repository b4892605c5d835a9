// The low-level I/O shared by the data paths (agent/DataMover.*, agent/storage/StreamCopy.*):
// file descriptors, aligned buffers, full reads and writes, holes and zero detection.
//
// Contracts: nothing here throws. A function returning false leaves errno describing the
// failure (EIO for an unexpected end of file), so the caller can build its message with
// Why(). Offsets and sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace hxagent::io {

// Granule of zero detection: an all-zero granule is never written to a disk or an image.
inline constexpr std::size_t kGranule = 64u << 10;

// "<what> <path>: <strerror(errno)>", one line for a MoveResult's error.
std::string Why(const std::string& what, const std::string& path);

// Owns one file descriptor; closes it when destroyed (a close error is then lost: call
// Close() where it matters).
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd();
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd_(other.Release()) {}
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Gives up ownership without closing.
    int Release();
    // Closes now; false when close reports a (deferred write) error.
    bool Close();

private:
    int fd_;
};

// Opens `path` read-only for one front-to-back pass (the kernel is told to read ahead).
// On failure the Fd is not ok() and `error` says why ("cannot open <path>: <reason>").
Fd OpenSequentialSource(const std::string& path, std::string& error);

struct FreeDeleter {
    void operator()(unsigned char* p) const { std::free(p); }
};
// A page-aligned buffer (direct-I/O friendly), null when the allocation failed.
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;
Buffer AllocateBuffer(std::size_t bytes);

// Exactly n bytes at off (short transfers and EINTR retried). False at EOF or error.
bool ReadAt(int fd, unsigned char* buf, std::size_t n, std::uint64_t off);
bool WriteAt(int fd, const unsigned char* buf, std::size_t n, std::uint64_t off);
// Sequential variants for pipes. ReadStream returns the bytes read (fewer than n only at
// end of stream) or -1 on error.
long long ReadStream(int fd, unsigned char* buf, std::size_t n);
bool WriteStream(int fd, const unsigned char* buf, std::size_t n);
// Writes n zero bytes to a pipe.
bool WriteZerosToStream(int fd, std::uint64_t n);

// Start of the next data range at or after off, `end` when only holes remain before it.
// Files without SEEK_DATA (block devices, some file systems) report everything as data.
std::uint64_t NextData(int fd, std::uint64_t off, std::uint64_t end);

// Bit i set when granule i of buf (n bytes, at most 64 granules) holds a non-zero byte.
std::uint64_t NonZeroGranules(const unsigned char* buf, std::size_t n);

// Writes the granules of buf that `mask` marks (see NonZeroGranules), coalesced into runs,
// at off + their position; adds the bytes written to `written`.
bool WriteGranules(int fd, const unsigned char* buf, std::size_t n, std::uint64_t mask, std::uint64_t off,
                   std::uint64_t& written);

}  // namespace hxagent::io
