// hxagent backups inside a restic repository.
//
// How one backup maps onto restic snapshots (restic 0.14 stores one file per `--stdin`
// snapshot, and there is no FUSE-free way to add files to a snapshot after the fact):
//
//   one snapshot per disk      /<instance id>/<disk id>.img           tag hxpart:disk
//   one for the config doc     /<instance id>/<config file name>      tag hxpart:config
//   one for the manifest       /<instance id>/manifest.json           tag hxpart:manifest
//
// All parts of one backup carry the tags `hxagent`, `hxbackup:<key>` (unique per backup),
// `hxinstance:<instance id>` and `hxowner:<process tag>`, and the proxy's instance id as
// restic's host. The manifest names the snapshot of every disk and of the configuration
// document and is written LAST, only once every other part is stored: the catalogue lists
// manifest snapshots and nothing else, so a backup becomes visible only when it is complete.
// A killed job leaves part snapshots without a manifest: invisible, and removed by
// `hxagent cleanup` (SweepPartialBackups) once their owner process is gone. The manifest
// snapshot also carries the catalogue's numbers as tags (hxdisks:, hxsize:, hxadded:) because
// restic 0.14's snapshot list has no statistics.
//
// Disk and configuration snapshots carry a fixed time (2000-01-01): restic stores a --stdin
// file's time in its metadata, and a fixed one lets an unchanged disk's content list be
// deduplicated too, so a second backup of an unchanged instance adds a few hundred bytes.
//
// A backup is named by its manifest snapshot id (or a unique prefix, as restic accepts).
// forget groups manifest snapshots by path, i.e. by instance, so the keep rules apply per
// instance, and removes each forgotten backup's parts with it.
//
// Concurrency: restic's backup takes a shared lock, so several proxies may write into one
// repository at the same time; forget, prune and check take restic's exclusive lock.
// Errors never throw; every failure text names the restic command and restic's reason.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "DataMover.h"
#include "Manifest.h"
#include "storage/Restic.h"

namespace hxagent {

struct RepoSnapshot {
    std::string id, shortId, time, host;
    std::vector<std::string> paths, tags;
    // The value of the first tag "<prefix>:<value>", or "".
    std::string Tag(const std::string& prefix) const;
};

// Snapshots carrying every tag of `tags`; false with `error`.
bool ListSnapshots(const Restic& restic, const std::vector<std::string>& tags, std::vector<RepoSnapshot>& out,
                   std::string& error);
bool ParseSnapshots(const std::string& json, std::vector<RepoSnapshot>& out, std::string& error);

// Checks that the repository exists (restic cat config); creates it, compressed (format
// version 2), when it does not and `create` is set. False with `error`.
bool OpenRepository(const Restic& restic, bool create, std::string& error);

// One backup being written. Not thread-safe.
class RepositoryWriter {
public:
    RepositoryWriter(const Restic& restic, std::string instanceId, std::string host, std::string ownerTag,
                     std::string key);
    // Streams a disk into its snapshot (SHA-256 in the same pass). On success `snapshot` is
    // the new snapshot's id and `added` the bytes restic added to the repository.
    MoveResult PutDisk(const std::string& device, std::uint64_t size, const std::string& image,
                       const MoveOptions& options, std::string& snapshot, std::uint64_t& added);
    // Stores the configuration document (a local file) as the config part.
    bool PutConfig(const std::string& path, const std::string& name, std::string& snapshot, std::string& error);
    // Writes the manifest snapshot, the one that makes the backup visible. Fills
    // m.repository (the key) before it is serialised; `snapshot` is the backup's id.
    bool Commit(Manifest& m, std::string& snapshot, std::string& error);
    // After a failure: forgets the parts written so far (best effort; cleanup does the rest).
    void Abandon();
    std::uint64_t added() const { return added_; }
    const std::string& key() const { return key_; }

private:
    bool Put(const std::string& file, const std::string& part, const std::vector<std::string>& extraTags,
             const std::function<bool(int fd, std::string& error)>& feed, std::string& snapshot, std::uint64_t& added,
             std::string& error);
    const Restic& restic_;
    std::string instanceId_, host_, ownerTag_, key_;
    std::vector<std::string> parts_;
    std::uint64_t added_ = 0;
};

// A complete backup found in a repository: its manifest and where its parts are.
class StoredBackup {
public:
    // Finds the manifest snapshot `id` (full id or unique prefix) and reads the manifest and
    // the configuration document. False with `error` when either is missing or unreadable.
    static bool Load(const Restic& restic, const std::string& id, StoredBackup& out, std::string& error);
    const Manifest& manifest() const { return manifest_; }
    const std::string& configText() const { return configText_; }
    const RepoSnapshot& snapshot() const { return snapshot_; }
    // Streams a disk from the repository onto `target` ("" = only read and hash), checking
    // size and the manifest's digest in the same pass; a mismatch fails the move.
    MoveResult ReadDisk(const ManifestDisk& disk, const std::string& target, const MoveOptions& options) const;

private:
    Restic restic_;
    RepoSnapshot snapshot_;
    Manifest manifest_;
    std::string configText_;
};

// Runs `restic dump SNAPSHOT PATH` and returns the file's text (small files only).
bool DumpText(const Restic& restic, const std::string& snapshot, const std::string& path, std::string& text,
              std::string& error);

// A new backup key: "<job stamp>-<8 random hex digits>".
std::string NewBackupKey(const std::string& jobStamp);

}  // namespace hxagent
