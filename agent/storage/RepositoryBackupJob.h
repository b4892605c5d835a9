// The repository side of one `hxagent backup --repo` job (see RepositoryStore.h for the
// layout in the repository).
//
// Start() checks restic and the repository before any cloud object is made, writes a record
// <state>/repository-jobs/<job id>.json (owner process, repository unless its string holds a
// password, password file, backup key) so that `hxagent cleanup` can find the repository of
// a killed job, and makes a private staging folder for the configuration document. The
// destructor removes both. No secret is ever written to the record.
// Not thread-safe: one object per job.
#pragma once

#include <memory>
#include <string>

#include "Session.h"
#include "storage/RepositoryStore.h"

namespace hxagent {

class RepositoryBackupJob {
public:
    // Null with `error` when restic, the repository or the state folder is not usable.
    static std::unique_ptr<RepositoryBackupJob> Start(AgentContext& context, const RepositoryLocation& where,
                                                      bool create, const std::string& instanceId,
                                                      const std::string& host, const std::string& jobStamp,
                                                      std::string& error);
    ~RepositoryBackupJob();
    RepositoryBackupJob(const RepositoryBackupJob&) = delete;
    RepositoryBackupJob& operator=(const RepositoryBackupJob&) = delete;

    // The folder where the job copies the configuration document before Finish.
    const std::string& stage() const { return stage_; }
    MoveResult PutDisk(const std::string& device, std::uint64_t size, const std::string& image,
                       const MoveOptions& options, std::string& snapshot) {
        std::uint64_t added = 0;
        return writer_->PutDisk(device, size, image, options, snapshot, added);
    }
    // Stores the configuration document, then the manifest: the backup becomes visible.
    // `backupId` is the manifest snapshot's id.
    bool Finish(Manifest& m, std::string& backupId, std::string& error);
    // After a failure: forgets the parts already stored.
    void Abandon() { writer_->Abandon(); }
    std::uint64_t added() const { return writer_->added(); }
    std::string repositoryDisplay() const { return restic_.Display(); }

private:
    RepositoryBackupJob() = default;
    Restic restic_;
    std::unique_ptr<RepositoryWriter> writer_;
    std::string stage_, record_;
};

// The records of repository jobs of `stateDir` whose owner process is gone (not removed).
struct RepositoryJobRecord {
    std::string path, owner, repository, passwordFile, key, host;
};
std::vector<RepositoryJobRecord> KilledRepositoryJobs(const std::string& stateDir);

}  // namespace hxagent
