// The repository part of `hxagent demo`: two backups of the same instance into a restic
// repository (the second adds almost nothing: restic deduplicates against the first), then
// a restore of the second compared byte for byte with the source disks.
//
// The repository is --repo of the demo, else a new one in the state folder. When no
// password source is configured, the demo's own repository gets a random password held in
// this process's environment only (never written anywhere); it is as temporary as the
// repository.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Session.h"

namespace hxagent {

struct RepositoryDemoResult {
    bool ok = false;
    std::string error;
    std::string repository;                // without secrets
    std::string firstId, secondId;         // backup ids
    std::uint64_t logicalBytes = 0;        // the instance's disks
    std::uint64_t firstAdded = 0, secondAdded = 0;
    std::string restoredInstance;
    int identicalDisks = 0, disks = 0;
    nlohmann::json Json() const;
    void Print() const;
};

// Runs the phase with job id offsets 10, 11 (backups) and 12 (restore).
RepositoryDemoResult RunRepositoryDemo(AgentContext& context, const std::string& instance, const std::string& repository,
                                       const std::string& restoreName, Progress& progress);

}  // namespace hxagent
