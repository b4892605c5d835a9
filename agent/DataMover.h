// Moving disk data between a block device (or the emulator's disk file) and a sparse image:
// the data path of plain-folder backups and restores.
//
// Contracts:
// - The work runs through io/BlockPipeline.h: 4 MiB blocks, read, hashed and written on
//   overlapping threads, one 256 KiB buffer per worker.
// - Ranges the source reports as holes (SEEK_DATA) are neither read nor written; all-zero
//   64 KiB granules are never written: in an image they stay holes (the file is sized with
//   ftruncate first), and on restore the target is a freshly created, zeroed disk.
// - The digest is options.digest over the full logical content (holes count as zeros); see
//   io/ImageDigest.h for the block digest that new backups record and why.
// - The output is fsynced before the move returns, or handed to options.sync.
// - The cancel callback is polled between blocks; a cancelled copy fails with `cancelled`
//   set. Errors never throw.
#pragma once

#include <cstdint>
#include <string>

#include "io/ImageDigest.h"
#include "io/Move.h"

namespace hxagent {

inline constexpr std::uint64_t kChunkBytes = io::kBlockBytes;

// Size in bytes of a block device or regular file (symlinks followed); -1 with `error`.
std::int64_t DeviceOrFileSize(const std::string& path, std::string& error);

// Reads the first `size` bytes of `source` into a new image file `image` (created, or
// truncated when it exists, mode 0600).
MoveResult ReadToImage(const std::string& source, std::uint64_t size, const std::string& image,
                       const MoveOptions& options);

// Writes `image` onto the start of `target`, which must be at least as large and must read
// as zeros where the image is zero (a new empty disk). The digest is of the image, computed
// in the same pass: the caller compares it with the manifest's.
MoveResult WriteImageToDevice(const std::string& image, const std::string& target, const MoveOptions& options);

// The options.digest of a whole file, sparse-aware.
MoveResult HashFile(const std::string& path, const MoveOptions& options);

// Whether the first `size` bytes of two files are identical (holes compare as zeros).
// `error` is set when a file cannot be read.
bool SameContent(const std::string& a, const std::string& b, std::uint64_t size, std::string& error);

}  // namespace hxagent
