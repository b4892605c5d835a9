#include "OwnershipSweep.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "JobRecords.h"
#include "Session.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;

namespace {

bool Selected(const hxbridge::OwnedObject& o, SweepScope scope, const std::string& selfOwner,
              const std::string& selfJob) {
    if (o.owner.empty() || o.job.empty()) return false;
    if (scope == SweepScope::ThisJob) return o.owner == selfOwner && o.job == selfJob;
    return o.owner != selfOwner && !hxruntime::IsProcessTagRunning(o.owner);
}

}  // namespace

std::string DescribeOwned(const hxbridge::OwnedObject& o) {
    std::string text = o.kind + " " + o.id;
    if (!o.role.empty() || !o.job.empty())
        text += " (" + (o.role.empty() ? o.kind : o.role) + (o.job.empty() ? "" : " of job " + o.job) + ")";
    return text;
}

SweepOutcome SweepOwnedObjects(hxbridge::HostBridge& cloud, const std::string& regionId, SweepScope scope,
                               const std::string& selfOwner, const std::string& selfJob, bool dryRun) {
    SweepOutcome out;
    std::vector<hxbridge::OwnedObject> owned;
    if (!cloud.ListOwned(regionId, owned)) {
        out.ok = false;
        out.error = "cannot list the objects tagged for this proxy in " + regionId + ": " + cloud.LastError();
        return out;
    }
    for (const auto& o : owned)
        if (Selected(o, scope, selfOwner, selfJob)) out.selected.push_back(o);
    if (dryRun || out.selected.empty()) return out;
    hxbridge::RemovalReport report;
    out.ok = cloud.Remove(out.selected, report);
    out.removed = std::move(report.removed);
    out.failures = std::move(report.failures);
    out.kept = std::move(report.kept);
    if (!out.ok && out.failures.empty()) out.failures.push_back("the removal failed: " + cloud.LastError());
    return out;
}

namespace {

fs::path SweepMarker(const AgentContext& context) { return fs::path(context.stateDir()) / "sweep-pending"; }

// Leaves the marker that makes the next job sweep (see SweepWarranted).
void MarkSweepPending(const AgentContext& context) {
    std::ofstream(SweepMarker(context)) << "an ownership sweep could not finish; the next job sweeps again\n";
}

// True when the sweep listed and removed everything it selected.
bool Sweep(AgentContext& context, SweepScope scope, long long jobIdOffset, Progress& progress,
           std::vector<std::string>& warnings) {
    JobFailure failure;
    VMInfoStructs::SVMInfo proxy;
    hxbridge::HostBridge* cloud = context.Cloud(failure);
    if (!cloud || !context.Proxy(proxy, failure)) {
        warnings.push_back("no ownership sweep: " + FormatFailure(failure));
        MarkSweepPending(context);
        return false;
    }
    SweepOutcome out = SweepOwnedObjects(*cloud, proxy.regionId, scope, context.OwnerTag(),
                                         context.JobTag(jobIdOffset), false);
    if (!out.error.empty()) {
        warnings.push_back(out.error + "; run 'hxagent cleanup' later");
        MarkSweepPending(context);
        return false;
    }
    for (const auto& o : out.removed)
        progress.Note("Removed " + DescribeOwned(o) + (scope == SweepScope::DeadJobs ? ", left by a killed job" : ""));
    for (const auto& f : out.failures) warnings.push_back("could not remove " + f + "; run 'hxagent cleanup'");
    if (!out.failures.empty()) MarkSweepPending(context);
    return out.failures.empty();
}

}  // namespace

// Why the start-of-job sweep runs only sometimes: listing costs four Describe calls per job,
// and what it looks for (objects of a killed job of this proxy, objects an earlier sweep could
// not remove) leaves a trace in the state folder: the killed job's record (kept until
// `cleanup`), or the marker a sweep leaves when it could not list or remove everything. Without
// either there is nothing to find, so the job does not ask. A job killed under another state
// folder on the same proxy leaves no trace here: its objects wait for `cleanup`, or for the next
// job of that folder.
bool SweepWarranted(const AgentContext& context) {
    std::error_code ec;
    if (fs::exists(SweepMarker(context), ec)) return true;
    return !ReapKilledJobs(context.stateDir(), /*dryRun=*/true).removed.empty();
}

void SweepBeforeJob(AgentContext& context, Progress& progress, std::vector<std::string>& warnings) {
    if (!SweepWarranted(context)) return;
    if (Sweep(context, SweepScope::DeadJobs, 0, progress, warnings)) {
        std::error_code ec;
        fs::remove(SweepMarker(context), ec);
    }
}

// Why the end-of-job sweep runs only after a failure: a job step that succeeded has deleted
// everything its teardown registered, each deletion confirmed by ECS no longer listing the
// object, and an object the registry cannot know (a create whose answer was lost for good, a
// failed wait) always fails the step. So a clean job leaves nothing to sweep.
void SweepAfterJob(AgentContext& context, long long jobIdOffset, bool jobClean, Progress& progress,
                   std::vector<std::string>& warnings) {
    if (jobClean) return;
    Sweep(context, SweepScope::ThisJob, jobIdOffset, progress, warnings);
}

}  // namespace hxagent
