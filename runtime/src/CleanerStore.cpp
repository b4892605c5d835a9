// The persistent cleaner (VMCleaner) over SQLite.
//
// Store: one database file (hxruntime::GetCleanerDatabasePath(), mode 0600, folder 0700)
// shared by every identity and process on the machine. WAL journal, synchronous=FULL,
// foreign keys on, 15 s busy timeout. Every change is one BEGIN IMMEDIATE transaction, so
// writers from several processes queue instead of failing, and a process killed at any
// point leaves either the whole change or none of it.
//
// Schema (user_version 1):
//   entity(id INTEGER PRIMARY KEY AUTOINCREMENT  -- never reused: a stale handle or path
//                                                  cannot name a later entity
//          identity TEXT      -- the id given to Init (the proxy's instance id)
//          mode, kind INTEGER -- VM_Cleaner_Mode, VM_Cleaner_EntityType
//          cloud_id TEXT      -- the registered cloud id
//          parent INTEGER     -- NULL for a root; ON DELETE CASCADE removes descendants
//          root INTEGER       -- NULL for a root, else the id of the root above it
//          path TEXT          -- the cleaner path (below)
//          owner_pid, owner_start, owner_boot  -- roots only: the registering process
//          registered_ms INTEGER)              -- Unix time in milliseconds
//   sweep(identity TEXT PRIMARY KEY, last_sweep_ms, swept_by_pid)  -- PostAllVMCleanup
//
// Handles are "entity:<id>". Cleaner paths are "/<identity>/<mode>/<kind>/<cloud id>#<id>"
// for a root and "<parent path>/<kind>/<cloud id>#<id>" for a child, with mode "backup",
// "restore" and kind "vm", "snapshot", "disk", "template" (other values as numbers). Both
// are opaque to callers; a path is accepted only if it is exactly the stored one.
//
// Orphans: a root is orphaned when its owner (pid, start time, boot id) is no longer running
// (ProcessIdentity.h). LookupEntity finds an entity only when its root is live, preferring
// one owned by the calling process, then the newest. Registering a root that the calling
// process already owns (same mode, kind, id) returns true without a duplicate; children are
// always added (duplicates allowed, listed in registration order).
// Mode VM_CLEANER_MODE_NONE registers nothing and reports success.
//
// Threads: one mutex per VMCleaner. Processes: do not use a VMCleaner across fork(); open
// a new one in the child.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <tuple>

#include "FsUtil.h"
#include "ProcessIdentity.h"
#include "SqliteDb.h"
#include "VMCleaner.h"
#include "hxruntime/HostApi.h"

using namespace VMInfoStructs;
using hxruntime::detail::IsProcessRunning;
using hxruntime::detail::ProcessIdentity;
using hxruntime::detail::SqliteDb;
using hxruntime::detail::SqliteStmt;
using hxruntime::detail::SqliteWriteTxn;

namespace {

constexpr int kBusyTimeoutMs = 15000;
constexpr int kSchemaVersion = 1;

const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS entity(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  identity TEXT NOT NULL,
  mode INTEGER NOT NULL,
  kind INTEGER NOT NULL,
  cloud_id TEXT NOT NULL,
  parent INTEGER REFERENCES entity(id) ON DELETE CASCADE,
  root INTEGER,
  path TEXT NOT NULL DEFAULT '',
  owner_pid INTEGER,
  owner_start INTEGER,
  owner_boot TEXT,
  registered_ms INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS entity_by_id ON entity(identity, mode, kind, cloud_id);
CREATE INDEX IF NOT EXISTS entity_by_parent ON entity(parent, kind);
CREATE INDEX IF NOT EXISTS entity_by_path ON entity(path);
CREATE TABLE IF NOT EXISTS sweep(
  identity TEXT PRIMARY KEY,
  last_sweep_ms INTEGER NOT NULL,
  swept_by_pid INTEGER NOT NULL);
)sql";

// Columns every entity query selects, in this order.
#define HX_ENTITY_COLUMNS "id, mode, kind, cloud_id, parent, path, owner_pid, owner_start, owner_boot, registered_ms"

struct Row {
    std::int64_t id = 0;
    std::uint32_t mode = 0;
    std::uint32_t kind = 0;
    std::string cloudId;
    std::int64_t parent = 0;  // 0 = root
    std::string path;
    ProcessIdentity owner;
    std::int64_t registeredMs = 0;
};

Row ReadRow(const SqliteStmt& q) {
    Row r;
    r.id = q.i64(0);
    r.mode = static_cast<std::uint32_t>(q.i64(1));
    r.kind = static_cast<std::uint32_t>(q.i64(2));
    r.cloudId = q.text(3);
    r.parent = q.isNull(4) ? 0 : q.i64(4);
    r.path = q.text(5);
    r.owner.pid = static_cast<long>(q.i64(6));
    r.owner.startTicks = static_cast<std::uint64_t>(q.i64(7));
    r.owner.bootId = q.text(8);
    r.registeredMs = q.i64(9);
    return r;
}

std::string ModeName(std::uint32_t mode) {
    switch (mode) {
        case VM_CLEANER_MODE_BACKUP: return "backup";
        case VM_CLEANER_MODE_RESTORE: return "restore";
        default: return std::to_string(mode);
    }
}

std::string KindName(std::uint32_t kind) {
    switch (kind) {
        case VM_CLEANER_ENTITY_VM: return "vm";
        case VM_CLEANER_ENTITY_SNAPSHOT: return "snapshot";
        case VM_CLEANER_ENTITY_DISK: return "disk";
        case VM_CLEANER_ENTITY_TEMPLATE: return "template";
        default: return std::to_string(kind);
    }
}

std::string MakeHandle(std::int64_t id) { return "entity:" + std::to_string(id); }

// "entity:<digits>" -> id; 0 when malformed.
std::int64_t ParseHandle(const std::string& handle) {
    static const std::string prefix = "entity:";
    if (handle.size() <= prefix.size() || handle.size() > prefix.size() + 18 || handle.compare(0, prefix.size(), prefix) != 0)
        return 0;
    std::int64_t id = 0;
    for (size_t i = prefix.size(); i < handle.size(); ++i) {
        char c = handle[i];
        if (c < '0' || c > '9') return 0;
        id = id * 10 + (c - '0');
    }
    return id;
}

std::int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool SameProcess(const ProcessIdentity& a, const ProcessIdentity& b) {
    return a.pid == b.pid && a.startTicks == b.startTicks && a.bootId == b.bootId;
}

// Liveness of owners, asked once per distinct owner within one operation.
class LivenessCache {
public:
    bool Running(const ProcessIdentity& p) {
        auto key = std::make_tuple(p.pid, p.startTicks, p.bootId);
        auto it = known_.find(key);
        if (it != known_.end()) return it->second;
        bool alive = IsProcessRunning(p);
        known_.emplace(key, alive);
        return alive;
    }

private:
    std::map<std::tuple<long, std::uint64_t, std::string>, bool> known_;
};

CleanerEntity ToEntity(const Row& r) {
    CleanerEntity e;
    e.entityType = r.kind;
    e.entityId = r.cloudId;
    e.cleanerPath = r.path;
    e.properties["mode"] = ModeName(r.mode);
    e.properties["registeredMs"] = std::to_string(r.registeredMs);
    if (r.parent == 0) {
        e.properties["ownerPid"] = std::to_string(r.owner.pid);
        e.properties["ownerStartTicks"] = std::to_string(r.owner.startTicks);
        e.properties["ownerBootId"] = r.owner.bootId;
    } else {
        e.properties["parent"] = MakeHandle(r.parent);
    }
    return e;
}

}  // namespace

struct VMCleaner::Impl {
    std::mutex mu;
    SqliteDb db;
    std::string identity;  // "" while closed

    bool Open(const std::string& id);
    bool FindByPath(const std::string& path, Row& out);
    bool FindById(std::int64_t id, Row& out);
};

bool VMCleaner::Impl::Open(const std::string& id) {
    std::string path = hxruntime::GetCleanerDatabasePath();
    if (path.empty()) return false;
    std::string folder = hxruntime::detail::ParentOf(path);
    if (!folder.empty() && !hxruntime::detail::MakeDirectories(folder, 0700)) return false;
    // Create the file owner-only before SQLite sees it (SQLite would apply the umask to
    // 0644); its -wal and -shm files copy this mode. An empty file is a new database.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) ::close(fd);
    if (!db.open(path, kBusyTimeoutMs)) return false;

    // Switching to WAL needs a moment of exclusive access; another process opening the new
    // store at the same instant can hold it briefly.
    bool wal = false;
    for (int i = 0; i < 100 && !wal; ++i) {
        wal = db.exec("PRAGMA journal_mode=WAL");
        if (!wal) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!wal || !db.exec("PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON")) {
        db.close();
        return false;
    }
    SqliteWriteTxn txn(db);
    if (!txn.ok()) {
        db.close();
        return false;
    }
    SqliteStmt ver(db, "PRAGMA user_version");
    std::int64_t version = ver.row() ? ver.i64(0) : -1;
    bool ok = version >= 0 && version <= kSchemaVersion && db.exec(kSchema) &&
              (version == kSchemaVersion || db.exec("PRAGMA user_version=1")) && txn.commit();
    if (!ok) {
        db.close();
        return false;
    }
    identity = id;
    return true;
}

bool VMCleaner::Impl::FindByPath(const std::string& path, Row& out) {
    SqliteStmt q(db, "SELECT " HX_ENTITY_COLUMNS " FROM entity WHERE path=?1 AND identity=?2");
    q.bind(1, path).bind(2, identity);
    if (!q.row()) return false;
    out = ReadRow(q);
    return true;
}

bool VMCleaner::Impl::FindById(std::int64_t id, Row& out) {
    SqliteStmt q(db, "SELECT " HX_ENTITY_COLUMNS " FROM entity WHERE id=?1 AND identity=?2");
    q.bind(1, id).bind(2, identity);
    if (!q.row()) return false;
    out = ReadRow(q);
    return true;
}

VMCleaner::VMCleaner() : impl_(new (std::nothrow) Impl) {}
VMCleaner::~VMCleaner() = default;

// Every operation: no store (allocation failed or not initialised) -> false; any exception
// (allocation) -> false.
#define HX_CLEANER_GUARD()                     \
    if (!impl_) return false;                  \
    std::lock_guard lock(impl_->mu);           \
    if (impl_->identity.empty()) return false

bool VMCleaner::Init(const std::string& id, UINT64 /*options*/) {
    if (!impl_ || id.empty()) return false;
    try {
        std::lock_guard lock(impl_->mu);
        impl_->db.close();
        impl_->identity.clear();
        return impl_->Open(id);
    } catch (...) {
        return false;
    }
}

bool VMCleaner::DeInit() {
    if (!impl_) return false;
    try {
        std::lock_guard lock(impl_->mu);
        impl_->db.close();
        impl_->identity.clear();
        return true;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::RegisterEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& id,
                               const std::string& parentHandle) {
    try {
        HX_CLEANER_GUARD();
        if (id.empty()) return false;
        if (mode == VM_CLEANER_MODE_NONE) return true;
        Impl& s = *impl_;
        SqliteWriteTxn txn(s.db);
        if (!txn.ok()) return false;

        std::int64_t now = NowMs();
        std::string pathPrefix;
        if (parentHandle.empty()) {
            ProcessIdentity me = hxruntime::detail::CurrentProcess();
            SqliteStmt mine(s.db,
                            "SELECT id FROM entity WHERE identity=?1 AND mode=?2 AND kind=?3 AND cloud_id=?4 "
                            "AND parent IS NULL AND owner_pid=?5 AND owner_start=?6 AND owner_boot=?7");
            mine.bind(1, s.identity).bind(2, mode).bind(3, kind).bind(4, id);
            mine.bind(5, me.pid).bind(6, static_cast<std::int64_t>(me.startTicks)).bind(7, me.bootId);
            if (mine.row()) return true;  // already ours: nothing to add
            if (mine.failed()) return false;
            SqliteStmt ins(s.db,
                           "INSERT INTO entity(identity, mode, kind, cloud_id, owner_pid, owner_start, owner_boot, "
                           "registered_ms) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
            ins.bind(1, s.identity).bind(2, mode).bind(3, kind).bind(4, id);
            ins.bind(5, me.pid).bind(6, static_cast<std::int64_t>(me.startTicks)).bind(7, me.bootId).bind(8, now);
            if (!ins.exec()) return false;
            pathPrefix = "/" + s.identity + "/" + ModeName(mode);
        } else {
            Row parent;
            std::int64_t parentId = ParseHandle(parentHandle);
            if (parentId == 0 || !s.FindById(parentId, parent)) return false;
            SqliteStmt ins(s.db,
                           "INSERT INTO entity(identity, mode, kind, cloud_id, parent, root, registered_ms) "
                           "SELECT identity, ?1, ?2, ?3, id, COALESCE(root, id), ?4 FROM entity WHERE id=?5");
            ins.bind(1, mode).bind(2, kind).bind(3, id).bind(4, now).bind(5, parentId);
            if (!ins.exec() || s.db.changes() != 1) return false;
            pathPrefix = parent.path;
        }
        std::int64_t rowId = s.db.lastInsertId();
        SqliteStmt setPath(s.db, "UPDATE entity SET path=?1 WHERE id=?2");
        setPath.bind(1, pathPrefix + "/" + KindName(kind) + "/" + id + "#" + std::to_string(rowId)).bind(2, rowId);
        return setPath.exec() && txn.commit();
    } catch (...) {
        return false;
    }
}

bool VMCleaner::LookupEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& id,
                             std::string& handle) {
    try {
        HX_CLEANER_GUARD();
        SqliteStmt q(impl_->db,
                     "SELECT e.id, r.owner_pid, r.owner_start, r.owner_boot FROM entity e "
                     "JOIN entity r ON r.id = COALESCE(e.root, e.id) "
                     "WHERE e.identity=?1 AND e.mode=?2 AND e.kind=?3 AND e.cloud_id=?4 ORDER BY e.id DESC");
        q.bind(1, impl_->identity).bind(2, mode).bind(3, kind).bind(4, id);
        ProcessIdentity me = hxruntime::detail::CurrentProcess();
        LivenessCache live;
        std::int64_t newestLive = 0;
        while (q.row()) {
            ProcessIdentity owner;
            owner.pid = static_cast<long>(q.i64(1));
            owner.startTicks = static_cast<std::uint64_t>(q.i64(2));
            owner.bootId = q.text(3);
            if (SameProcess(owner, me)) {
                handle = MakeHandle(q.i64(0));
                return true;
            }
            if (newestLive == 0 && live.Running(owner)) newestLive = q.i64(0);
        }
        if (q.failed() || newestLive == 0) return false;
        handle = MakeHandle(newestLive);
        return true;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::GetCleanerPathForEntityHandle(VM_Cleaner_Mode mode, const std::string& handle,
                                              std::string& cleanerPath) {
    try {
        HX_CLEANER_GUARD();
        Row r;
        std::int64_t id = ParseHandle(handle);
        if (id == 0 || !impl_->FindById(id, r) || r.mode != mode) return false;
        cleanerPath = r.path;
        return true;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::FillItemsFromCleanerPath(const std::string& cleanerPath, VM_Cleaner_EntityType kind,
                                         std::vector<CleanerEntity>& out) {
    try {
        HX_CLEANER_GUARD();
        Row parent;
        if (cleanerPath.empty() || !impl_->FindByPath(cleanerPath, parent)) return false;
        SqliteStmt q(impl_->db, "SELECT " HX_ENTITY_COLUMNS " FROM entity WHERE parent=?1 AND kind=?2 ORDER BY id");
        q.bind(1, parent.id).bind(2, kind);
        std::vector<CleanerEntity> found;
        while (q.row()) found.push_back(ToEntity(ReadRow(q)));
        if (q.failed()) return false;
        out.insert(out.end(), found.begin(), found.end());
        return true;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::UnRegisterEntity(const std::string& cleanerPath, bool /*flag*/) {
    try {
        HX_CLEANER_GUARD();
        if (cleanerPath.empty()) return false;
        SqliteWriteTxn txn(impl_->db);
        if (!txn.ok()) return false;
        SqliteStmt del(impl_->db, "DELETE FROM entity WHERE path=?1 AND identity=?2");
        del.bind(1, cleanerPath).bind(2, impl_->identity);
        return del.exec() && impl_->db.changes() == 1 && txn.commit();
    } catch (...) {
        return false;
    }
}

bool VMCleaner::GetOrphanedRootEntityListByType(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind,
                                                const std::string& id, std::vector<CleanerEntity>& out) {
    try {
        HX_CLEANER_GUARD();
        SqliteStmt q(impl_->db, "SELECT " HX_ENTITY_COLUMNS
                                " FROM entity WHERE identity=?1 AND mode=?2 AND kind=?3 AND parent IS NULL "
                                "AND (?4 = '' OR cloud_id=?4) ORDER BY id");
        q.bind(1, impl_->identity).bind(2, mode).bind(3, kind).bind(4, id);
        LivenessCache live;
        std::vector<CleanerEntity> found;
        while (q.row()) {
            Row r = ReadRow(q);
            if (!live.Running(r.owner)) found.push_back(ToEntity(r));
        }
        if (q.failed()) return false;
        out.insert(out.end(), found.begin(), found.end());
        return true;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::IsAllVMCleanupRequired() {
    try {
        HX_CLEANER_GUARD();
        SqliteStmt q(impl_->db,
                     "SELECT owner_pid, owner_start, owner_boot FROM entity WHERE identity=?1 AND parent IS NULL");
        q.bind(1, impl_->identity);
        LivenessCache live;
        while (q.row()) {
            ProcessIdentity owner;
            owner.pid = static_cast<long>(q.i64(0));
            owner.startTicks = static_cast<std::uint64_t>(q.i64(1));
            owner.bootId = q.text(2);
            if (!live.Running(owner)) return true;
        }
        return false;
    } catch (...) {
        return false;
    }
}

bool VMCleaner::PostAllVMCleanup() {
    try {
        HX_CLEANER_GUARD();
        SqliteWriteTxn txn(impl_->db);
        if (!txn.ok()) return false;
        SqliteStmt up(impl_->db,
                      "INSERT INTO sweep(identity, last_sweep_ms, swept_by_pid) VALUES(?1, ?2, ?3) "
                      "ON CONFLICT(identity) DO UPDATE SET last_sweep_ms=excluded.last_sweep_ms, "
                      "swept_by_pid=excluded.swept_by_pid");
        up.bind(1, impl_->identity).bind(2, NowMs()).bind(3, static_cast<std::int64_t>(::getpid()));
        return up.exec() && txn.commit();
    } catch (...) {
        return false;
    }
}
