#include "storage/RepositoryCleanup.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>

#include "hxruntime/HostApi.h"
#include "storage/RepositoryBackupJob.h"
#include "storage/RepositoryStore.h"

namespace hxagent {

namespace {

bool CountLocks(const Restic& restic, std::size_t& count, std::string& error) {
    ResticResult r = restic.Run({"list", "locks", "--no-lock"});
    if (!r.ok()) {
        error = Restic::Describe("list locks", r);
        return false;
    }
    std::istringstream lines(r.out);
    std::string line;
    count = 0;
    while (std::getline(lines, line))
        if (!line.empty()) ++count;
    return true;
}

void Unlock(const Restic& restic, bool dryRun, RepositoryCleanupOutcome& out) {
    std::size_t before = 0, after = 0;
    std::string error;
    if (!CountLocks(restic, before, error)) {
        out.remaining.push_back("repository " + restic.Display() + ": " + error);
        return;
    }
    if (before == 0) return;
    if (dryRun) {
        out.removed.push_back({"repository locks", restic.Display(), std::to_string(before) + " lock(s), stale ones would go"});
        return;
    }
    ResticResult r = restic.Run({"unlock"});
    if (!r.ok() || !CountLocks(restic, after, error)) {
        out.remaining.push_back("repository " + restic.Display() + ": " + (r.ok() ? error : Restic::Describe("unlock", r)));
        return;
    }
    if (after < before)
        out.removed.push_back({"repository lock", restic.Display(), std::to_string(before - after) + " stale lock(s)"});
}

// Part snapshots of this proxy's backups without a manifest, whose writer is gone.
void ForgetPartials(const Restic& restic, const std::string& proxyId, bool dryRun, RepositoryCleanupOutcome& out) {
    std::vector<RepoSnapshot> all;
    std::string error;
    if (!ListSnapshots(restic, {"hxagent"}, all, error)) {
        out.remaining.push_back("repository " + restic.Display() + ": " + error);
        return;
    }
    std::map<std::string, std::vector<const RepoSnapshot*>> byKey;
    std::map<std::string, bool> complete;
    for (const auto& s : all) {
        if (s.host != proxyId) continue;
        const std::string key = s.Tag("hxbackup");
        if (key.empty()) continue;
        byKey[key].push_back(&s);
        if (s.Tag("hxpart") == "manifest") complete[key] = true;
    }
    for (const auto& [key, parts] : byKey) {
        if (complete[key] || hxruntime::IsProcessTagRunning(parts.front()->Tag("hxowner"))) continue;
        std::vector<std::string> args{"forget"};
        for (const auto* p : parts) args.push_back(p->id);
        const std::string what = std::to_string(parts.size()) + " snapshot(s) of an unfinished backup of " +
                                 parts.front()->Tag("hxinstance");
        if (!dryRun) {
            ResticResult r = restic.Run(args);
            if (!r.ok()) {
                out.remaining.push_back("partial backup " + key + ": " + Restic::Describe("forget", r));
                continue;
            }
        }
        out.removed.push_back({"partial backup", key, what + " in " + restic.Display()});
    }
}

bool CleanOne(const RepositoryLocation& where, const std::string& proxyId, bool dryRun,
              RepositoryCleanupOutcome& out) {
    Restic restic;
    std::string error;
    if (!Restic::Locate(where, restic, error)) {
        out.remaining.push_back("repository " + RedactRepository(where.repository) + ": " + error);
        return false;
    }
    const std::size_t failures = out.remaining.size();
    Unlock(restic, dryRun, out);
    ForgetPartials(restic, proxyId, dryRun, out);
    return out.remaining.size() == failures;
}

}  // namespace

RepositoryCleanupOutcome CleanRepositories(const std::string& stateDir, const std::optional<RepositoryLocation>& extra,
                                           const std::string& proxyId, bool dryRun) {
    RepositoryCleanupOutcome out;
    std::vector<std::string> done;
    if (extra) {
        CleanOne(*extra, proxyId, dryRun, out);
        done.push_back(extra->repository);
    }
    for (const auto& job : KilledRepositoryJobs(stateDir)) {
        const bool seen = std::find(done.begin(), done.end(), job.repository) != done.end();
        bool clean = seen;
        if (!seen && job.repository.empty()) {
            out.remaining.push_back("a killed backup's repository is not recorded (its address holds a password); "
                                    "run cleanup with --repo");
            continue;
        }
        if (!seen) {
            clean = CleanOne({job.repository, job.passwordFile}, proxyId, dryRun, out);
            done.push_back(job.repository);
        }
        std::error_code ec;
        if (clean && !dryRun) std::filesystem::remove(job.path, ec);
    }
    return out;
}

}  // namespace hxagent
