// Moving disk data between a block device (or the emulator's disk file) and a sparse image.
//
// Contracts:
// - Data is moved in aligned 4 MiB reads; ranges the source reports as holes (SEEK_DATA,
//   where the file system supports it) are not read at all.
// - Zero ranges are never written: in an image they become holes (the file is sized with
//   ftruncate first), and on restore the target is a freshly created, zeroed disk.
//   Zero detection works on 64 KiB granules.
// - The SHA-256 covers the full logical content (holes count as zeros), so it equals
//   `sha256sum` of the image file.
// - The cancel callback is polled between chunks; a cancelled copy fails with
//   `cancelled` set. Errors never throw.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace hxagent {

using ProgressFn = std::function<void(std::uint64_t done, std::uint64_t total)>;
using CancelFn = std::function<bool()>;

struct MoveOptions {
    ProgressFn progress;  // may be empty
    CancelFn cancelled;   // may be empty
};

struct MoveResult {
    bool ok = false;
    bool cancelled = false;
    std::string error;          // one line, with the path and the system's reason
    std::uint64_t bytes = 0;    // logical bytes covered
    std::uint64_t dataBytes = 0;  // bytes actually written (non-zero granules)
    std::string sha256;         // lowercase hex
    double seconds = 0;
};

inline constexpr std::uint64_t kChunkBytes = 4ull << 20;
inline constexpr std::uint64_t kGranuleBytes = 64ull << 10;

// Size in bytes of a block device or regular file (symlinks followed); -1 with `error`.
std::int64_t DeviceOrFileSize(const std::string& path, std::string& error);

// Reads the first `size` bytes of `source` into a new image file `image` (created, or
// truncated when it exists, mode 0600), fsyncs it.
MoveResult ReadToImage(const std::string& source, std::uint64_t size, const std::string& image,
                       const MoveOptions& options);

// Writes `image` onto the start of `target`, which must be at least as large and must read
// as zeros where the image is zero (a new empty disk). fsyncs the target.
MoveResult WriteImageToDevice(const std::string& image, const std::string& target, const MoveOptions& options);

// SHA-256 of a whole file, sparse-aware.
MoveResult HashFile(const std::string& path, const MoveOptions& options);

// Whether the first `size` bytes of two files are identical (holes compare as zeros).
// `error` is set when a file cannot be read.
bool SameContent(const std::string& a, const std::string& b, std::uint64_t size, std::string& error);

}  // namespace hxagent
