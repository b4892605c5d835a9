// Repository backups end to end: the real restic (and a real `rclone serve restic`), hxagent
// as a child process, the emulator in this process.
#include "RepositoryFixture.h"

namespace {

using namespace hxe2e;

// Two backups of one instance into a local repository: the second adds almost nothing, both
// are listed, and a restore of the second is byte-identical. The password shows up nowhere.
TEST_F(RepositoryE2E, LocalRepositoryRoundTripIsByteIdenticalAndIncremental) {
    RunResult first, second;
    const std::string a = BackupTo(repo_, "app-01", &first);
    const std::string b = BackupTo(repo_, "app-01", &second);
    ASSERT_FALSE(a.empty());
    ASSERT_FALSE(b.empty());
    const auto firstAdded = first.doc.value("addedBytes", std::uint64_t{0});
    const auto secondAdded = second.doc.value("addedBytes", std::uint64_t{0});
    EXPECT_GT(firstAdded, 0u);
    EXPECT_LT(secondAdded * 100, firstAdded) << "the second backup added " << secondAdded << " bytes";
    EXPECT_EQ(Listed(repo_), (std::vector<std::string>{a, b}));
    ExpectNothingLeft();

    RestoreAndCompare(repo_, b.substr(0, 8), "app-01-from-repo");
    ExpectNothingLeft();

    // The restore's pre-flight runs on the manifest and configuration document read from
    // the repository, before any data is read or anything is created.
    const json before = State();
    RunResult refused = Run({"restore", a, "--repo", repo_, "--name", "app-01-other", "--zone", "cn-hangzhou-i"});
    EXPECT_EQ(refused.exitCode, 2) << refused.out << refused.err;
    EXPECT_NE(refused.out.find("cn-hangzhou-i"), std::string::npos) << refused.out;
    RunResult plan = Run({"restore", a, "--repo", repo_, "--name", "app-01-other", "--dry-run"});
    EXPECT_EQ(plan.exitCode, 0) << plan.out << plan.err;
    EXPECT_TRUE(plan.doc.value("dryRun", false)) << plan.out;
    RunResult unknown = Run({"restore", "0badc0de", "--repo", repo_, "--name", "app-01-other"});
    EXPECT_EQ(unknown.exitCode, 2) << unknown.out << unknown.err;
    EXPECT_EQ(State()["instances"].size(), before["instances"].size());
    EXPECT_EQ(State()["disks"].size(), before["disks"].size());
    EXPECT_FALSE(Leaks(password_, dir_, first.out + first.err + second.out + second.err));
}

// The same through a rest: repository served by rclone on 127.0.0.1, with the server's
// password in the repository URL: it never appears in a message, a log or a state file.
TEST_F(RepositoryE2E, RestRepositoryThroughRcloneRoundTrips) {
    const std::string serverPassword = "srv-" + password_;
    RcloneServer server(dir_ + "/served", "hx", serverPassword);
    ASSERT_TRUE(server.ready()) << "rclone serve restic did not start";
    const std::string repo = "rest:http://hx:" + serverPassword + "@127.0.0.1:" + std::to_string(server.port()) + "/";
    RunResult backup;
    const std::string id = BackupTo(repo, "db-01", &backup);
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(Listed(repo), std::vector<std::string>{id});
    EXPECT_NE(backup.doc.value("repository", "").find("hx:***@"), std::string::npos) << backup.out;
    RestoreAndCompare(repo, id, "db-01-from-rest");
    ExpectNothingLeft();
    RunResult wrong = Run({"backups", "--repo", repo, "--password-file", dir_ + "/nonexistent"});
    EXPECT_NE(wrong.exitCode, 0);
    for (const auto& secret : {password_, serverPassword})
        EXPECT_FALSE(Leaks(secret, dir_, backup.out + backup.err + wrong.out + wrong.err)) << "a secret leaked";
}

// forget keeps per instance exactly what the rules name and takes each removed backup's
// disks with it; --dry-run changes nothing.
TEST_F(RepositoryE2E, ForgetKeepsExactlyTheBackupsItsRulesName) {
    std::vector<std::string> db;
    for (int i = 0; i < 3; ++i) db.push_back(BackupTo(repo_, "db-01"));
    const std::string web = BackupTo(repo_, "web-01");
    for (const auto& id : db) ASSERT_FALSE(id.empty());
    const std::size_t partsBefore = Snapshots(repo_).size();

    RunResult dry = Run({"forget", "--repo", repo_, "--keep-last", "2", "--dry-run"});
    ASSERT_EQ(dry.exitCode, 0) << dry.out << dry.err;
    ASSERT_EQ(dry.doc["removed"].size(), 1u) << dry.out;
    EXPECT_EQ(dry.doc["removed"][0].value("id", ""), db[0]);
    EXPECT_EQ(Snapshots(repo_).size(), partsBefore);

    RunResult r = Run({"forget", "--repo", repo_, "--keep-last", "2", "--prune"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    auto listed = Listed(repo_);
    std::sort(listed.begin(), listed.end());
    std::vector<std::string> expected{db[1], db[2], web};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listed, expected);
    // db-01 has two disks: manifest, configuration document and both disks went.
    EXPECT_EQ(Snapshots(repo_).size(), partsBefore - 4);
    EXPECT_EQ(r.doc.value("partsRemoved", 0), 3);

    RunResult one = Run({"forget", "--repo", repo_, "--keep-last", "1", "--instance", "i-hxsim0vm000000000002"});
    ASSERT_EQ(one.exitCode, 0) << one.out << one.err;
    listed = Listed(repo_);
    std::sort(listed.begin(), listed.end());
    expected = {db[2], web};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listed, expected);

    RunResult none = Run({"forget", "--repo", repo_});
    EXPECT_EQ(none.exitCode, 2) << "forget without a rule must refuse";
}

// verify reads everything back: a damaged pack file in a repository and a damaged image in
// a plain folder are both reported; a restore from the damaged repository fails and leaves
// nothing behind.
TEST_F(RepositoryE2E, VerifyReportsDamageInBothFormats) {
    const std::string id = BackupTo(repo_, "db-01");
    ASSERT_FALSE(id.empty());
    RunResult good = Run({"verify", id, "--repo", repo_});
    EXPECT_EQ(good.exitCode, 0) << good.out << good.err;

    hxagent::Manifest m;
    const std::string folder = Backup("db-01", m);
    ASSERT_FALSE(folder.empty());
    EXPECT_EQ(Run({"verify", folder}).exitCode, 0);
    // The catalogue of a plain folder: complete backups only.
    fs::create_directories(dir_ + "/backups/" + m.instanceId + "/20000101T000000Z");  // no manifest
    RunResult listed = Run({"backups", dir_ + "/backups"});
    ASSERT_EQ(listed.exitCode, 0) << listed.out << listed.err;
    ASSERT_EQ(listed.doc["backups"].size(), 1u) << listed.out;
    EXPECT_EQ(listed.doc["backups"][0].value("id", ""), folder);
    EXPECT_EQ(listed.doc["backups"][0].value("disks", 0), 2);

    auto flip = [](const std::string& path, std::uint64_t at) {
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(static_cast<std::streamoff>(at));
        char byte = 0;
        f.get(byte);
        f.seekp(static_cast<std::streamoff>(at));
        f.put(static_cast<char>(byte ^ 0x5a));
    };
    // The largest pack holds disk data.
    std::string pack;
    std::uintmax_t largest = 0;
    for (auto& e : fs::recursive_directory_iterator(repo_ + "/data"))
        if (e.is_regular_file() && e.file_size() > largest) {
            largest = e.file_size();
            pack = e.path().string();
        }
    ASSERT_FALSE(pack.empty());
    fs::permissions(pack, fs::perms::owner_write, fs::perm_options::add);
    flip(pack, largest / 2);
    flip(folder + "/" + m.disks.back().image, 4096);

    RunResult badRepo = Run({"verify", id, "--repo", repo_});
    EXPECT_EQ(badRepo.exitCode, 3) << badRepo.out << badRepo.err;
    EXPECT_FALSE(badRepo.doc.value("ok", true));
    RunResult badFolder = Run({"verify", folder});
    EXPECT_EQ(badFolder.exitCode, 3) << badFolder.out << badFolder.err;
    EXPECT_NE(badFolder.out.find("does not match its checksum"), std::string::npos) << badFolder.out;

    RunResult restore = Run({"restore", id, "--repo", repo_, "--name", "db-01-damaged"});
    EXPECT_NE(restore.exitCode, 0) << restore.out;
    EXPECT_TRUE(Instances(State(), "db-01-damaged").empty());
    ExpectNothingLeft();
}

// A backup killed while it streams a disk leaves nothing in the catalogue; cleanup removes
// the stale repository lock, the unfinished backup's snapshots and the cloud objects.
TEST_F(RepositoryE2E, KilledBackupLeavesNothingAndCleanupClearsItsLock) {
    ASSERT_FALSE(BackupTo(repo_, "web-01").empty());  // creates the repository
    const std::size_t snapshotsBefore = Snapshots(repo_).size();
    auto count = [](const std::string& dir) {
        std::error_code ec;
        std::size_t n = 0;
        for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); ++it) ++n;
        return n;
    };
    auto child = Start({"backup", "app-01", "--repo", repo_});
    // Killed once a first disk is stored (and its restic gone) and the next disk's restic
    // has taken its lock and streams.
    int phase = 0;  // 0: first part stored, 1: its lock gone, 2: the next part's lock taken
    for (int i = 0; i < 40000 && child->Running() && phase < 2; ++i) {
        if (phase == 0 && count(repo_ + "/snapshots") > snapshotsBefore && count(repo_ + "/locks") == 0) phase = 1;
        if (phase == 1 && count(repo_ + "/locks") > 0) phase = 2;
        if (phase < 2) std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(phase, 2) << "the backup never streamed a second part";
    std::this_thread::sleep_for(100ms);
    child->Signal(SIGKILL);
    RunResult killed = child->Wait();
    EXPECT_EQ(killed.signal, SIGKILL);
    std::this_thread::sleep_for(200ms);  // restic follows its parent
    EXPECT_GT(count(repo_ + "/locks"), 0u) << "the killed restic left no lock";
    EXPECT_EQ(Listed(repo_).size(), 1u);
    EXPECT_GT(Snapshots(repo_).size(), snapshotsBefore);

    RunResult c = Run({"cleanup"});  // the repository comes from the killed job's record
    EXPECT_EQ(c.exitCode, 0) << c.out << c.err;
    EXPECT_EQ(count(repo_ + "/locks"), 0u);
    EXPECT_EQ(Snapshots(repo_).size(), snapshotsBefore);
    EXPECT_EQ(Listed(repo_).size(), 1u);
    ExpectNothingLeft();
}

// Two hxagent processes with their own state folders write into one repository at once.
TEST_F(RepositoryE2E, ConcurrentBackupsIntoOneRepositoryBothAppear) {
    ASSERT_FALSE(BackupTo(repo_, "web-01").empty());
    auto args = [&](const std::string& state, const std::string& instance) {
        return std::vector<std::string>{"--state-dir", dir_ + "/" + state, "--json", "backup", instance, "--repo", repo_};
    };
    Child one(args("state-a", "db-01"), env_, dir_);
    Child two(args("state-b", "app-01"), env_, dir_);
    RunResult a = one.Wait(), b = two.Wait();
    ASSERT_EQ(a.exitCode, 0) << a.out << a.err;
    ASSERT_EQ(b.exitCode, 0) << b.out << b.err;
    const auto listed = Listed(repo_);
    EXPECT_EQ(listed.size(), 3u);
    for (const auto& id : {a.doc.value("backupId", ""), b.doc.value("backupId", "")})
        EXPECT_NE(std::find(listed.begin(), listed.end(), id), listed.end()) << id;
}

}  // namespace
