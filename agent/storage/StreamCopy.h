// Moving one disk between a device (or the emulator's disk file) and a pipe, with its
// digest computed in the same pass: the data path of repository backups and restores.
//
// Contracts (the pipeline's, io/BlockPipeline.h, as DataMover.h describes them):
// - Ranges the source reports as holes (SEEK_DATA) are not read; their zeros are sent as
//   they are (the stream carries the full logical content, and restic stores zero chunks
//   once).
// - Writing to a device skips every all-zero 64 KiB granule: the target is a fresh disk.
// - The digest is options.digest over the full logical content.
// - The cancel callback is polled between blocks. Errors never throw; a failed move names
//   the path and the system's reason.
#pragma once

#include <cstdint>
#include <string>

#include "DataMover.h"

namespace hxagent {

// Sends the first `size` bytes of `source` to `fd` (a pipe; not closed). `fdName` names the
// reader in errors ("restic backup").
MoveResult DeviceToStream(const std::string& source, std::uint64_t size, int fd, const std::string& fdName,
                          const MoveOptions& options);

// Reads exactly `size` bytes from `fd` and writes their non-zero granules to `target` at
// the same offsets (target may be "" to only hash, as verification does). Fails when the
// stream ends early or holds more than `size` bytes, or when the target is smaller. The
// target is fsynced, or handed to options.sync.
MoveResult StreamToDevice(int fd, const std::string& fdName, std::uint64_t size, const std::string& target,
                          const MoveOptions& options);

}  // namespace hxagent
