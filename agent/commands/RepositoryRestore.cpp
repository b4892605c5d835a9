#include "commands/RepositoryRestore.h"

#include <memory>

#include "storage/RepositoryCleanup.h"
#include "storage/RepositoryStore.h"

namespace hxagent {

bool LoadRepositoryBackup(const RepositoryOptions& repo, RestoreRequest& request, Manifest& manifest,
                          std::string& configText, std::string& error) {
    Restic restic;
    auto where = repo.Location(false);
    if (!where || !Restic::Locate(*where, restic, error)) {
        if (!where) error = "no repository given";
        return false;
    }
    auto stored = std::make_shared<StoredBackup>();
    if (!StoredBackup::Load(restic, request.backupFolder, *stored, error)) return false;
    manifest = stored->manifest();
    configText = stored->configText();
    request.stored = std::move(stored);
    return true;
}

void AddRepositoryCleanup(AgentContext& context, const std::optional<RepositoryLocation>& repository, bool dryRun,
                          CleanupOutcome& out) {
    RepositoryCleanupOutcome repo = CleanRepositories(context.stateDir(), repository, out.proxyId, dryRun);
    out.local.insert(out.local.end(), repo.removed.begin(), repo.removed.end());
    if (repo.remaining.empty()) return;
    out.remaining.insert(out.remaining.end(), repo.remaining.begin(), repo.remaining.end());
    if (out.ok) {
        out.ok = false;
        out.failure = LocalFailure(std::to_string(repo.remaining.size()) + " repository leftover(s) could not be removed",
                                   kExitPluginFailed);
    }
    for (const auto& r : repo.remaining) out.failure.details += (out.failure.details.empty() ? "" : "; ") + r;
}

}  // namespace hxagent
