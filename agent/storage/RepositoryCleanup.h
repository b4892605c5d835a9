// What killed repository backups leave in their repository, removed by `hxagent cleanup`:
//   - stale locks: `restic unlock` removes only locks restic itself calls stale (the process
//     that holds it is gone from this host, or the lock was not refreshed for 30 minutes),
//     so a backup another proxy is running keeps its lock;
//   - part snapshots (disks, configuration document) of this proxy's backups that never got
//     their manifest and whose owner process is gone: invisible in the catalogue, they are
//     forgotten so that prune can free their data.
// The repositories looked at: those of this state folder's killed repository jobs (their
// records, RepositoryBackupJob.h), plus the one given to cleanup. A killed job's record is
// removed once its repository is clean.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CleanupJob.h"
#include "storage/Restic.h"

namespace hxagent {

struct RepositoryCleanupOutcome {
    std::vector<CleanupItem> removed;    // locks and partial backups removed (or, dry run, to remove)
    std::vector<std::string> remaining;  // what could not be cleaned, with its cause
};

RepositoryCleanupOutcome CleanRepositories(const std::string& stateDir, const std::optional<RepositoryLocation>& extra,
                                           const std::string& proxyId, bool dryRun);

}  // namespace hxagent
