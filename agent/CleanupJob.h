// `hxagent cleanup`: removes what interrupted jobs of this proxy left in the cloud.
//
// How: the cleaner store (the runtime's VMCleaner, keyed by the proxy's instance id) lists
// the orphaned root entities, i.e. jobs whose process is gone. For each backup orphan the
// plug-in's CleanupVM runs (detach, delete the disk copies and snapshots, unregister); for
// each restore orphan its CleanupRestoreVM (images, disks, snapshots, unregister). The
// store is listed again afterwards: anything still there is reported and makes the command
// fail, so "exit 0" means nothing is left. Jobs of running processes are never touched.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Session.h"

namespace hxagent {

struct CleanupOrphan {
    std::string id;    // instance id (backup) or temporary restore id
    std::string mode;  // "backup" | "restore"
    bool removed = false;
    std::string error; // when not removed
};

struct CleanupOutcome {
    bool ok = false;
    JobFailure failure;
    std::string proxyId;
    std::vector<CleanupOrphan> orphans;
    std::vector<std::string> remaining;  // ids still registered after the run
};

CleanupOutcome RunCleanup(AgentContext& context, bool dryRun, Progress& progress);
nlohmann::json CleanupOutcomeJson(const CleanupOutcome& outcome);
void PrintCleanupOutcome(const CleanupOutcome& outcome, bool dryRun);

}  // namespace hxagent
