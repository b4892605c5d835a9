// The ownership-tag sweep as hxagent runs it: which tagged objects are leftovers, and
// removing them through hxbridge::HostBridge.
//
// Every object the bridge creates for a job carries the job and the process that ran it
// (bridge/ownership.h). An object is a leftover when
//   - DeadJobs: its process no longer runs (the job was killed, or crashed); objects of
//     running jobs, this one included, are never touched;
//   - ThisJob: it belongs to the job that is ending now (its own teardown missed it: a
//     failed wait, a failed delete).
// Objects without a job tag (older versions, other tools) are never selected. HostBridge
// re-checks each object's ownership tags before it acts, whatever was selected.
#pragma once

#include <string>
#include <vector>

#include "hxbridge/HostBridge.h"

namespace hxagent {

enum class SweepScope { DeadJobs, ThisJob };

struct SweepOutcome {
    bool ok = true;                               // nothing failed
    std::vector<hxbridge::OwnedObject> selected;  // the leftovers found (what a dry run lists)
    std::vector<hxbridge::OwnedObject> removed;
    std::vector<std::string> failures;            // "<kind> <id>: <cause>"
    std::vector<std::string> kept;                // "<kind> <id>: <why left alone>"
    std::string error;                            // listing failed: the cause
};

// `selfOwner` is this process's tag (hxruntime::CurrentProcessTag), `selfJob` its job id.
SweepOutcome SweepOwnedObjects(hxbridge::HostBridge& cloud, const std::string& regionId, SweepScope scope,
                               const std::string& selfOwner, const std::string& selfJob, bool dryRun);

// "disk d-1 (restore-disk of job 17)": how a message names an object.
std::string DescribeOwned(const hxbridge::OwnedObject& o);

class AgentContext;
class Progress;

// Start of a job: removes what killed jobs of this proxy left in its region, when the state
// folder shows a reason to look (a killed job's record, or a sweep that could not finish; see
// the .cpp). A problem becomes a warning: the job itself can still run.
void SweepBeforeJob(AgentContext& context, Progress& progress, std::vector<std::string>& warnings);
// End of a job step that was not clean (`jobClean` false: it failed, or warned): removes what
// this step's own teardown left (a failed wait, a failed delete). What cannot be removed
// becomes a warning with the `cleanup` hint, and makes the next job sweep first.
void SweepAfterJob(AgentContext& context, long long jobIdOffset, bool jobClean, Progress& progress,
                   std::vector<std::string>& warnings);

}  // namespace hxagent
