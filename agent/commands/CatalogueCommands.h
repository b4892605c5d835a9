// The catalogue commands (backups, describe, verify, forget) and the repository options the
// job commands share (--repo, --password-file). Registered on the CLI11 application by the
// constructor; Run() executes the selected one and returns hxagent's exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "Session.h"
#include "storage/Catalogue.h"

namespace hxagent {

// --repo and --password-file of one subcommand.
struct RepositoryOptions {
    std::string repository;
    std::string passwordFile;
    // The repository to use: --repo, else RESTIC_REPOSITORY when `envFallback`; nullopt when
    // neither names one.
    std::optional<RepositoryLocation> Location(bool envFallback) const;
};
void AddRepositoryOptions(CLI::App* command, RepositoryOptions& options);

class CatalogueCli {
public:
    explicit CatalogueCli(CLI::App& app);
    // Whether one of the catalogue commands was given (after parsing).
    bool Selected() const;
    // `describe` names an instance rather than a backup: no --repo, not an existing folder,
    // and either an instance id (i-...) or, with no RESTIC_REPOSITORY to look a backup id
    // up in, anything else (an instance name).
    bool DescribesInstance() const;
    const std::string& DescribeTarget() const { return backup_; }
    int Run(const GlobalOptions& g);

private:
    int Backups(const GlobalOptions& g);
    int Describe(const GlobalOptions& g);
    int Verify(const GlobalOptions& g);
    int Forget(const GlobalOptions& g);
    CLI::App *backups_ = nullptr, *describe_ = nullptr, *verify_ = nullptr, *forget_ = nullptr;
    RepositoryOptions backupsRepo_, describeRepo_, verifyRepo_, forgetRepo_;
    std::string folder_, instance_, backup_, forgetInstance_;
    KeepPolicy policy_;
    bool prune_ = false, dryRun_ = false;
};

}  // namespace hxagent
