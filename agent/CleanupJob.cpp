#include "CleanupJob.h"

#include <iostream>

#include "JobRecords.h"
#include "OwnershipSweep.h"
#include "VMCleaner.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

using nlohmann::json;

namespace {

bool ListOrphans(VMCleaner& store, VM_Cleaner_Mode mode, std::vector<CleanerEntity>& out) {
    return store.GetOrphanedRootEntityListByType(mode, VM_CLEANER_ENTITY_VM, "", out);
}

bool ListAllOrphans(VMCleaner& store, std::vector<CleanerEntity>& backups, std::vector<CleanerEntity>& restores) {
    return ListOrphans(store, VM_CLEANER_MODE_BACKUP, backups) && ListOrphans(store, VM_CLEANER_MODE_RESTORE, restores);
}

CleanupItem ItemOf(const hxbridge::OwnedObject& o) {
    return {o.kind, o.id, (o.role.empty() ? o.kind : o.role) + (o.job.empty() ? "" : " of job " + o.job)};
}

// Pass 1: the ownership-tag sweep of killed jobs.
void TagPass(hxbridge::HostBridge& cloud, AgentContext& context, const std::string& region, bool dryRun,
             CleanupOutcome& out, Progress& progress) {
    progress.Step("Looking for objects of killed jobs tagged for this proxy...");
    SweepOutcome sweep = SweepOwnedObjects(cloud, region, SweepScope::DeadJobs, context.OwnerTag(), "", dryRun);
    if (!sweep.error.empty()) {
        out.remaining.push_back(sweep.error);
        return;
    }
    for (const auto& o : dryRun ? sweep.selected : sweep.removed) out.tagged.push_back(ItemOf(o));
    for (const auto& f : sweep.failures) out.remaining.push_back(f);
}

// Pass 2: registry entries naming objects that are not this proxy's are dropped, never
// acted on: a stray or forged row must not make the plug-in delete somebody's snapshot.
// The proxy's own registered objects that the tag sweep did not already cover are listed
// in `registered`, so a dry run names every object the cleanup would remove.
void DropForeignEntries(VMCleaner& store, hxbridge::HostBridge& cloud, const std::vector<CleanerEntity>& roots,
                        bool dryRun, CleanupOutcome& out) {
    static const std::pair<VM_Cleaner_EntityType, const char*> kKinds[] = {
        {VM_CLEANER_ENTITY_SNAPSHOT, "snapshot"}, {VM_CLEANER_ENTITY_DISK, "disk"}, {VM_CLEANER_ENTITY_TEMPLATE, "image"}};
    for (const auto& root : roots) {
        for (const auto& [type, kind] : kKinds) {
            std::vector<CleanerEntity> items;
            if (!store.FillItemsFromCleanerPath(root.cleanerPath, type, items)) continue;
            for (const auto& item : items) {
                bool exists = false, owned = false;
                if (!cloud.Ownership(kind, item.entityId, exists, owned)) {
                    out.remaining.push_back(std::string(kind) + " " + item.entityId +
                                            ": cannot check its ownership: " + cloud.LastError());
                    continue;
                }
                if (!exists) continue;
                if (owned) {
                    const bool swept = std::any_of(out.tagged.begin(), out.tagged.end(),
                                                   [&](const CleanupItem& t) { return t.id == item.entityId; });
                    if (!swept)
                        out.registered.push_back({kind, item.entityId, "registered by the job of " + root.entityId});
                    continue;
                }
                out.leftAlone.push_back({kind, item.entityId,
                                         "registered by job " + root.entityId +
                                             " but not tagged as this proxy's; left alone, entry dropped"});
                if (!dryRun) store.UnRegisterEntity(item.cleanerPath, false);
            }
        }
    }
}

// Pass 3: the plug-in's own cleanup of every orphaned job of the store.
void PluginPass(CVMInfo& vm, CleanupOutcome& out, Progress& progress) {
    for (auto& o : out.orphans) {
        if (hxruntime::IsCancelRaised()) break;
        progress.Step("Removing what the interrupted " + o.mode + " job of " + o.id + " left...");
        int done = 0;
        if (o.mode == "backup") {
            MountCtx ctx;
            ctx.vmName = o.id;
            ctx.vmGuid = o.id;
            ctx.vmInfo.guid = o.id;
            done = vm.CleanupVM(ctx);
        } else {
            RestoreCtx ctx;
            ctx.restoreFlavor = 1;
            ctx.tempVMId = o.id;
            done = vm.CleanupRestoreVM(ctx);
        }
        o.removed = done == 1;
        if (!o.removed) {
            o.error = vm.GetLastVMError() == 0
                          ? vm.GetLastVMErrorDetails()
                          : "error " + std::to_string(vm.GetLastVMError()) + " (" +
                                EVMInfoErrorText(vm.GetLastVMError()) + ")" +
                                (vm.GetLastVMErrorDetails().empty() ? "" : ": " + vm.GetLastVMErrorDetails());
        }
    }
}

// The end state decides the result, whatever each pass answered: what is still registered,
// and what is still tagged for a killed job.
bool Verify(VMCleaner& store, hxbridge::HostBridge& cloud, AgentContext& context, const std::string& region,
            CleanupOutcome& out) {
    std::vector<CleanerEntity> backups, restores;
    if (!ListAllOrphans(store, backups, restores)) {
        out.failure = LocalFailure("cannot read the cleaner store after the cleanup");
        return false;
    }
    std::vector<std::string> still;
    for (const auto* list : {&backups, &restores})
        for (const auto& e : *list) still.push_back(e.entityId);
    for (auto& o : out.orphans) {
        const bool registered = std::find(still.begin(), still.end(), o.id) != still.end();
        if (!registered) {
            o.removed = true;
            o.error.clear();
        } else {
            o.removed = false;
            out.remaining.push_back(o.mode + " job " + o.id + ": " + (o.error.empty() ? "still registered" : o.error));
        }
    }
    SweepOutcome left = SweepOwnedObjects(cloud, region, SweepScope::DeadJobs, context.OwnerTag(), "", true);
    for (const auto& o : left.selected) {
        const std::string name = o.kind + " " + o.id;
        const bool named = std::any_of(out.remaining.begin(), out.remaining.end(),
                                       [&](const std::string& r) { return r.rfind(name, 0) == 0; });
        if (!named) out.remaining.push_back(name + ": still there");
    }
    return true;
}

}  // namespace

CleanupOutcome RunCleanup(AgentContext& context, bool dryRun, Progress& progress) {
    CleanupOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    CVMInfo& vm = session->vm();
    SVMInfo proxy;
    if (!context.Proxy(proxy, out.failure)) return out;
    hxbridge::HostBridge* cloud = context.Cloud(out.failure);
    if (!cloud) return out;
    out.proxyId = proxy.guid;

    VMCleaner store;
    if (!store.Init(proxy.guid, 0)) {
        out.failure = LocalFailure("cannot open the cleaner store " + hxruntime::GetCleanerDatabasePath());
        return out;
    }
    TagPass(*cloud, context, proxy.regionId, dryRun, out, progress);

    std::vector<CleanerEntity> backups, restores;
    if (!ListAllOrphans(store, backups, restores)) {
        out.failure = LocalFailure("cannot read the cleaner store " + hxruntime::GetCleanerDatabasePath());
        return out;
    }
    for (const auto& e : backups) out.orphans.push_back({e.entityId, "backup", false, {}});
    for (const auto& e : restores) out.orphans.push_back({e.entityId, "restore", false, {}});
    std::vector<CleanerEntity> roots = backups;
    roots.insert(roots.end(), restores.begin(), restores.end());
    DropForeignEntries(store, *cloud, roots, dryRun, out);

    for (const auto& r : ReapKilledJobs(context.stateDir(), dryRun).removed) {
        const auto space = r.rfind(' ');
        out.local.push_back({r.substr(0, space), r.substr(space + 1), ""});
    }
    if (dryRun) {
        out.ok = true;
        return out;
    }
    PluginPass(vm, out, progress);
    if (!Verify(store, *cloud, context, proxy.regionId, out)) return out;
    if (!out.remaining.empty()) {
        out.failure = LocalFailure(std::to_string(out.remaining.size()) + " leftover(s) could not be removed",
                                   kExitPluginFailed);
        for (const auto& r : out.remaining) out.failure.details += (out.failure.details.empty() ? "" : "; ") + r;
        context.KeepState();
        return out;
    }
    store.PostAllVMCleanup();
    out.ok = true;
    return out;
}

json CleanupOutcomeJson(const CleanupOutcome& o) {
    json orphans = json::array(), tagged = json::array(), registered = json::array(), leftAlone = json::array(),
         local = json::array();
    for (const auto& x : o.orphans)
        orphans.push_back({{"id", x.id}, {"mode", x.mode}, {"removed", x.removed}, {"error", x.error}});
    auto items = [](const std::vector<CleanupItem>& from, json& to) {
        for (const auto& i : from) to.push_back({{"kind", i.kind}, {"id", i.id}, {"detail", i.detail}});
    };
    items(o.tagged, tagged);
    items(o.registered, registered);
    items(o.leftAlone, leftAlone);
    items(o.local, local);
    json j = {{"ok", o.ok},           {"proxyId", o.proxyId},     {"orphans", orphans},
              {"tagged", tagged},     {"registered", registered}, {"leftAlone", leftAlone},
              {"local", local},       {"remaining", o.remaining}};
    if (!o.ok) j["error"] = {{"code", o.failure.code}, {"message", FormatFailure(o.failure)}};
    return j;
}

void PrintCleanupOutcome(const CleanupOutcome& o, bool dryRun) {
    if (!o.ok && o.proxyId.empty()) return;
    if (o.orphans.empty() && o.tagged.empty() && o.registered.empty() && o.leftAlone.empty() && o.local.empty() &&
        o.remaining.empty()) {
        std::cout << "Nothing to clean up for proxy " << o.proxyId << ".\n";
        return;
    }
    const char* verb = dryRun ? "would remove" : "removed";
    for (const auto& i : o.tagged) std::cout << "  " << verb << " " << i.kind << " " << i.id << " (" << i.detail << ")\n";
    if (dryRun)  // in a real run the job lines below say how the plug-in's removal went
        for (const auto& i : o.registered)
            std::cout << "  " << verb << " " << i.kind << " " << i.id << " (" << i.detail << ")\n";
    for (const auto& x : o.orphans)
        std::cout << "  " << x.mode << " job of " << x.id << ": "
                  << (dryRun ? "left behind" : x.removed ? "removed" : "NOT removed: " + x.error) << "\n";
    for (const auto& i : o.leftAlone) std::cout << "  " << i.kind << " " << i.id << ": " << i.detail << "\n";
    for (const auto& i : o.local) std::cout << "  " << verb << " " << i.kind << " " << i.id << "\n";
    if (o.ok && !dryRun) std::cout << "Cleaned up; nothing is left.\n";
}

}  // namespace hxagent
