// The SQLite cleaner store: persistence, orphan detection across processes, concurrent
// writers and the operation contracts the plug-in's cleaner relies on.
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "RuntimeTestSupport.h"
#include "VMCleaner.h"

namespace {

const std::string kProxy = "i-proxy0001";
constexpr auto kBackup = VM_CLEANER_MODE_BACKUP;
constexpr auto kRestore = VM_CLEANER_MODE_RESTORE;
constexpr auto kVM = VM_CLEANER_ENTITY_VM;
constexpr auto kSnapshot = VM_CLEANER_ENTITY_SNAPSHOT;
constexpr auto kDisk = VM_CLEANER_ENTITY_DISK;

std::vector<std::string> Ids(const std::vector<CleanerEntity>& list) {
    std::vector<std::string> ids;
    for (const auto& e : list) ids.push_back(e.entityId);
    return ids;
}

std::string PathOf(VMCleaner& c, VM_Cleaner_Mode mode, const std::string& vm) {
    std::string handle, path;
    if (!c.LookupEntity(mode, kVM, vm, handle) || !c.GetCleanerPathForEntityHandle(mode, handle, path)) return {};
    return path;
}

std::vector<CleanerEntity> Orphans(VMCleaner& c, VM_Cleaner_Mode mode, const std::string& id = "") {
    std::vector<CleanerEntity> out;
    EXPECT_TRUE(c.GetOrphanedRootEntityListByType(mode, kVM, id, out));
    return out;
}

// Registers VM `vm` and its children in a fresh store object (as a child process would).
bool RegisterVmWithChildren(const std::string& vm, const std::vector<std::pair<VM_Cleaner_EntityType, std::string>>& kids) {
    VMCleaner c;
    std::string handle;
    if (!c.Init(kProxy, 0) || !c.RegisterEntity(kBackup, kVM, vm, "") || !c.LookupEntity(kBackup, kVM, vm, handle))
        return false;
    for (const auto& [kind, id] : kids)
        if (!c.RegisterEntity(kBackup, kind, id, handle)) return false;
    return true;
}

class CleanerStoreTest : public RuntimeTest {};

TEST_F(CleanerStoreTest, EntriesSurviveCloseAndReopen) {
    std::string vmPath;
    {
        VMCleaner c;
        ASSERT_TRUE(c.Init(kProxy, 0));
        ASSERT_TRUE(RegisterVmWithChildren("i-vm1", {{kDisk, "d-1"}, {kSnapshot, "s-1"}, {kDisk, "d-2"}}));
        vmPath = PathOf(c, kBackup, "i-vm1");
        ASSERT_FALSE(vmPath.empty());
        ASSERT_TRUE(c.DeInit());
        std::string handle;
        EXPECT_FALSE(c.LookupEntity(kBackup, kVM, "i-vm1", handle)) << "a closed store answers nothing";
    }
    struct stat st{};
    ASSERT_EQ(::stat(hxruntime::GetCleanerDatabasePath().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "the store is owner-only";

    VMCleaner again;
    ASSERT_TRUE(again.Init(kProxy, 0));
    EXPECT_EQ(PathOf(again, kBackup, "i-vm1"), vmPath) << "still owned by this (running) process";
    std::vector<CleanerEntity> disks;
    ASSERT_TRUE(again.FillItemsFromCleanerPath(vmPath, kDisk, disks));
    EXPECT_EQ(Ids(disks), (std::vector<std::string>{"d-1", "d-2"}));

    VMCleaner other;
    ASSERT_TRUE(other.Init("i-otherproxy", 0));
    EXPECT_TRUE(PathOf(other, kBackup, "i-vm1").empty()) << "stores are keyed by identity";
    std::vector<CleanerEntity> none;
    EXPECT_FALSE(other.FillItemsFromCleanerPath(vmPath, kDisk, none));
}

TEST_F(CleanerStoreTest, KilledOwnerLeavesAnOrphanWhoseChildrenCanBeRemoved) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(ready[0]);
        char ok = RegisterVmWithChildren("i-killed", {{kDisk, "d-k1"}, {kSnapshot, "s-k1"}, {kDisk, "d-k2"}}) ? 'y' : 'n';
        if (::write(ready[1], &ok, 1) != 1) ::_exit(2);
        for (;;) ::pause();
    }
    ::close(ready[1]);
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ::close(ready[0]);
    ASSERT_EQ(ok, 'y');

    VMCleaner c;
    ASSERT_TRUE(c.Init(kProxy, 0));
    EXPECT_TRUE(Orphans(c, kBackup).empty()) << "the owner still runs";
    EXPECT_FALSE(c.IsAllVMCleanupRequired());
    std::string handle;
    EXPECT_TRUE(c.LookupEntity(kBackup, kVM, "i-killed", handle)) << "another live process's root is live";

    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    // Killed but not yet reaped (a zombie) already counts as gone.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool orphanedBeforeReaping = false;
    while (!(orphanedBeforeReaping = !Orphans(c, kBackup).empty()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(orphanedBeforeReaping);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);

    auto orphans = Orphans(c, kBackup, "i-killed");
    ASSERT_EQ(orphans.size(), 1u);
    EXPECT_EQ(orphans[0].entityType, static_cast<std::uint32_t>(kVM));
    EXPECT_EQ(orphans[0].properties.at("ownerPid"), std::to_string(pid));
    EXPECT_TRUE(Orphans(c, kRestore).empty());
    EXPECT_FALSE(c.LookupEntity(kBackup, kVM, "i-killed", handle)) << "an orphan is not live";
    EXPECT_TRUE(c.IsAllVMCleanupRequired());

    const std::string vmPath = orphans[0].cleanerPath;
    std::vector<CleanerEntity> disks;
    ASSERT_TRUE(c.FillItemsFromCleanerPath(vmPath, kDisk, disks));
    ASSERT_EQ(Ids(disks), (std::vector<std::string>{"d-k1", "d-k2"}));
    EXPECT_TRUE(c.UnRegisterEntity(disks[0].cleanerPath, false));
    EXPECT_FALSE(c.UnRegisterEntity(disks[0].cleanerPath, false)) << "already gone";
    std::vector<CleanerEntity> left;
    ASSERT_TRUE(c.FillItemsFromCleanerPath(vmPath, kDisk, left));
    EXPECT_EQ(Ids(left), (std::vector<std::string>{"d-k2"}));

    // Removing the VM removes what is still under it.
    EXPECT_TRUE(c.UnRegisterEntity(vmPath, false));
    std::vector<CleanerEntity> gone;
    EXPECT_FALSE(c.UnRegisterEntity(left[0].cleanerPath, false));
    EXPECT_FALSE(c.FillItemsFromCleanerPath(vmPath, kSnapshot, gone));
    EXPECT_TRUE(Orphans(c, kBackup).empty());
    EXPECT_FALSE(c.IsAllVMCleanupRequired());
    EXPECT_TRUE(c.PostAllVMCleanup());
}

TEST_F(CleanerStoreTest, AWriterKilledMidStreamLeavesAConsistentStore) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::close(ready[0]);
        VMCleaner store;
        std::string handle;
        if (!store.Init(kProxy, 0) || !store.RegisterEntity(kBackup, kVM, "i-busy", "") ||
            !store.LookupEntity(kBackup, kVM, "i-busy", handle))
            ::_exit(1);
        if (::write(ready[1], "y", 1) != 1) ::_exit(2);
        for (int d = 0;; ++d) store.RegisterEntity(kBackup, kDisk, "d-" + std::to_string(d), handle);
    }
    ::close(ready[1]);
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ::close(ready[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);

    VMCleaner c;
    ASSERT_TRUE(c.Init(kProxy, 0));
    auto roots = Orphans(c, kBackup, "i-busy");
    ASSERT_EQ(roots.size(), 1u);
    // Every registration is all or nothing: the disks are d-0 .. d-(n-1), each with its path.
    std::vector<CleanerEntity> disks;
    ASSERT_TRUE(c.FillItemsFromCleanerPath(roots[0].cleanerPath, kDisk, disks));
    ASSERT_FALSE(disks.empty()) << "the writer never got going";
    for (size_t d = 0; d < disks.size(); ++d) {
        EXPECT_EQ(disks[d].entityId, "d-" + std::to_string(d));
        EXPECT_TRUE(disks[d].cleanerPath.starts_with(roots[0].cleanerPath + "/disk/d-" + std::to_string(d) + "#"))
            << disks[d].cleanerPath;
    }
    EXPECT_TRUE(c.UnRegisterEntity(roots[0].cleanerPath, false)) << "the store still takes writes";

    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(hxruntime::GetCleanerDatabasePath().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* check = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
    sqlite3_finalize(check);
    sqlite3_close(db);
}

TEST_F(CleanerStoreTest, ReusedPidOrEarlierBootMeansOrphaned) {
    VMCleaner c;
    ASSERT_TRUE(c.Init(kProxy, 0));
    for (const char* vm : {"i-reused", "i-rebooted", "i-mine"}) ASSERT_TRUE(c.RegisterEntity(kBackup, kVM, vm, ""));

    // Same pid as ours, but another start time / another boot: what a reused pid looks like.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(hxruntime::GetCleanerDatabasePath().c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 5000);
    EXPECT_EQ(sqlite3_exec(db,
                           "UPDATE entity SET owner_start = owner_start + 1 WHERE cloud_id = 'i-reused';"
                           "UPDATE entity SET owner_boot = 'another-boot' WHERE cloud_id = 'i-rebooted';",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);

    EXPECT_EQ(Ids(Orphans(c, kBackup)), (std::vector<std::string>{"i-reused", "i-rebooted"}));
    std::string handle;
    EXPECT_FALSE(c.LookupEntity(kBackup, kVM, "i-reused", handle));
    EXPECT_FALSE(c.LookupEntity(kBackup, kVM, "i-rebooted", handle));
    EXPECT_TRUE(c.LookupEntity(kBackup, kVM, "i-mine", handle));
    EXPECT_TRUE(c.IsAllVMCleanupRequired());
}

TEST_F(CleanerStoreTest, ConcurrentWritersLoseNothing) {
    constexpr int kWriters = 4;
    constexpr int kDisksEach = 40;
    {
        VMCleaner create;  // the store exists before the race, as on a working proxy
        ASSERT_TRUE(create.Init(kProxy, 0));
    }
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::vector<pid_t> pids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(go[1]);
            char c;
            if (::read(go[0], &c, 1) != 0) ::_exit(3);  // wait for the start: the pipe closing
            VMCleaner store;
            std::string vm = "i-writer" + std::to_string(w), handle;
            if (!store.Init(kProxy, 0) || !store.RegisterEntity(kBackup, kVM, vm, "") ||
                !store.LookupEntity(kBackup, kVM, vm, handle))
                ::_exit(100);
            int failures = 0;
            for (int d = 0; d < kDisksEach; ++d)
                if (!store.RegisterEntity(kBackup, kDisk, "d-" + std::to_string(w) + "-" + std::to_string(d), handle))
                    ++failures;
            ::_exit(failures);
        }
        pids.push_back(pid);
    }
    ::close(go[0]);
    ::close(go[1]);
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0) << "failed registrations in writer " << pid;
    }

    VMCleaner c;
    ASSERT_TRUE(c.Init(kProxy, 0));
    auto roots = Orphans(c, kBackup);  // the writers have exited
    ASSERT_EQ(roots.size(), static_cast<size_t>(kWriters));
    for (const auto& root : roots) {
        std::vector<CleanerEntity> disks;
        ASSERT_TRUE(c.FillItemsFromCleanerPath(root.cleanerPath, kDisk, disks));
        ASSERT_EQ(disks.size(), static_cast<size_t>(kDisksEach)) << root.entityId;
        std::string w = root.entityId.substr(std::string("i-writer").size());
        for (int d = 0; d < kDisksEach; ++d) EXPECT_EQ(disks[d].entityId, "d-" + w + "-" + std::to_string(d));
    }
}

TEST_F(CleanerStoreTest, OperationContracts) {
    VMCleaner c;
    std::string handle, path;
    EXPECT_FALSE(c.RegisterEntity(kBackup, kVM, "i-vm", "")) << "not initialised";
    EXPECT_FALSE(c.Init("", 0));
    ASSERT_TRUE(c.Init(kProxy, 0));
    ASSERT_TRUE(c.RegisterEntity(kBackup, kVM, "i-vm", ""));
    ASSERT_TRUE(c.LookupEntity(kBackup, kVM, "i-vm", handle));
    ASSERT_TRUE(c.GetCleanerPathForEntityHandle(kBackup, handle, path));

    // Registering the same root again from the same process adds nothing.
    ASSERT_TRUE(c.RegisterEntity(kBackup, kVM, "i-vm", ""));
    std::string again;
    ASSERT_TRUE(c.LookupEntity(kBackup, kVM, "i-vm", again));
    EXPECT_EQ(again, handle);

    // Children: duplicates allowed, listed in registration order, appended to the output.
    for (const char* d : {"d-1", "d-2", "d-1"}) ASSERT_TRUE(c.RegisterEntity(kBackup, kDisk, d, handle));
    std::vector<CleanerEntity> list(1);
    ASSERT_TRUE(c.FillItemsFromCleanerPath(path, kDisk, list));
    EXPECT_EQ(Ids(list), (std::vector<std::string>{"", "d-1", "d-2", "d-1"}));
    EXPECT_NE(list[1].cleanerPath, list[3].cleanerPath);
    std::vector<CleanerEntity> snaps;
    EXPECT_TRUE(c.FillItemsFromCleanerPath(path, kSnapshot, snaps)) << "no children of a kind is not an error";
    EXPECT_TRUE(snaps.empty());

    std::string tampered = path.substr(0, path.rfind('#') + 1) + "999999";
    struct Case {
        const char* what;
        std::function<bool()> call;
    };
    const Case refused[] = {
        {"child under a malformed handle", [&] { return c.RegisterEntity(kBackup, kDisk, "d-x", "entity:x1"); }},
        {"child under an unknown handle", [&] { return c.RegisterEntity(kBackup, kDisk, "d-x", "entity:999999"); }},
        {"child with an empty id", [&] { return c.RegisterEntity(kBackup, kDisk, "", handle); }},
        {"lookup in the other mode", [&] { return c.LookupEntity(kRestore, kVM, "i-vm", again); }},
        {"lookup of another kind", [&] { return c.LookupEntity(kBackup, kDisk, "i-vm", again); }},
        {"path of a handle in the other mode", [&] { return c.GetCleanerPathForEntityHandle(kRestore, handle, again); }},
        {"unregister an unknown path", [&] { return c.UnRegisterEntity("/nowhere#1", false); }},
        {"unregister a path with another row number", [&] { return c.UnRegisterEntity(tampered, false); }},
        {"list an unknown path", [&] { return c.FillItemsFromCleanerPath(tampered, kDisk, snaps); }},
    };
    for (const auto& k : refused) EXPECT_FALSE(k.call()) << k.what;

    // Mode "none" succeeds without recording anything.
    EXPECT_TRUE(c.RegisterEntity(VM_CLEANER_MODE_NONE, kVM, "i-none", ""));
    EXPECT_FALSE(c.LookupEntity(VM_CLEANER_MODE_NONE, kVM, "i-none", again));

    // A child's lookup follows its root's liveness.
    EXPECT_TRUE(c.LookupEntity(kBackup, kDisk, "d-2", again));
    ASSERT_TRUE(c.UnRegisterEntity(path, false));
    EXPECT_FALSE(c.LookupEntity(kBackup, kDisk, "d-2", again)) << "children go with their root";
    EXPECT_FALSE(c.GetCleanerPathForEntityHandle(kBackup, handle, again)) << "handles are never reused";
}

}  // namespace
