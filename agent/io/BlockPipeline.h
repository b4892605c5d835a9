// The data path's engine: moves a source into a sink in 4 MiB blocks, computing the image
// digest on the way, with read, hash and write overlapping.
//
// Decision: the work is split by block, not by stage. Each worker thread takes the next
// block and reads, hashes and writes it in 256 KiB pieces, so a piece is hashed and written
// while it is still in the core's cache; two workers keep one block's read in flight while
// the other's piece is hashed or written. A first version handed 4 MiB buffers from a
// reading thread to hashing and writing threads: every buffer then crossed cores and left
// the cache, and the kernel's copy into the page cache alone cost more than all of
// `cp --sparse=always` (see bench/README.md).
// Blocks may then finish out of order; their digests are folded in order through a window
// of kFoldWindow blocks (32 bytes each), which also bounds how far a worker runs ahead.
// A sink or source that must see the bytes in order (a pipe), and the whole-image SHA-256
// (one sequential computation), run on one worker.
//
// Memory: one 256 KiB buffer per worker, whatever the disk size. Ranges the source reports
// as holes are neither read, hashed (the digest of a zero block is a constant) nor written;
// a block that was read but holds only zeros is not hashed either, and all-zero 64 KiB
// granules are handed to the sink as zeros (data null). Block devices report no holes, so
// this is what keeps an empty stretch of a device cheap.
//
// The first failure stops every worker; the result carries that one error. Progress and
// cancellation run on the calling thread. Nothing throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "io/Move.h"

namespace hxagent::io {

inline constexpr std::size_t kPieceBytes = 256u << 10;
inline constexpr int kParallelWorkers = 2;  // two cores here; more would only queue
inline constexpr std::size_t kFoldWindow = 64;

// Where blocks come from.
class BlockSource {
public:
    virtual ~BlockSource() = default;
    // True when Read must be called in increasing offsets from one thread (a pipe).
    virtual bool ordered() const = 0;
    // How many bytes from `off` (at most up to `end`) are known to be zeros without reading
    // them; 0 when `off` starts data. Thread-safe unless ordered().
    virtual std::uint64_t HoleBytes(std::uint64_t off, std::uint64_t end) = 0;
    // Fills buf with the n bytes at off; false with a one-line `error`. Thread-safe unless
    // ordered().
    virtual bool Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) = 0;
};

// Where blocks go; every byte of [0, size) is handed over exactly once.
class BlockSink {
public:
    virtual ~BlockSink() = default;
    // True when Write must be called in increasing offsets from one thread (a pipe).
    virtual bool ordered() const = 0;
    // data null: n zero bytes. Otherwise `nonZero` marks the 64 KiB granules of data (at
    // most 64) holding a non-zero byte. Adds the bytes it stored to `stored` (the caller's
    // own counter, never shared between threads); false with a one-line `error`.
    virtual bool Write(std::uint64_t off, const unsigned char* data, std::size_t n, std::uint64_t nonZero,
                       std::uint64_t& stored, std::string& error) = 0;
};

// Moves [0, size) of `source` into `sink` (null: only hash), computing options.digest.
// Progress and cancellation as MoveOptions says; options.sync is the caller's business.
MoveResult RunPipeline(BlockSource& source, BlockSink* sink, std::uint64_t size, const MoveOptions& options);

}  // namespace hxagent::io
