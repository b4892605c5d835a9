#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "JobRecords.h"

namespace hxagent {
namespace {

namespace fs = std::filesystem;

class JobRecords : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("hxagent-jobs-" + std::to_string(::getpid()));
        fs::remove_all(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    // A record claimed by a process that has ended since: a killed job.
    void KilledJob(long long id, const std::string& backupFolder) {
        const pid_t child = ::fork();
        if (child == 0) {
            std::string error;
            auto record = JobRecord::Claim(dir_.string(), id, "backup", error);
            std::string work;
            if (!record || !record->WorkFolder(work, error)) ::_exit(1);
            std::ofstream(work + "/partial") << "x";
            record->SetBackupFolder(backupFolder);
            ::_exit(0);  // no destructor: as if killed
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    fs::path dir_;
};

TEST_F(JobRecords, TwoClaimsOfOneIdGetTwoIdsAndPrivateFiles) {
    ::umask(0);
    std::string error;
    auto a = JobRecord::Claim(dir_.string(), 100, "backup", error);
    auto b = JobRecord::Claim(dir_.string(), 100, "restore", error);
    ::umask(022);
    ASSERT_TRUE(a && b) << error;
    EXPECT_EQ(a->id(), 100);
    EXPECT_EQ(b->id(), 101);
    std::string work;
    ASSERT_TRUE(a->WorkFolder(work, error)) << error;
    const auto closed = fs::perms::group_all | fs::perms::others_all;
    EXPECT_EQ(fs::status(dir_ / "jobs").permissions() & closed, fs::perms::none);
    EXPECT_EQ(fs::status(work).permissions() & closed, fs::perms::none);
    EXPECT_EQ(fs::status(dir_ / "jobs" / "100.job").permissions() & closed, fs::perms::none);
    a.reset();
    EXPECT_FALSE(fs::exists(work));
    EXPECT_FALSE(fs::exists(dir_ / "jobs" / "100.job"));
}

TEST_F(JobRecords, ReapRemovesWhatKilledJobsLeftAndNothingOfLiveOnesOrCompleteBackups) {
    const fs::path partial = dir_ / "backups" / "i-1" / "20240101T000000Z";
    const fs::path complete = dir_ / "backups" / "i-2" / "20240101T000000Z";
    fs::create_directories(partial);
    fs::create_directories(complete);
    std::ofstream(complete / "manifest.json") << "{}";
    KilledJob(1, partial.string());
    KilledJob(2, complete.string());
    std::string error;
    auto live = JobRecord::Claim(dir_.string(), 3, "backup", error);
    std::string liveWork;
    ASSERT_TRUE(live && live->WorkFolder(liveWork, error)) << error;
    fs::create_directories(dir_ / "jobs" / "backup-AbC123");  // an older version's work folder

    ReapReport dry = ReapKilledJobs(dir_.string(), true);
    EXPECT_EQ(dry.removed.size(), 6u);  // 1 partial folder, 2 work folders, 2 records, 1 old folder
    EXPECT_TRUE(fs::exists(partial));

    ReapReport done = ReapKilledJobs(dir_.string(), false);
    EXPECT_TRUE(done.failures.empty());
    EXPECT_EQ(done.removed, dry.removed);
    EXPECT_FALSE(fs::exists(partial));
    EXPECT_TRUE(fs::exists(complete / "manifest.json"));
    EXPECT_FALSE(fs::exists(dir_ / "jobs" / "1.work"));
    EXPECT_FALSE(fs::exists(dir_ / "jobs" / "backup-AbC123"));
    EXPECT_TRUE(fs::exists(liveWork));
    EXPECT_TRUE(fs::exists(dir_ / "jobs" / "3.job"));
}

}  // namespace
}  // namespace hxagent
