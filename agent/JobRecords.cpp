#include "JobRecords.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int kMaxClaimTries = 1000;

bool MakePrivateDir(const std::string& path, std::string& error) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
        error = "cannot create " + path + ": " + ec.message();
        return false;
    }
    ::chmod(path.c_str(), 0700);  // create_directories applied the umask
    return true;
}

std::string RecordPath(const std::string& jobsDir, long long id) { return jobsDir + "/" + std::to_string(id) + ".job"; }
std::string WorkPath(const std::string& jobsDir, long long id) { return jobsDir + "/" + std::to_string(id) + ".work"; }

json ReadRecord(const fs::path& path) {
    std::ifstream in(path);
    json j = json::parse(in, nullptr, false);
    return j.is_object() ? j : json();
}

// A record that cannot be read was being written when its job was killed, or is not ours:
// without an owner it counts as dead.
bool OwnerRunning(const json& record) {
    return record.is_object() && hxruntime::IsProcessTagRunning(record.value("owner", std::string()));
}

}  // namespace

JobRecord::JobRecord(std::string jobsDir, long long id, std::string command)
    : jobsDir_(std::move(jobsDir)), id_(id), command_(std::move(command)) {}

std::unique_ptr<JobRecord> JobRecord::Claim(const std::string& stateDir, long long wanted, const std::string& command,
                                            std::string& error) {
    const std::string jobsDir = stateDir + "/jobs";
    if (!MakePrivateDir(jobsDir, error)) return nullptr;
    for (long long id = wanted; id < wanted + kMaxClaimTries; ++id) {
        int fd = ::open(RecordPath(jobsDir, id).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            error = "cannot create a job record in " + jobsDir + ": " + std::strerror(errno);
            return nullptr;
        }
        ::close(fd);
        std::unique_ptr<JobRecord> record(new JobRecord(jobsDir, id, command));
        record->Write();
        return record;
    }
    error = "no free job id from " + std::to_string(wanted) + " in " + jobsDir;
    return nullptr;
}

JobRecord::~JobRecord() {
    std::error_code ec;
    if (workMade_) fs::remove_all(WorkPath(jobsDir_, id_), ec);
    fs::remove(RecordPath(jobsDir_, id_), ec);
}

bool JobRecord::WorkFolder(std::string& path, std::string& error) {
    path = WorkPath(jobsDir_, id_);
    if (workMade_) return true;
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot create the work folder " + path + ": " + std::strerror(errno);
        return false;
    }
    ::chmod(path.c_str(), 0700);
    workMade_ = true;
    return true;
}

void JobRecord::SetBackupFolder(const std::string& folder) {
    backupFolder_ = folder;
    Write();
}

void JobRecord::Write() {
    // Written beside and renamed over, so a reader never sees half a record.
    const std::string path = RecordPath(jobsDir_, id_);
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << json{{"owner", hxruntime::CurrentProcessTag()}, {"command", command_}, {"backupFolder", backupFolder_}}
                   .dump();
    }
    ::chmod(temp.c_str(), 0600);
    std::error_code ec;
    fs::rename(temp, path, ec);
}

ReapReport ReapKilledJobs(const std::string& stateDir, bool dryRun) {
    ReapReport report;
    const fs::path jobsDir = fs::path(stateDir) / "jobs";
    std::error_code ec;
    if (!fs::is_directory(jobsDir, ec)) return report;
    auto remove = [&](const fs::path& p, const std::string& what) {
        if (!dryRun) {
            std::error_code rc;
            fs::remove_all(p, rc);
            if (rc) {
                report.failures.push_back(what + " " + p.string() + ": " + rc.message());
                return;
            }
        }
        report.removed.push_back(what + " " + p.string());
    };
    std::vector<fs::path> records, folders;
    for (const auto& entry : fs::directory_iterator(jobsDir, ec)) {
        if (entry.path().extension() == ".job") records.push_back(entry.path());
        else if (entry.is_directory(ec)) folders.push_back(entry.path());
    }
    std::vector<std::string> liveWork;
    for (const fs::path& r : records) {
        const json record = ReadRecord(r);
        const fs::path work = r.parent_path() / (r.stem().string() + ".work");
        if (OwnerRunning(record)) {
            liveWork.push_back(work.string());
            continue;
        }
        const std::string backup = record.is_object() ? record.value("backupFolder", std::string()) : std::string();
        if (!backup.empty() && fs::is_directory(backup, ec) && !fs::exists(fs::path(backup) / "manifest.json", ec))
            remove(backup, "partial backup folder");
        if (fs::exists(work, ec)) remove(work, "work folder");
        remove(r, "job record");
    }
    for (const fs::path& f : folders) {
        const std::string listed = "work folder " + f.string();
        if (std::find(liveWork.begin(), liveWork.end(), f.string()) != liveWork.end()) continue;
        if (std::find(report.removed.begin(), report.removed.end(), listed) != report.removed.end()) continue;
        if (fs::exists(f, ec)) remove(f, "work folder");
    }
    return report;
}

}  // namespace hxagent
