#include "storage/Catalogue.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "RestoreJob.h"
#include "hxruntime/HostApi.h"
#include "storage/RepositoryStore.h"

namespace hxagent {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

std::uint64_t TagNumber(const RepoSnapshot& s, const std::string& prefix) {
    try {
        return std::stoull(s.Tag(prefix));
    } catch (const std::exception&) {
        return 0;
    }
}

CatalogueEntry EntryOf(const RepoSnapshot& s) {
    CatalogueEntry e;
    e.id = s.shortId;  // the form restic prints and `restic backup --json` reports
    e.time = s.time.substr(0, 19) + (s.time.size() >= 19 ? "Z" : "");
    e.instanceId = s.Tag("hxinstance");
    e.disks = static_cast<int>(TagNumber(s, "hxdisks"));
    e.logicalBytes = TagNumber(s, "hxsize");
    e.addedBytes = TagNumber(s, "hxadded");
    e.host = s.host;
    return e;
}

CatalogueEntry EntryOf(const std::string& folder, const Manifest& m) {
    CatalogueEntry e;
    e.id = folder;
    e.time = m.startedAt;
    e.instanceId = m.instanceId;
    e.disks = static_cast<int>(m.disks.size());
    for (const auto& d : m.disks) {
        e.logicalBytes += d.size;
        e.addedBytes += d.dataBytes;
    }
    e.host = m.proxyId;
    return e;
}

bool ListFolder(const std::string& dir, const std::string& instance, std::vector<CatalogueEntry>& out,
                std::string& error) {
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) {
        error = dir + " is not a backup folder";
        return false;
    }
    for (const auto& inst : fs::directory_iterator(dir, ec)) {
        if (!inst.is_directory() || (!instance.empty() && inst.path().filename() != instance)) continue;
        std::error_code inner;
        for (const auto& job : fs::directory_iterator(inst.path(), inner)) {
            Manifest m;
            std::string why;
            if (!job.is_directory() || !ReadManifest(job.path().string(), m, why)) continue;  // incomplete
            out.push_back(EntryOf(job.path().string(), m));
        }
    }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.time < b.time || (a.time == b.time && a.id < b.id); });
    return true;
}

bool VerifyFolder(const std::string& folder, Progress& progress, std::vector<std::string>& checks,
                  std::string& error) {
    Manifest m;
    if (!ReadManifest(folder, m, error)) return false;
    if (!VerifyBackup(folder, m, progress, error)) return false;
    for (const auto& d : m.disks)
        checks.push_back("disk " + d.id + ": " + std::to_string(d.size) + " bytes, " + io::DigestName(DigestKindOf(d)) +
                         " matches");
    checks.push_back("configuration document " + m.configFile + ": present");
    return true;
}

bool VerifyRepository(const Restic& restic, const std::string& id, Progress& progress,
                      std::vector<std::string>& checks, std::string& error) {
    StoredBackup backup;
    if (!StoredBackup::Load(restic, id, backup, error)) return false;
    progress.Step("Checking the repository's structure (restic check)...");
    ResticResult r = restic.Run({"check"});
    if (!r.ok()) {
        error = "the repository " + restic.Display() + " is damaged: " + Restic::Describe("check", r);
        return false;
    }
    checks.push_back("restic check: no errors");
    for (const auto& d : backup.manifest().disks) {
        progress.Begin("verify " + d.id, d.size);
        MoveOptions mo;
        mo.progress = [&](std::uint64_t done, std::uint64_t) { progress.Update(done); };
        mo.cancelled = [] { return hxruntime::IsCancelRaised(); };
        MoveResult moved = backup.ReadDisk(d, "", mo);
        progress.End(moved.ok);
        if (!moved.ok) {
            error = "disk " + d.id + " of backup " + backup.snapshot().shortId + ": " + moved.error;
            return false;
        }
        checks.push_back("disk " + d.id + ": " + std::to_string(d.size) + " bytes read back, " +
                         io::DigestName(DigestKindOf(d)) + " matches");
    }
    checks.push_back("configuration document " + backup.manifest().configFile + ": readable");
    return true;
}

std::vector<std::string> PolicyArgs(const KeepPolicy& p) {
    std::vector<std::string> args;
    auto add = [&](const char* flag, int n) {
        if (n > 0) args.insert(args.end(), {flag, std::to_string(n)});
    };
    add("--keep-last", p.last);
    add("--keep-hourly", p.hourly);
    add("--keep-daily", p.daily);
    add("--keep-weekly", p.weekly);
    add("--keep-monthly", p.monthly);
    return args;
}

// restic's verdict on the manifest snapshots: which it would keep and which remove.
bool Decide(const Restic& restic, const KeepPolicy& policy, const std::string& instance,
            std::vector<RepoSnapshot>& keep, std::vector<RepoSnapshot>& remove, std::string& error) {
    std::string tags = "hxagent,hxpart:manifest" + (instance.empty() ? "" : ",hxinstance:" + instance);
    std::vector<std::string> args{"forget", "--dry-run", "--json", "--no-lock", "--group-by", "paths", "--tag", tags};
    for (const auto& a : PolicyArgs(policy)) args.push_back(a);
    ResticResult r = restic.Run(args);
    if (!r.ok()) {
        error = Restic::Describe("forget --dry-run", r);
        return false;
    }
    json groups = json::parse(r.out, nullptr, false);
    if (groups.is_discarded() || !(groups.is_array() || groups.is_null())) {
        error = "restic forget gave no JSON list";
        return false;
    }
    for (const auto& g : groups.is_null() ? json::array() : groups)
        for (const auto& [key, into] : {std::pair{"keep", &keep}, std::pair{"remove", &remove}}) {
            if (!g.contains(key) || !g[key].is_array()) continue;
            std::vector<RepoSnapshot> parsed;
            if (!ParseSnapshots(g[key].dump(), parsed, error)) return false;
            into->insert(into->end(), parsed.begin(), parsed.end());
        }
    return true;
}

}  // namespace

bool ListBackups(const CatalogueSource& source, const std::string& instance, std::vector<CatalogueEntry>& out,
                 std::string& error) {
    out.clear();
    if (!source.repository) return ListFolder(source.folder, instance, out, error);
    Restic restic;
    if (!Restic::Locate(*source.repository, restic, error)) return false;
    std::vector<std::string> tags{"hxagent", "hxpart:manifest"};
    if (!instance.empty()) tags.push_back("hxinstance:" + instance);
    std::vector<RepoSnapshot> snaps;
    if (!ListSnapshots(restic, tags, snaps, error)) return false;
    for (const auto& s : snaps) out.push_back(EntryOf(s));
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
    return true;
}

bool DescribeBackup(const CatalogueSource& source, const std::string& backup, Manifest& out, std::string& error) {
    if (!source.repository) return ReadManifest(backup, out, error);
    Restic restic;
    StoredBackup stored;
    if (!Restic::Locate(*source.repository, restic, error) || !StoredBackup::Load(restic, backup, stored, error))
        return false;
    out = stored.manifest();
    return true;
}

bool VerifyStoredBackup(const CatalogueSource& source, const std::string& backup, Progress& progress,
                        std::vector<std::string>& checks, std::string& error) {
    if (!source.repository) return VerifyFolder(backup, progress, checks, error);
    Restic restic;
    if (!Restic::Locate(*source.repository, restic, error)) return false;
    return VerifyRepository(restic, backup, progress, checks, error);
}

bool ForgetBackups(const RepositoryLocation& where, const KeepPolicy& policy, const std::string& instance, bool prune,
                   bool dryRun, ForgetOutcome& out, std::string& error) {
    if (policy.empty()) {
        error = "give at least one --keep-* rule";
        return false;
    }
    Restic restic;
    if (!Restic::Locate(where, restic, error)) return false;
    std::vector<RepoSnapshot> keep, remove;
    if (!Decide(restic, policy, instance, keep, remove, error)) return false;
    for (const auto& s : keep) out.kept.push_back(EntryOf(s));
    for (const auto& s : remove) out.removed.push_back(EntryOf(s));
    if (dryRun || remove.empty()) return true;

    std::vector<RepoSnapshot> parts;
    if (!ListSnapshots(restic, {"hxagent"}, parts, error)) return false;
    std::vector<std::string> manifests{"forget"}, partIds{"forget"};
    for (const auto& s : remove) {
        manifests.push_back(s.id);
        const std::string key = s.Tag("hxbackup");
        for (const auto& p : parts)
            if (!key.empty() && p.Tag("hxbackup") == key && p.Tag("hxpart") != "manifest") partIds.push_back(p.id);
    }
    ResticResult r = restic.Run(manifests);
    if (!r.ok()) {
        error = Restic::Describe("forget", r);
        return false;
    }
    if (partIds.size() > 1) {
        r = restic.Run(partIds);
        if (!r.ok()) {
            error = "the backups left the catalogue but some of their disks did not: " + Restic::Describe("forget", r) +
                    "; run hxagent cleanup";
            return false;
        }
        out.partsRemoved = partIds.size() - 1;
    }
    if (prune) {
        r = restic.Run({"prune"});
        if (!r.ok()) {
            error = Restic::Describe("prune", r);
            return false;
        }
        out.pruned = true;
    }
    return true;
}

}  // namespace hxagent
