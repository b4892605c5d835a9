// The repository parts of the restore and cleanup commands.
#pragma once

#include <optional>
#include <string>

#include "CleanupJob.h"
#include "Manifest.h"
#include "RestoreJob.h"
#include "commands/CatalogueCommands.h"

namespace hxagent {

// Finds backup `request.backupFolder` (a backup id) in the repository, reads its manifest
// and configuration document, and points `request.stored` at it. No disk data is read.
// False with `error` (restic missing, no such backup, unreadable manifest).
bool LoadRepositoryBackup(const RepositoryOptions& repo, RestoreRequest& request, Manifest& manifest,
                          std::string& configText, std::string& error);

// Adds the repository pass (stale locks, unfinished backups; RepositoryCleanup.h) to a
// cleanup's outcome; what cannot be cleaned makes the cleanup fail.
void AddRepositoryCleanup(AgentContext& context, const std::optional<RepositoryLocation>& repository, bool dryRun,
                          CleanupOutcome& out);

}  // namespace hxagent
