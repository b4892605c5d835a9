#include "commands/CatalogueCommands.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

#include "Errors.h"
#include "InventoryCommands.h"
#include "Progress.h"

namespace hxagent {

using nlohmann::json;

namespace {

int Refuse(const std::string& message, ExitStatus status, bool asJson) {
    if (asJson)
        std::cout << json{{"ok", false}, {"error", {{"message", message}}}}.dump(2) << std::endl;
    else
        std::cerr << "hxagent: error: " << message << std::endl;
    return status;
}

json EntryJson(const CatalogueEntry& e) {
    return {{"id", e.id},
            {"time", e.time},
            {"instanceId", e.instanceId},
            {"disks", e.disks},
            {"logicalBytes", e.logicalBytes},
            {"addedBytes", e.addedBytes},
            {"host", e.host}};
}

std::vector<std::string> EntryRow(const CatalogueEntry& e, bool repository) {
    return {repository ? e.id.substr(0, 8) : e.id, e.time, e.instanceId, std::to_string(e.disks),
            FormatBytes(e.logicalBytes), FormatBytes(e.addedBytes), e.host};
}

// Where a catalogue command looks: DIR when given, else the repository.
bool Source(const RepositoryOptions& repo, const std::string& folder, CatalogueSource& out, std::string& error) {
    if (!folder.empty() && !repo.repository.empty()) {
        error = "give a backup folder or --repo, not both";
        return false;
    }
    if (!folder.empty()) {
        out.folder = folder;
        return true;
    }
    out.repository = repo.Location(true);
    if (!out.repository) error = "give a backup folder, or a repository with --repo or RESTIC_REPOSITORY";
    return out.repository.has_value();
}

// For one backup: --repo, else an existing folder, else RESTIC_REPOSITORY.
bool SourceFor(const RepositoryOptions& repo, const std::string& backup, CatalogueSource& out, std::string& error) {
    std::error_code ec;
    const bool folder = repo.repository.empty() && std::filesystem::is_directory(backup, ec);
    return Source(repo, folder ? backup : "", out, error);
}

}  // namespace

std::optional<RepositoryLocation> RepositoryOptions::Location(bool envFallback) const {
    if (!repository.empty()) return RepositoryLocation{repository, passwordFile};
    const char* env = std::getenv("RESTIC_REPOSITORY");
    if (envFallback && ((env && *env) || std::getenv("RESTIC_REPOSITORY_FILE")))
        return RepositoryLocation{"", passwordFile};
    return std::nullopt;
}

void AddRepositoryOptions(CLI::App* command, RepositoryOptions& options) {
    command->add_option("--repo", options.repository,
                        "restic repository: a path, rest:URL, s3:ENDPOINT/BUCKET (Alibaba Cloud OSS too), sftp:... "
                        "(default: RESTIC_REPOSITORY)");
    command->add_option("--password-file", options.passwordFile,
                        "File holding the repository password (default: RESTIC_PASSWORD_FILE or RESTIC_PASSWORD)");
}

CatalogueCli::CatalogueCli(CLI::App& app) {
    backups_ = app.add_subcommand("backups", "List the complete backups of a folder or a repository");
    backups_->add_option("folder", folder_, "Backup folder (the DIR of backup --to)");
    backups_->add_option("--instance", instance_, "Only the backups of this instance id");
    AddRepositoryOptions(backups_, backupsRepo_);

    describe_ = app.add_subcommand("describe", "Show one backup's manifest, or one instance with its disks");
    describe_->add_option("backup", backup_,
                          "Backup folder, backup id with --repo, or an instance (id or exact name)")
        ->required();
    AddRepositoryOptions(describe_, describeRepo_);

    verify_ = app.add_subcommand("verify", "Read a backup back and check every checksum");
    verify_->add_option("backup", backup_, "Backup folder, or backup id with --repo")->required();
    AddRepositoryOptions(verify_, verifyRepo_);

    forget_ = app.add_subcommand("forget", "Remove a repository's backups that the keep rules do not name");
    forget_->add_option("--keep-last", policy_.last, "Keep the last N backups of each instance");
    forget_->add_option("--keep-hourly", policy_.hourly, "Keep the last backup of each of the last N hours");
    forget_->add_option("--keep-daily", policy_.daily, "Keep the last backup of each of the last N days");
    forget_->add_option("--keep-weekly", policy_.weekly, "Keep the last backup of each of the last N weeks");
    forget_->add_option("--keep-monthly", policy_.monthly, "Keep the last backup of each of the last N months");
    forget_->add_option("--instance", forgetInstance_, "Only the backups of this instance id");
    forget_->add_flag("--prune", prune_, "Then free the space (restic prune)");
    forget_->add_flag("--dry-run", dryRun_, "Only list what would be removed");
    AddRepositoryOptions(forget_, forgetRepo_);
}

bool CatalogueCli::DescribesInstance() const {
    if (!*describe_ || !describeRepo_.repository.empty()) return false;
    std::error_code ec;
    if (std::filesystem::is_directory(backup_, ec)) return false;
    return backup_.rfind("i-", 0) == 0 || !describeRepo_.Location(true).has_value();
}

bool CatalogueCli::Selected() const { return *backups_ || *describe_ || *verify_ || *forget_; }

int CatalogueCli::Run(const GlobalOptions& g) {
    if (*backups_) return Backups(g);
    if (*describe_) return Describe(g);
    if (*verify_) return Verify(g);
    return Forget(g);
}

int CatalogueCli::Backups(const GlobalOptions& g) {
    CatalogueSource source;
    std::string error;
    if (!Source(backupsRepo_, folder_, source, error)) return Refuse(error, kExitUsage, g.json);
    std::vector<CatalogueEntry> entries;
    if (!ListBackups(source, instance_, entries, error)) return Refuse(error, kExitLocal, g.json);
    if (g.json) {
        json list = json::array();
        for (const auto& e : entries) list.push_back(EntryJson(e));
        std::cout << json{{"ok", true}, {"backups", list}}.dump(2) << std::endl;
        return kExitOk;
    }
    std::vector<std::vector<std::string>> rows{
        {"BACKUP", "TIME", "INSTANCE", "DISKS", "SIZE", source.repository ? "ADDED" : "STORED", "PROXY"}};
    for (const auto& e : entries) rows.push_back(EntryRow(e, source.repository.has_value()));
    PrintTable(rows);
    return kExitOk;
}

int CatalogueCli::Describe(const GlobalOptions& g) {
    CatalogueSource source;
    std::string error;
    if (!SourceFor(describeRepo_, backup_, source, error))
        return Refuse(error, kExitUsage, g.json);
    Manifest m;
    if (!DescribeBackup(source, backup_, m, error)) return Refuse(error, kExitLocal, g.json);
    json doc = json::parse(ManifestToJson(m));
    if (g.json) {
        std::cout << json{{"ok", true}, {"backup", backup_}, {"manifest", doc}}.dump(2) << std::endl;
        return kExitOk;
    }
    std::cout << "Backup " << backup_ << " of " << m.instanceId << " (" << m.instanceName << "), " << m.regionId << "/"
              << m.zoneId << ", " << m.instanceType << "\n  taken " << m.startedAt << " .. " << m.finishedAt
              << " by proxy " << m.proxyId << " (hxagent " << m.agentVersion << ", " << m.cloud << ")\n"
              << "  configuration document " << m.configFile << "\n";
    std::vector<std::vector<std::string>> rows{{"DISK", "SYSTEM", "SIZE", "CATEGORY", "DIGEST"}};
    for (const auto& d : m.disks)
        rows.push_back({d.id, d.isOSDisk ? "yes" : "", FormatBytes(d.size), d.category, DigestOf(d)});
    PrintTable(rows);
    return kExitOk;
}

int CatalogueCli::Verify(const GlobalOptions& g) {
    CatalogueSource source;
    std::string error;
    if (!SourceFor(verifyRepo_, backup_, source, error))
        return Refuse(error, kExitUsage, g.json);
    Progress progress(DetectOutputStyle(g.json));
    std::vector<std::string> checks;
    const bool ok = VerifyStoredBackup(source, backup_, progress, checks, error);
    if (g.json) {
        json j{{"ok", ok}, {"backup", backup_}, {"checks", checks}};
        if (!ok) j["error"] = {{"message", error}};
        std::cout << j.dump(2) << std::endl;
    } else {
        for (const auto& c : checks) std::cout << "  " << c << "\n";
        if (ok) std::cout << "Backup " << backup_ << " is intact.\n";
        else std::cerr << "hxagent: error: " << error << std::endl;
    }
    return ok ? kExitOk : kExitLocal;
}

int CatalogueCli::Forget(const GlobalOptions& g) {
    auto where = forgetRepo_.Location(true);
    if (!where) return Refuse("forget works on a repository: give --repo or set RESTIC_REPOSITORY", kExitUsage, g.json);
    ForgetOutcome out;
    std::string error;
    if (!ForgetBackups(*where, policy_, forgetInstance_, prune_, dryRun_, out, error))
        return Refuse(error, policy_.empty() ? kExitUsage : kExitLocal, g.json);
    if (g.json) {
        json kept = json::array(), removed = json::array();
        for (const auto& e : out.kept) kept.push_back(EntryJson(e));
        for (const auto& e : out.removed) removed.push_back(EntryJson(e));
        std::cout << json{{"ok", true},        {"dryRun", dryRun_}, {"kept", kept}, {"removed", removed},
                          {"partsRemoved", out.partsRemoved}, {"pruned", out.pruned}}
                         .dump(2)
                  << std::endl;
        return kExitOk;
    }
    for (const auto& e : out.kept) std::cout << "  keep    " << e.id.substr(0, 8) << "  " << e.time << "  " << e.instanceId << "\n";
    for (const auto& e : out.removed)
        std::cout << "  " << (dryRun_ ? "would remove " : "removed ") << e.id.substr(0, 8) << "  " << e.time << "  "
                  << e.instanceId << "\n";
    if (out.pruned) std::cout << "Pruned: unreferenced data removed from the repository.\n";
    return kExitOk;
}

}  // namespace hxagent
