// `hxagent restore BACKUP --name NAME`: the framework's restore job.
//
//   check the backup's files: sizes, configuration document, a system disk (nothing in the
//   cloud is touched before) -> InitRestoreVM (empty disks in the proxy's zone, attached to
//   the proxy; the plug-in writes each device path into ctx.disks[i]) -> write each image
//   onto its device, checking its digest in the same pass (a mismatch fails the job before
//   any image or instance is built, and the teardown removes the disks) ->
//   PreRestoreVM (detach) -> RestoreVM (image from the system disk, instance, data disks)
//   -> PostRestoreVM (power-on, temporary objects removed).
// CleanupRestoreVM runs after any failure or Ctrl-C once InitRestoreVM was called.
//
// The plug-in reads the first *.json of ctx.restorePath as the instance's configuration;
// the backup folder also holds manifest.json, so the restore hands the plug-in a private
// folder holding a copy of the configuration document alone.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Manifest.h"
#include "Session.h"
#include "storage/RepositoryStore.h"

namespace hxagent {

struct RestoreRequest {
    std::string backupFolder;
    std::string name;          // name of the new instance
    std::string region, zone;  // destination; default: the backed-up instance's
    std::string instanceType;  // replaces the backed-up type when set
    bool powerOn = false;
    bool overwrite = false;
    // Set: the backup is read from a repository (disks streamed, each checked against its
    // digest in the same pass) and backupFolder is unused.
    std::shared_ptr<const StoredBackup> stored;
};

struct RestoredDisk {
    std::string sourceId;  // disk id in the backup
    std::string newId;     // the disk created for it
    bool isOSDisk = false;
    std::uint64_t size = 0;
};

struct RestoreOutcome {
    bool ok = false;
    JobFailure failure;
    std::string instanceId;  // the new instance
    std::string tempVMId;    // the id the restore was registered under with the cleaner
    std::string name;
    std::vector<RestoredDisk> disks;
    double seconds = 0;
    std::vector<std::string> warnings;
};

// Checks what can be checked without reading the images: the configuration file, the
// images' sizes, a system disk. False with `error`.
bool CheckBackupFiles(const std::string& folder, const Manifest& m, std::string& error);
// CheckBackupFiles, then every image's digest against the manifest; false with `error`.
bool VerifyBackup(const std::string& folder, const Manifest& m, Progress& progress, std::string& error);

// Runs one restore with a fresh plug-in object of `context`; the backup's files must have
// been checked (CheckBackupFiles). Each image's digest is checked as it is written.
RestoreOutcome RunRestore(AgentContext& context, const Manifest& manifest, const RestoreRequest& request,
                          Progress& progress, long long jobIdOffset = 0);

nlohmann::json RestoreOutcomeJson(const RestoreOutcome& outcome);
void PrintRestoreOutcome(const RestoreOutcome& outcome);

// The RestoreCtx disks of a manifest (diskType 1, sizes, category, destination zone).
std::vector<SDisk> RestoreDisksFromManifest(const Manifest& m, const std::string& zone);

}  // namespace hxagent
