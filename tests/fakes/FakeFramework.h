// The fake framework: a link-time stand-in for the framework runtime in plug-in tests.
//
// It captures every log line, records sleeps instead of sleeping, lets a test raise the
// cancel flag (at once or after the Nth check), hands out predictable GUIDs, keeps the
// cleaner's entities in memory (honouring the cleaner contracts, with failures on demand
// and orphans), and scripts the disk mapper. The environment-free framework code (strings,
// files, CVMInfo defaults) is the real one. State is process-wide: call fakefw::Reset() in
// each test's set-up.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "EvDebug.h"
#include "VMInfoStructs.h"

namespace fakefw {

// ---- Logs ----
struct LogLine {
    std::string tag;
    EvLogKind kind = EvLogKind::Debug;
    int level = 0;  // 0 for Error lines, 1 for Debug, n for DebugLvl(n)
    std::string text;
    bool isError() const { return kind == EvLogKind::Error; }
};
// Every line written since the last Reset, in order (DebugLvl lines of every level).
const std::vector<LogLine>& Logs();
// Lines whose text equals `text` exactly.
std::vector<LogLine> LinesWithText(const std::string& text);
// Whether some line has exactly this text (and, when given, this tag).
bool HasLine(const std::string& text);
bool HasLine(const std::string& tag, const std::string& text);
// The texts of the lines written under `tag`, in order.
std::vector<std::string> TextsWithTag(const std::string& tag);
// The texts of all Error lines, in order.
std::vector<std::string> ErrorTexts();
// Everything in one string, one line per log line, for failure messages.
std::string Dump();

// ---- Job ----
void SetJobId(long long id);        // what EvEvent::getJobId returns (default -123456)
void SetApplicationName(const std::string& name);
void SetFocus(const std::string& focus);

// ---- Cancel flag ----
// IsJobCancelled answers false for the first `checks` calls and true from then on;
// CancelAfterChecks(0) cancels at once. Reset clears it (never cancelled).
void CancelAfterChecks(int checks);
int CancelChecks();  // how often IsJobCancelled was asked

// ---- Sleeps ----
struct SleepRecord {
    unsigned milliseconds = 0;
    bool withSourcePosition = false;  // through ZUSLEEP_InTeRnAl rather than FXThread::Sleep
};
const std::vector<SleepRecord>& Sleeps();
// Called on every recorded sleep (after recording), e.g. to change the fake cloud while
// the plug-in "waits".
void OnSleep(std::function<void(const SleepRecord&)> hook);

// ---- Mount directory ----
void SetPrepareMountPathResult(int result);  // default 1
const std::vector<std::string>& PreparedMountPaths();

// ---- GUIDs ---- "guid-1", "guid-2", ... in order of creation.

// ---- Cleaner store ----
struct Entity {
    int row = 0;
    std::string identity;  // the id given to Init
    VM_Cleaner_Mode mode = VM_CLEANER_MODE_BACKUP;
    VM_Cleaner_EntityType kind = VM_CLEANER_ENTITY_VM;
    std::string id;
    int parentRow = 0;      // 0 for a root
    bool orphaned = false;  // roots only: left behind by an earlier process
};
class CleanerStore {
public:
    // The operations of VMCleaner by name ("Init", "RegisterEntity", "LookupEntity", ...).
    // Makes the next `times` calls of `op` fail without touching the store.
    void FailNext(const std::string& op, int times = 1);
    // Makes every call of `op` fail until Reset.
    void FailAlways(const std::string& op);
    int CallCount(const std::string& op) const;
    // Adds a root VM entity left by an earlier process, and children under it; returns its row.
    int AddOrphanVM(VM_Cleaner_Mode mode, const std::string& vmGuid);
    int AddChild(int parentRow, VM_Cleaner_EntityType kind, const std::string& id);
    void MarkOrphaned(const std::string& vmGuid);
    // Overrides IsAllVMCleanupRequired's answer (default: whether orphaned roots exist).
    void SetCleanupRequired(bool required);
    // When on, registering a root that is already registered live with the same identity,
    // mode, kind and id adds nothing and succeeds, as the runtime store does for a root its
    // own process holds (a retried restore registers its temporary id again). Off by
    // default: every registration adds an entity. Reset turns it off.
    void SetRootRegistrationIdempotent(bool on) { rootRegistrationIdempotent = on; }
    bool rootRegistrationIdempotent = false;

    const std::vector<Entity>& Entities() const { return entities_; }
    // Ids of the entities of `kind` under the root VM `vmGuid` (any mode), in order.
    std::vector<std::string> ChildrenOf(const std::string& vmGuid, VM_Cleaner_EntityType kind) const;
    bool HasVM(const std::string& vmGuid) const;
    bool Empty() const { return entities_.empty(); }
    std::string initIdentity;  // last identity given to Init
    int postAllVMCleanupCalls = 0;

    // ---- used by the fake VMCleaner ----
    bool Begin(const std::string& op);  // counts the call; false when it must fail
    Entity* FindRow(int row);
    int AddEntity(Entity e);
    void RemoveRow(int row);  // with its children
    bool cleanupRequiredSet = false;
    bool cleanupRequired = false;

private:
    std::vector<Entity> entities_;
    int nextRow_ = 1;
    std::map<std::string, int> failNext_;
    std::set<std::string> failAlways_;
    std::map<std::string, int> calls_;
};
CleanerStore& Cleaner();

// ---- Disk mapper ----
struct MapperCall {
    std::string op;
    std::string arg;  // disk id or device name; "failed" attaches add " failed"
};
class MapperScript {
public:
    // Operations by name ("Init", "PreAttachDisk", "PostAttachDisk", "PreDetatchDisk", ...).
    void FailNext(const std::string& op, int times = 1);
    // The device PostAttachDisk reports for a disk (default "/dev/fake/<disk id>") and its
    // size in bytes (default 1 GiB).
    std::map<std::string, std::string> deviceFor;
    std::map<std::string, long long> sizeFor;
    const std::vector<MapperCall>& Calls() const { return calls_; }
    std::vector<std::string> CallNames() const;
    int Count(const std::string& op) const;

    bool Record(const std::string& op, const std::string& arg);  // false when it must fail

private:
    std::vector<MapperCall> calls_;
    std::map<std::string, int> failNext_;
};
MapperScript& Mapper();

// Clears every piece of fake framework state.
void Reset();

}  // namespace fakefw
