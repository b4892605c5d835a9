#include "DemoCommand.h"

#include <chrono>
#include <functional>
#include <iostream>

#include "BackupJob.h"
#include "DataMover.h"
#include "RestoreJob.h"
#include "SimControl.h"
#include "VMCleaner.h"
#include "commands/RepositoryDemo.h"

namespace hxagent {

using nlohmann::json;

namespace {

struct DiskCheck {
    std::string source, restored;
    std::uint64_t size = 0;
    std::string digest;  // the manifest's, of the image
    bool identical = false;
    std::string error;
};

const json* FindDisk(const json& state, const std::function<bool(const json&)>& match) {
    for (const auto& d : state["disks"])
        if (match(d)) return &d;
    return nullptr;
}

// Restored data disks keep the id the restore made; the system disk is the new instance's
// system disk (made from the image of the written one).
std::vector<DiskCheck> CompareDisks(const json& state, const BackupOutcome& backup, const RestoreOutcome& restore) {
    std::vector<DiskCheck> checks;
    for (size_t i = 0; i < backup.manifest.disks.size() && i < restore.disks.size(); ++i) {
        const auto& md = backup.manifest.disks[i];
        const auto& rd = restore.disks[i];
        DiskCheck c;
        c.source = md.id;
        c.size = md.size;
        c.digest = DigestOf(md);
        const json* src = FindDisk(state, [&](const json& d) { return d.value("DiskId", "") == md.id; });
        const json* dst = FindDisk(state, [&](const json& d) {
            return md.isOSDisk ? d.value("InstanceId", "") == restore.instanceId && d.value("Type", "") == "system"
                               : d.value("DiskId", "") == rd.newId;
        });
        if (!src || !dst) {
            c.error = !src ? "source disk not found in the emulator" : "restored disk not found in the emulator";
        } else {
            c.restored = dst->value("DiskId", "");
            if (dst->value("InstanceId", "") != restore.instanceId) {
                c.error = "restored disk " + c.restored + " is not attached to " + restore.instanceId;
            } else {
                c.identical = SameContent(src->value("File", ""), dst->value("File", ""), md.size, c.error);
                if (!c.identical && c.error.empty()) c.error = "content differs";
            }
        }
        checks.push_back(c);
    }
    return checks;
}

}  // namespace

int RunDemo(const GlobalOptions& options, const DemoOptions& demo) {
    Progress progress(DetectOutputStyle(options.json));
    JobFailure failure;
    auto context = AgentContext::Create(options, /*forceEmbedded=*/true, progress, failure);
    if (!context) {
        std::cerr << "hxagent: error: " << FormatFailure(failure) << "\n";
        return failure.status;
    }
    const auto started = std::chrono::steady_clock::now();
    const std::string endpoint = context->EmulatorEndpoint();
    json before, after;
    std::string error;
    if (!SimRequest(endpoint, "GET", "/_sim/state", "", before, error)) {
        std::cerr << "hxagent: error: " << error << "\n";
        return kExitLocal;
    }

    BackupRequest br;
    br.instance = demo.instance;
    br.destination = demo.destination.empty() ? context->stateDir() + "/backups" : demo.destination;
    BackupOutcome backup = RunBackup(*context, br, progress, 0);
    if (!backup.ok) {
        std::cerr << "hxagent: error: demo backup: " << FormatFailure(backup.failure) << " (" << context->LogHint()
                  << ")\n";
        return backup.failure.status;
    }
    if (!options.json) PrintBackupOutcome(backup);

    RestoreRequest rr;
    rr.backupFolder = backup.folder;
    rr.name = demo.restoreName.empty() ? backup.manifest.instanceName + "-restored" : demo.restoreName;
    rr.powerOn = true;
    // As the restore command: the digests are checked while the restore writes the disks.
    if (!CheckBackupFiles(rr.backupFolder, backup.manifest, error)) {
        std::cerr << "hxagent: error: demo verification: " << error << "\n";
        context->KeepState();
        return kExitLocal;
    }
    RestoreOutcome restore = RunRestore(*context, backup.manifest, rr, progress, 1);
    if (!restore.ok) {
        std::cerr << "hxagent: error: demo restore: " << FormatFailure(restore.failure) << " (" << context->LogHint()
                  << ")\n";
        return restore.failure.status;
    }
    if (!options.json) PrintRestoreOutcome(restore);

    // The same instance twice into a restic repository, the second restored and compared.
    RepositoryDemoResult repo = RunRepositoryDemo(*context, demo.instance, demo.repository, rr.name + "-repo", progress);
    if (!options.json) repo.Print();

    if (!SimRequest(endpoint, "GET", "/_sim/state", "", after, error)) {
        std::cerr << "hxagent: error: " << error << "\n";
        return kExitLocal;
    }
    auto checks = CompareDisks(after, backup, restore);
    SimLeftovers leftovers = FindLeftovers(before, after);

    // The cleaner store of this proxy: neither job may still be registered.
    std::vector<std::string> registered;
    VMCleaner store;
    if (store.Init(after.value("proxyInstanceId", ""), 0)) {
        std::string handle;
        if (store.LookupEntity(VM_CLEANER_MODE_BACKUP, VM_CLEANER_ENTITY_VM, backup.manifest.instanceId, handle))
            registered.push_back("backup " + backup.manifest.instanceId);
        if (!restore.tempVMId.empty() &&
            store.LookupEntity(VM_CLEANER_MODE_RESTORE, VM_CLEANER_ENTITY_VM, restore.tempVMId, handle))
            registered.push_back("restore " + restore.tempVMId);
        std::vector<CleanerEntity> orphans;
        store.GetOrphanedRootEntityListByType(VM_CLEANER_MODE_BACKUP, VM_CLEANER_ENTITY_VM, "", orphans);
        store.GetOrphanedRootEntityListByType(VM_CLEANER_MODE_RESTORE, VM_CLEANER_ENTITY_VM, "", orphans);
        for (const auto& o : orphans) registered.push_back("orphan " + o.entityId);
    } else {
        registered.push_back("(the cleaner store cannot be opened)");
    }

    bool allIdentical = checks.size() == backup.manifest.disks.size();
    for (const auto& c : checks) allIdentical = allIdentical && c.identical;
    const bool ok = allIdentical && leftovers.empty() && registered.empty() && repo.ok;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    if (options.json) {
        json disks = json::array();
        for (const auto& c : checks)
            disks.push_back({{"source", c.source}, {"restored", c.restored}, {"size", c.size}, {"digest", c.digest},
                             {"identical", c.identical}, {"error", c.error}});
        std::cout << json{{"ok", ok},
                          {"backup", BackupOutcomeJson(backup)},
                          {"restore", RestoreOutcomeJson(restore)},
                          {"disks", disks},
                          {"leftovers", leftovers.Describe()},
                          {"cleanerEntries", registered},
                          {"repository", repo.Json()},
                          {"seconds", seconds}}
                         .dump(2)
                  << std::endl;
    } else {
        std::cout << "\nDemo summary: " << backup.manifest.instanceName << " (" << backup.manifest.instanceId
                  << ") backed up and restored as '" << restore.name << "' (" << restore.instanceId << ")\n";
        for (const auto& c : checks)
            std::cout << "  " << c.source << " -> " << (c.restored.empty() ? "?" : c.restored) << "  "
                      << FormatBytes(c.size) << "  digest " << c.digest.substr(0, 16) << "...  "
                      << (c.identical ? "identical" : "DIFFERENT: " + c.error) << "\n";
        std::cout << "  left in the cloud: " << leftovers.Describe() << "\n";
        std::cout << "  cleaner store: " << (registered.empty() ? std::string("empty") : registered.front()) << "\n";
        std::cout << (ok ? "VERIFIED: every restored disk is byte-identical to its source; nothing left behind"
                         : "NOT VERIFIED")
                  << " (" << FormatDuration(seconds) << ")\n";
    }
    if (!ok) context->KeepState();
    return ok ? kExitOk : kExitLocal;
}

}  // namespace hxagent
