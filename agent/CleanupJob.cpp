#include "CleanupJob.h"

#include <iostream>

#include "VMCleaner.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

using nlohmann::json;

namespace {

bool ListOrphans(VMCleaner& store, VM_Cleaner_Mode mode, std::vector<CleanerEntity>& out) {
    return store.GetOrphanedRootEntityListByType(mode, VM_CLEANER_ENTITY_VM, "", out);
}

}  // namespace

CleanupOutcome RunCleanup(AgentContext& context, bool dryRun, Progress& progress) {
    CleanupOutcome out;
    auto session = context.OpenPlugin(out.failure);
    if (!session) return out;
    CVMInfo& vm = session->vm();

    SVMInfo proxy;
    if (vm.GetLocalVMInfo(proxy, 0, 0) != 1 || proxy.guid.empty()) {
        out.failure = PluginFailure(vm, "GetLocalVMInfo", "cannot tell which proxy this is");
        return out;
    }
    out.proxyId = proxy.guid;

    VMCleaner store;
    if (!store.Init(proxy.guid, 0)) {
        out.failure = LocalFailure("cannot open the cleaner store " + hxruntime::GetCleanerDatabasePath());
        return out;
    }
    std::vector<CleanerEntity> backups, restores;
    if (!ListOrphans(store, VM_CLEANER_MODE_BACKUP, backups) || !ListOrphans(store, VM_CLEANER_MODE_RESTORE, restores)) {
        out.failure = LocalFailure("cannot read the cleaner store " + hxruntime::GetCleanerDatabasePath());
        return out;
    }
    for (const auto& e : backups) out.orphans.push_back({e.entityId, "backup", false, {}});
    for (const auto& e : restores) out.orphans.push_back({e.entityId, "restore", false, {}});
    if (dryRun || out.orphans.empty()) {
        out.ok = true;
        if (!dryRun) store.PostAllVMCleanup();
        return out;
    }

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
            o.error = "error " + std::to_string(vm.GetLastVMError()) + " (" + EVMInfoErrorText(vm.GetLastVMError()) +
                      ")" + (vm.GetLastVMErrorDetails().empty() ? "" : ": " + vm.GetLastVMErrorDetails());
        }
    }

    // What is registered now decides the result, whatever the plug-in answered.
    std::vector<CleanerEntity> left;
    if (!ListOrphans(store, VM_CLEANER_MODE_BACKUP, left) || !ListOrphans(store, VM_CLEANER_MODE_RESTORE, left)) {
        out.failure = LocalFailure("cannot read the cleaner store after the cleanup");
        return out;
    }
    for (const auto& e : left) out.remaining.push_back(e.entityId);
    for (auto& o : out.orphans) {
        bool still = false;
        for (const auto& id : out.remaining) still = still || id == o.id;
        if (still) o.removed = false;
        else if (!o.removed) o.removed = true, o.error.clear();
    }
    if (!out.remaining.empty()) {
        out.failure = LocalFailure(std::to_string(out.remaining.size()) + " interrupted job(s) could not be cleaned up",
                                   kExitPluginFailed);
        for (const auto& o : out.orphans)
            if (!o.removed)
                out.failure.details += (out.failure.details.empty() ? "" : "; ") + o.id + ": " +
                                       (o.error.empty() ? std::string("still registered") : o.error);
        context.KeepState();
        return out;
    }
    store.PostAllVMCleanup();
    out.ok = true;
    return out;
}

json CleanupOutcomeJson(const CleanupOutcome& o) {
    json orphans = json::array();
    for (const auto& x : o.orphans)
        orphans.push_back({{"id", x.id}, {"mode", x.mode}, {"removed", x.removed}, {"error", x.error}});
    json j = {{"ok", o.ok}, {"proxyId", o.proxyId}, {"orphans", orphans}, {"remaining", o.remaining}};
    if (!o.ok) j["error"] = {{"code", o.failure.code}, {"message", FormatFailure(o.failure)}};
    return j;
}

void PrintCleanupOutcome(const CleanupOutcome& o, bool dryRun) {
    if (!o.ok && o.proxyId.empty()) return;
    if (o.orphans.empty()) {
        std::cout << "Nothing to clean up for proxy " << o.proxyId << ".\n";
        return;
    }
    for (const auto& x : o.orphans) {
        std::cout << "  " << x.mode << " job of " << x.id << ": "
                  << (dryRun ? "left behind" : x.removed ? "removed" : "NOT removed: " + x.error) << "\n";
    }
    if (o.ok && !dryRun) std::cout << "Cleaned up " << o.orphans.size() << " interrupted job(s); nothing is left.\n";
}

}  // namespace hxagent
