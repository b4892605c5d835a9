#include "storage/RepositoryBackupJob.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {
std::string RecordFolder(const std::string& stateDir) { return stateDir + "/repository-jobs"; }
}  // namespace

std::unique_ptr<RepositoryBackupJob> RepositoryBackupJob::Start(AgentContext& context, const RepositoryLocation& where,
                                                                bool create, const std::string& instanceId,
                                                                const std::string& host, const std::string& jobStamp,
                                                                std::string& error) {
    std::unique_ptr<RepositoryBackupJob> job(new RepositoryBackupJob);
    if (!Restic::Locate(where, job->restic_, error)) return nullptr;
    if (!OpenRepository(job->restic_, create, error)) return nullptr;
    const std::string owner = hxruntime::CurrentProcessTag();
    job->writer_ = std::make_unique<RepositoryWriter>(job->restic_, instanceId, host, owner, NewBackupKey(jobStamp));

    std::error_code ec;
    fs::create_directories(RecordFolder(context.stateDir()), ec);
    job->record_ = RecordFolder(context.stateDir()) + "/" + std::to_string(context.jobId()) + ".json";
    // A repository string with a password in it stays out of the record: cleanup then needs --repo.
    const std::string repository = job->restic_.repository() == job->restic_.Display() ? job->restic_.repository() : "";
    std::ofstream out(job->record_, std::ios::trunc);
    out << json{{"owner", owner},
                {"repository", repository},
                {"passwordFile", job->restic_.passwordFile()},
                {"key", job->writer_->key()},
                {"host", host}}
               .dump();
    out.close();
    if (!out) {
        error = "cannot write the job record " + job->record_;
        return nullptr;
    }
    if (!context.MakeWorkFolder("stage", job->stage_, error)) return nullptr;
    return job;
}

RepositoryBackupJob::~RepositoryBackupJob() {
    std::error_code ec;
    if (!stage_.empty()) fs::remove_all(stage_, ec);
    if (!record_.empty()) fs::remove(record_, ec);
}

bool RepositoryBackupJob::Finish(Manifest& m, std::string& backupId, std::string& error) {
    if (!writer_->PutConfig(stage_ + "/" + m.configFile, m.configFile, m.configSnapshot, error)) return false;
    return writer_->Commit(m, backupId, error);
}

std::vector<RepositoryJobRecord> KilledRepositoryJobs(const std::string& stateDir) {
    std::vector<RepositoryJobRecord> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(RecordFolder(stateDir), ec)) {
        if (e.path().extension() != ".json") continue;
        std::ifstream in(e.path());
        json j = json::parse(in, nullptr, false);
        if (j.is_discarded() || !j.is_object()) continue;
        RepositoryJobRecord r{e.path().string(),          j.value("owner", ""), j.value("repository", ""),
                              j.value("passwordFile", ""), j.value("key", ""),   j.value("host", "")};
        if (!hxruntime::IsProcessTagRunning(r.owner)) out.push_back(r);
    }
    return out;
}

}  // namespace hxagent
