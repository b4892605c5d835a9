#include "commands/RepositoryDemo.h"

#include <cstdlib>
#include <iostream>

#include "BackupJob.h"
#include "DataMover.h"
#include "RestoreJob.h"
#include "SimControl.h"
#include "commands/CatalogueCommands.h"
#include "commands/RepositoryRestore.h"
#include "hxutil/Random.h"

namespace hxagent {

using nlohmann::json;

namespace {

bool PasswordConfigured() {
    for (const char* v : {"RESTIC_PASSWORD", "RESTIC_PASSWORD_FILE", "RESTIC_PASSWORD_COMMAND"})
        if (const char* s = std::getenv(v); s && *s) return true;
    return false;
}

std::string RandomPassword() {
    return hxutil::RandomHex(20);
}

// Restored disks against their sources, through the emulator's disk files.
void Compare(const std::string& endpoint, const Manifest& m, const RestoreOutcome& restore, RepositoryDemoResult& out) {
    json state;
    std::string error;
    if (!SimRequest(endpoint, "GET", "/_sim/state", "", state, error)) {
        out.error = error;
        return;
    }
    auto file = [&](const std::function<bool(const json&)>& match) -> std::string {
        for (const auto& d : state["disks"])
            if (match(d)) return d.value("File", "");
        return "";
    };
    out.disks = static_cast<int>(m.disks.size());
    for (size_t i = 0; i < m.disks.size() && i < restore.disks.size(); ++i) {
        const auto& md = m.disks[i];
        const std::string src = file([&](const json& d) { return d.value("DiskId", "") == md.id; });
        const std::string dst = file([&](const json& d) {
            return md.isOSDisk ? d.value("InstanceId", "") == restore.instanceId && d.value("Type", "") == "system"
                               : d.value("DiskId", "") == restore.disks[i].newId;
        });
        std::string why;
        if (!src.empty() && !dst.empty() && SameContent(src, dst, md.size, why)) ++out.identicalDisks;
        else if (out.error.empty()) out.error = "restored disk of " + md.id + " differs from its source " + why;
    }
}

}  // namespace

RepositoryDemoResult RunRepositoryDemo(AgentContext& context, const std::string& instance, const std::string& repository,
                                       const std::string& restoreName, Progress& progress) {
    RepositoryDemoResult out;
    BackupRequest br;
    br.instance = instance;
    br.toRepository = true;
    br.createRepository = true;
    br.repository.repository = repository.empty() ? context.stateDir() + "/repository" : repository;
    if (repository.empty() && !PasswordConfigured()) ::setenv("RESTIC_PASSWORD", RandomPassword().c_str(), 1);

    BackupOutcome first = RunBackup(context, br, progress, 10);
    BackupOutcome second = first.ok ? RunBackup(context, br, progress, 11) : BackupOutcome{};
    if (!first.ok || !second.ok) {
        out.error = "repository backup: " + FormatFailure(first.ok ? second.failure : first.failure);
        return out;
    }
    out.repository = first.repository;
    out.firstId = first.backupId;
    out.secondId = second.backupId;
    out.firstAdded = first.addedBytes;
    out.secondAdded = second.addedBytes;
    for (const auto& d : second.manifest.disks) out.logicalBytes += d.size;

    RepositoryOptions repo{br.repository.repository, ""};
    RestoreRequest rr;
    rr.backupFolder = second.backupId;
    rr.name = restoreName;
    rr.powerOn = true;
    Manifest m;
    std::string config, error;
    if (!LoadRepositoryBackup(repo, rr, m, config, error)) {
        out.error = "repository restore: " + error;
        return out;
    }
    RestoreOutcome restore = RunRestore(context, m, rr, progress, 12);
    if (!restore.ok) {
        out.error = "repository restore: " + FormatFailure(restore.failure);
        return out;
    }
    out.restoredInstance = restore.instanceId;
    Compare(context.EmulatorEndpoint(), m, restore, out);
    out.ok = out.error.empty() && out.identicalDisks == out.disks;
    return out;
}

json RepositoryDemoResult::Json() const {
    return {{"ok", ok},
            {"error", error},
            {"repository", repository},
            {"backups", {firstId, secondId}},
            {"logicalBytes", logicalBytes},
            {"firstAddedBytes", firstAdded},
            {"secondAddedBytes", secondAdded},
            {"restoredInstance", restoredInstance},
            {"identicalDisks", identicalDisks},
            {"disks", disks}};
}

void RepositoryDemoResult::Print() const {
    std::cout << "\nRepository " << repository << ":\n"
              << "  backup " << firstId.substr(0, 8) << ": " << FormatBytes(logicalBytes) << " of disks, "
              << FormatBytes(firstAdded) << " of new data (deduplicated; restic counts it before compression)\n"
              << "  backup " << secondId.substr(0, 8) << ": " << FormatBytes(secondAdded) << " added\n"
              << "  restored " << secondId.substr(0, 8) << " as " << restoredInstance << ": " << identicalDisks << " of "
              << disks << " disks byte-identical\n";
    if (!error.empty()) std::cout << "  NOT VERIFIED: " << error << "\n";
}

}  // namespace hxagent
