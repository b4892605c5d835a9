// The catalogue: what backups a plain folder or a repository holds, what one backup is, and
// whether it still reads back intact. Both formats answer through the same functions, so
// the commands do not care which one they are given.
//
//   plain folder  DIR/<instance id>/<job stamp>/manifest.json; a folder without its manifest
//                 is an incomplete backup and is not listed. A backup is named by its folder.
//   repository    the manifest snapshots (RepositoryStore.h); a backup is named by its
//                 manifest snapshot id or a unique prefix.
// Errors never throw; a false return comes with one line naming the cause.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Manifest.h"
#include "Progress.h"
#include "storage/Restic.h"

namespace hxagent {

struct CatalogueEntry {
    std::string id;            // folder path, or the manifest snapshot's id
    std::string time;          // UTC, ISO 8601
    std::string instanceId;
    int disks = 0;
    std::uint64_t logicalBytes = 0;  // sum of the disks' sizes
    std::uint64_t addedBytes = 0;    // repository: new data the backup added (restic's data_added,
                                     // before compression); folder: non-zero bytes stored
    std::string host;                // repository: the proxy that wrote it
};

// Where the catalogue looks: a folder, or a repository.
struct CatalogueSource {
    std::string folder;                        // set for a plain folder
    std::optional<RepositoryLocation> repository;  // set for a repository
};

// Every complete backup, oldest first, optionally of one instance only.
bool ListBackups(const CatalogueSource& source, const std::string& instance, std::vector<CatalogueEntry>& out,
                 std::string& error);

// The manifest of one backup (a folder path, or a snapshot id with a repository).
bool DescribeBackup(const CatalogueSource& source, const std::string& backup, Manifest& out, std::string& error);

// Reads every byte of every disk back and checks sizes and SHA-256 against the manifest;
// for a repository, restic's own structure check runs first. `checks` lists what was
// checked ("disk d-1: ok"); false with `error` at the first damage found.
bool VerifyStoredBackup(const CatalogueSource& source, const std::string& backup, Progress& progress,
                        std::vector<std::string>& checks, std::string& error);

// restic's keep rules, as its forget command spells them.
struct KeepPolicy {
    int last = 0, hourly = 0, daily = 0, weekly = 0, monthly = 0;
    bool empty() const { return !last && !hourly && !daily && !weekly && !monthly; }
};

struct ForgetOutcome {
    std::vector<CatalogueEntry> kept, removed;
    std::size_t partsRemoved = 0;  // disk and configuration snapshots forgotten with them
    bool pruned = false;
};

// Applies `policy` per instance to the backups of a repository (restic decides which to
// keep); forgets each removed backup's manifest first (it leaves the catalogue at once),
// then its parts; then runs restic prune when asked. Nothing changes with `dryRun`.
bool ForgetBackups(const RepositoryLocation& where, const KeepPolicy& policy, const std::string& instance, bool prune,
                   bool dryRun, ForgetOutcome& out, std::string& error);

}  // namespace hxagent
