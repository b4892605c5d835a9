// `hxagent cleanup`: removes what interrupted jobs of this proxy left, in the cloud and on
// this machine. Four passes, each enough for what it covers:
//   1. the ownership-tag sweep: every object tagged for this proxy by a job whose process
//      is gone (OwnershipSweep.h), in dependency order; this also frees what an unregistered
//      object pinned (an image holding a registered snapshot, a disk attached to a half-made
//      instance);
//   2. the cleaner store (the runtime's VMCleaner, keyed by the proxy's instance id): a
//      registered object that exists but lacks this proxy's ownership tags is never
//      deleted; its entry is dropped and reported;
//   3. the plug-in's CleanupVM / CleanupRestoreVM for every orphaned job of the store;
//   4. killed jobs' work folders and manifest-less backup folders (JobRecords.h).
// Both the store and the tags are read again at the end: anything left is named, with its
// cause, and makes the command fail, so "exit 0" means nothing is left. A second run never
// fails on an object the first removed. Jobs of running processes are never touched.
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

// One cloud object of the tag sweep, or one local leftover.
struct CleanupItem {
    std::string kind;   // "instance", "disk", "snapshot", "image", or a local kind ("work folder", ...)
    std::string id;     // cloud id or path
    std::string detail; // role and job, or why it was left alone
};

struct CleanupOutcome {
    bool ok = false;
    JobFailure failure;
    std::string proxyId;
    std::vector<CleanupOrphan> orphans;   // jobs of the cleaner store
    std::vector<CleanupItem> tagged;      // removed (or, dry run, to remove) by the tag sweep
    std::vector<CleanupItem> registered;  // this proxy's objects the store names for its orphaned
                                          // jobs (the plug-in's pass removes them), not tagged above
    std::vector<CleanupItem> leftAlone;   // registered but not this proxy's; entry dropped
    std::vector<CleanupItem> local;       // work and partial backup folders removed
    std::vector<std::string> remaining;   // what is still there after the run, with its cause
};

CleanupOutcome RunCleanup(AgentContext& context, bool dryRun, Progress& progress);
nlohmann::json CleanupOutcomeJson(const CleanupOutcome& outcome);
void PrintCleanupOutcome(const CleanupOutcome& outcome, bool dryRun);

}  // namespace hxagent
