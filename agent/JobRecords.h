// The jobs of one state folder, kept as files so that a later command can tell which jobs
// were killed and remove what they left on this machine.
//
//   <state>/jobs/<job id>.job    JSON: the owner process (hxruntime::CurrentProcessTag), the
//                                command, the backup folder being written (if any)
//   <state>/jobs/<job id>.work/  the job's private work folder (0700)
//
// Claiming a record creates its file with O_EXCL, so two jobs started in the same second
// get different ids. The record is removed when the job ends; a record whose owner no longer
// runs marks a killed job. Files are created 0600, folders 0700, whatever the umask.
// Not thread-safe: one JobRecord per job, used from the job's thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace hxagent {

class JobRecord {
public:
    // Claims the first free id from `wanted` upwards (ids in use, by running or killed jobs,
    // are skipped). Null with `error` when the folder cannot be written.
    static std::unique_ptr<JobRecord> Claim(const std::string& stateDir, long long wanted, const std::string& command,
                                            std::string& error);
    ~JobRecord();  // removes the record and the work folder
    JobRecord(const JobRecord&) = delete;
    JobRecord& operator=(const JobRecord&) = delete;

    long long id() const { return id_; }
    // Creates <id>.work (0700) on first use; false with `error`.
    bool WorkFolder(std::string& path, std::string& error);
    // Records the backup folder being written, so that a killed job's partial folder is
    // found; "" once the backup is complete (or removed).
    void SetBackupFolder(const std::string& folder);

private:
    JobRecord(std::string jobsDir, long long id, std::string command);
    void Write();
    std::string jobsDir_;
    long long id_;
    std::string command_;
    std::string backupFolder_;
    bool workMade_ = false;
};

// What ReapKilledJobs found or removed ("<what> <path>").
struct ReapReport {
    std::vector<std::string> removed;
    std::vector<std::string> failures;
};

// For every record whose owner no longer runs: removes its work folder, its backup folder
// when that holds no manifest.json (a backup is complete only with its manifest), and the
// record. Work folders without a record (older versions, or a record lost) go too. With
// `dryRun` nothing is removed and `removed` lists what would be.
ReapReport ReapKilledJobs(const std::string& stateDir, bool dryRun);

}  // namespace hxagent
