// `hxagent backup INSTANCE --to DIR`: the framework's backup job.
//
//   MountVM (snapshots, disks from snapshots, configuration file) -> GetFullMountInfo ->
//   per disk: OpenVmdk (attach to the proxy), GetVmdkInfo, read the device into a sparse
//   image, CloseVmdk -> copy the configuration file -> UnmountVM -> manifest.json.
//
// UnmountVM runs whenever MountVM was called, also after a failure or Ctrl-C. The result is
// DIR/<instance id>/<job stamp>/ with <disk id>.img per disk, the configuration document
// and manifest.json (written last, atomically). A failed backup removes its folder.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Manifest.h"
#include "Session.h"
#include "storage/Restic.h"

namespace hxagent {

struct BackupRequest {
    std::string instance;                   // id ("i-...") or exact name
    std::string destination;                // DIR
    std::vector<std::string> excludedDisks; // ids, names or glob patterns
    // Set: stream into this restic repository instead of DIR (storage/RepositoryStore.h).
    bool toRepository = false;
    RepositoryLocation repository;
    bool createRepository = false;          // --init: create the repository when missing
};

struct BackupOutcome {
    bool ok = false;
    JobFailure failure;
    std::string folder;    // the backup folder (when ok)
    std::string backupId;  // repository backups: the id to restore, describe, verify
    std::string repository;       // repository backups: the repository, without secrets
    std::uint64_t addedBytes = 0; // repository backups: what the backup added to the repository
    Manifest manifest;
    std::vector<std::string> warnings;
};

// Runs one backup with a fresh plug-in object of `context`.
BackupOutcome RunBackup(AgentContext& context, const BackupRequest& request, Progress& progress,
                        long long jobIdOffset = 0);

nlohmann::json BackupOutcomeJson(const BackupOutcome& outcome);
void PrintBackupOutcome(const BackupOutcome& outcome);

// Name under which the plug-in's configuration file entry is kept: the part after the
// last backslash or slash of the plug-in's path (the plug-in joins with a backslash).
std::string CleanConfigFileName(const std::string& devicePath, const std::string& instanceId);

}  // namespace hxagent
