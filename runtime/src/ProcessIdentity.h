// Who owns a cleaner root entity, and whether that owner still runs.
//
// A process is named by (pid, start time, boot id): the pid alone is reused, the start time
// (field 22 of /proc/<pid>/stat, clock ticks since boot) tells a reused pid apart, and the
// boot id (/proc/sys/kernel/random/boot_id) tells a pid of an earlier boot apart.
#pragma once

#include <cstdint>
#include <string>

namespace hxruntime::detail {

struct ProcessIdentity {
    long pid = 0;
    std::uint64_t startTicks = 0;  // 0 = unknown (no /proc)
    std::string bootId;            // "" = unknown
};

// The calling process (recomputed after a fork, since the pid changes).
ProcessIdentity CurrentProcess();

// Whether `owner` is still running: false when the pid is gone, is a zombie (killed but not
// yet reaped), belongs to a process with another start time, or the machine rebooted since.
// With no /proc to read, falls back to kill(pid, 0) on the same boot.
bool IsProcessRunning(const ProcessIdentity& owner);

}  // namespace hxruntime::detail
