// What a caller of the data path passes in and gets back (agent/DataMover.h,
// agent/storage/StreamCopy.h, io/BlockPipeline.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "io/ImageDigest.h"

namespace hxagent {

namespace io {
class BackgroundSync;
}

// Called on the calling thread: `done` logical bytes of `total` are written (or hashed).
using ProgressFn = std::function<void(std::uint64_t done, std::uint64_t total)>;
// Polled on the calling thread between blocks; true stops the move.
using CancelFn = std::function<bool()>;

struct MoveOptions {
    ProgressFn progress;  // may be empty
    CancelFn cancelled;   // may be empty
    // Which digest to compute: what the manifest records for new backups, or the kind a
    // manifest being checked carries.
    io::DigestKind digest = io::DigestKind::kBlockSha256;
    // Not owned, may be null. When set, the output's fsync and close are handed to it and
    // the move returns once the data is written: the caller must call sync->Wait() before
    // the output may be relied on (the manifest written, the disk detached). Null: the
    // output is fsynced before the move returns.
    io::BackgroundSync* sync = nullptr;
};

struct MoveResult {
    bool ok = false;
    bool cancelled = false;
    std::string error;            // one line, with the path and the system's reason
    std::uint64_t bytes = 0;      // logical bytes covered
    std::uint64_t dataBytes = 0;  // bytes stored: non-zero granules written, or bytes read from data ranges
    io::DigestKind digestKind = io::DigestKind::kBlockSha256;
    std::string digest;           // lowercase hex, of digestKind
    double seconds = 0;
};

}  // namespace hxagent
