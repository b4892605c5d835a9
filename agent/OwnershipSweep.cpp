#include "OwnershipSweep.h"

#include "Session.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

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

void Sweep(AgentContext& context, SweepScope scope, long long jobIdOffset, Progress& progress,
           std::vector<std::string>& warnings) {
    JobFailure failure;
    VMInfoStructs::SVMInfo proxy;
    hxbridge::HostBridge* cloud = context.Cloud(failure);
    if (!cloud || !context.Proxy(proxy, failure)) {
        warnings.push_back("no ownership sweep: " + FormatFailure(failure));
        return;
    }
    SweepOutcome out = SweepOwnedObjects(*cloud, proxy.regionId, scope, context.OwnerTag(),
                                         context.JobTag(jobIdOffset), false);
    if (!out.error.empty()) {
        warnings.push_back(out.error + "; run 'hxagent cleanup' later");
        return;
    }
    for (const auto& o : out.removed)
        progress.Note("Removed " + DescribeOwned(o) + (scope == SweepScope::DeadJobs ? ", left by a killed job" : ""));
    for (const auto& f : out.failures) warnings.push_back("could not remove " + f + "; run 'hxagent cleanup'");
}

}  // namespace

void SweepBeforeJob(AgentContext& context, Progress& progress, std::vector<std::string>& warnings) {
    Sweep(context, SweepScope::DeadJobs, 0, progress, warnings);
}

void SweepAfterJob(AgentContext& context, long long jobIdOffset, Progress& progress,
                   std::vector<std::string>& warnings) {
    Sweep(context, SweepScope::ThisJob, jobIdOffset, progress, warnings);
}

}  // namespace hxagent
