// Definitions of the framework's environment services for tests (see FakeFramework.h).
#include "FakeFramework.h"

#include <algorithm>
#include <sstream>

#include "DiskMapperLinux.h"
#include "FxUtil.h"
#include "VMCleaner.h"
#include "VMInfo.h"

namespace fakefw {
namespace {

struct State {
    std::vector<LogLine> logs;
    long long jobId = -123456;
    std::string applicationName = "fake-app";
    std::string focus = "fake-focus";
    int cancelAfter = -1;  // -1: never
    int cancelChecks = 0;
    std::vector<SleepRecord> sleeps;
    std::function<void(const SleepRecord&)> onSleep;
    int prepareResult = 1;
    std::vector<std::string> preparedPaths;
    int guidCounter = 0;
    CleanerStore cleaner;
    MapperScript mapper;
};

State& S() {
    static State state;
    return state;
}

void RecordSleep(unsigned ms, bool withPosition) {
    SleepRecord record{ms, withPosition};
    S().sleeps.push_back(record);
    if (S().onSleep) S().onSleep(record);
}

}  // namespace

const std::vector<LogLine>& Logs() { return S().logs; }

std::vector<LogLine> LinesWithText(const std::string& text) {
    std::vector<LogLine> out;
    for (const auto& l : S().logs)
        if (l.text == text) out.push_back(l);
    return out;
}

bool HasLine(const std::string& text) { return !LinesWithText(text).empty(); }

bool HasLine(const std::string& tag, const std::string& text) {
    return std::any_of(S().logs.begin(), S().logs.end(), [&](const LogLine& l) { return l.tag == tag && l.text == text; });
}

std::vector<std::string> TextsWithTag(const std::string& tag) {
    std::vector<std::string> out;
    for (const auto& l : S().logs)
        if (l.tag == tag) out.push_back(l.text);
    return out;
}

std::vector<std::string> ErrorTexts() {
    std::vector<std::string> out;
    for (const auto& l : S().logs)
        if (l.isError()) out.push_back(l.text);
    return out;
}

std::string Dump() {
    std::ostringstream os;
    for (const auto& l : S().logs)
        os << (l.isError() ? "E" : "D") << l.level << " [" << l.tag << "] " << l.text << "\n";
    return os.str();
}

void SetJobId(long long id) { S().jobId = id; }
void SetApplicationName(const std::string& name) { S().applicationName = name; }
void SetFocus(const std::string& focus) { S().focus = focus; }
void CancelAfterChecks(int checks) { S().cancelAfter = checks; }
int CancelChecks() { return S().cancelChecks; }
const std::vector<SleepRecord>& Sleeps() { return S().sleeps; }
void OnSleep(std::function<void(const SleepRecord&)> hook) { S().onSleep = std::move(hook); }
void SetPrepareMountPathResult(int result) { S().prepareResult = result; }
const std::vector<std::string>& PreparedMountPaths() { return S().preparedPaths; }
CleanerStore& Cleaner() { return S().cleaner; }
MapperScript& Mapper() { return S().mapper; }

void Reset() { S() = State{}; }

// ---- CleanerStore ----

void CleanerStore::FailNext(const std::string& op, int times) { failNext_[op] += times; }
void CleanerStore::FailAlways(const std::string& op) { failAlways_.insert(op); }

int CleanerStore::CallCount(const std::string& op) const {
    auto it = calls_.find(op);
    return it == calls_.end() ? 0 : it->second;
}

bool CleanerStore::Begin(const std::string& op) {
    ++calls_[op];
    if (failAlways_.count(op)) return false;
    auto it = failNext_.find(op);
    if (it != failNext_.end() && it->second > 0) {
        --it->second;
        return false;
    }
    return true;
}

Entity* CleanerStore::FindRow(int row) {
    for (auto& e : entities_)
        if (e.row == row) return &e;
    return nullptr;
}

int CleanerStore::AddEntity(Entity e) {
    e.row = nextRow_++;
    entities_.push_back(e);
    return e.row;
}

void CleanerStore::RemoveRow(int row) {
    std::vector<int> doomed{row};
    for (size_t i = 0; i < doomed.size(); ++i)
        for (const auto& e : entities_)
            if (e.parentRow == doomed[i]) doomed.push_back(e.row);
    entities_.erase(std::remove_if(entities_.begin(), entities_.end(),
                                   [&](const Entity& e) { return std::count(doomed.begin(), doomed.end(), e.row) > 0; }),
                    entities_.end());
}

int CleanerStore::AddOrphanVM(VM_Cleaner_Mode mode, const std::string& vmGuid) {
    Entity e;
    e.identity = initIdentity;
    e.mode = mode;
    e.kind = VM_CLEANER_ENTITY_VM;
    e.id = vmGuid;
    e.orphaned = true;
    return AddEntity(e);
}

int CleanerStore::AddChild(int parentRow, VM_Cleaner_EntityType kind, const std::string& id) {
    Entity* parent = FindRow(parentRow);
    Entity e;
    e.identity = parent ? parent->identity : initIdentity;
    e.mode = parent ? parent->mode : VM_CLEANER_MODE_BACKUP;
    e.kind = kind;
    e.id = id;
    e.parentRow = parentRow;
    return AddEntity(e);
}

void CleanerStore::MarkOrphaned(const std::string& vmGuid) {
    for (auto& e : entities_)
        if (e.parentRow == 0 && e.id == vmGuid) e.orphaned = true;
}

void CleanerStore::SetCleanupRequired(bool required) {
    cleanupRequiredSet = true;
    cleanupRequired = required;
}

std::vector<std::string> CleanerStore::ChildrenOf(const std::string& vmGuid, VM_Cleaner_EntityType kind) const {
    std::vector<std::string> out;
    for (const auto& root : entities_) {
        if (root.parentRow != 0 || root.id != vmGuid) continue;
        for (const auto& child : entities_)
            if (child.parentRow == root.row && child.kind == kind) out.push_back(child.id);
    }
    return out;
}

bool CleanerStore::HasVM(const std::string& vmGuid) const {
    return std::any_of(entities_.begin(), entities_.end(),
                       [&](const Entity& e) { return e.parentRow == 0 && e.id == vmGuid; });
}

// ---- MapperScript ----

void MapperScript::FailNext(const std::string& op, int times) { failNext_[op] += times; }

std::vector<std::string> MapperScript::CallNames() const {
    std::vector<std::string> out;
    for (const auto& c : calls_) out.push_back(c.op);
    return out;
}

int MapperScript::Count(const std::string& op) const {
    return static_cast<int>(std::count_if(calls_.begin(), calls_.end(), [&](const MapperCall& c) { return c.op == op; }));
}

bool MapperScript::Record(const std::string& op, const std::string& arg) {
    calls_.push_back({op, arg});
    auto it = failNext_.find(op);
    if (it != failNext_.end() && it->second > 0) {
        --it->second;
        return false;
    }
    return true;
}

}  // namespace fakefw

// ======== Framework services, as the fake provides them ========

EvEvent::EvEvent() = default;
EvEvent::~EvEvent() = default;
long long EvEvent::getJobId() const { return fakefw::S().jobId; }
std::string EvDebug::getApplicationName() { return fakefw::S().applicationName; }
bool EvDebug::IsLevelEnabled(int) { return true; }  // tests see every level
void EvDebug::Write(EvLogKind kind, int level, const char* tag, const std::string& text) {
    fakefw::S().logs.push_back({tag ? tag : "", kind, level, text});
}

std::string HXPI_Focus::getFocus() { return fakefw::S().focus; }

bool CVMInfo::IsJobCancelled() {
    auto& s = fakefw::S();
    int check = s.cancelChecks++;
    return s.cancelAfter >= 0 && check >= s.cancelAfter;
}

int CVMInfo::_PrepareMountPathDirectory(const string& path, bool) {
    fakefw::S().preparedPaths.push_back(path);
    return fakefw::S().prepareResult;
}

void FXThread::Sleep(unsigned int milliseconds) { fakefw::RecordSleep(milliseconds, false); }
void ZUSLEEP_InTeRnAl(unsigned int milliseconds, const char*, int) { fakefw::RecordSleep(milliseconds, true); }

std::string CreateGuid() { return "guid-" + std::to_string(++fakefw::S().guidCounter); }

// ---- VMCleaner over the in-memory store ----

struct VMCleaner::Impl {
    std::string identity;
    bool open = false;
};

namespace {
std::string HandleOf(int row) { return "h:" + std::to_string(row); }
std::string PathOf(int row) { return "/cleaner/" + std::to_string(row); }
int RowOf(const std::string& text, const std::string& prefix) {
    if (text.rfind(prefix, 0) != 0) return 0;
    try {
        return std::stoi(text.substr(prefix.size()));
    } catch (...) {
        return 0;
    }
}
}  // namespace

VMCleaner::VMCleaner() : impl_(std::make_unique<Impl>()) {}
VMCleaner::~VMCleaner() = default;

bool VMCleaner::Init(const std::string& id, UINT64) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("Init")) return false;
    store.initIdentity = id;
    impl_->identity = id;
    impl_->open = true;
    return true;
}

bool VMCleaner::DeInit() {
    if (!fakefw::Cleaner().Begin("DeInit")) return false;
    impl_->open = false;
    return true;
}

bool VMCleaner::RegisterEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& id,
                               const std::string& parentHandle) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("RegisterEntity")) return false;
    fakefw::Entity e;
    e.identity = impl_->identity;
    e.mode = mode;
    e.kind = kind;
    e.id = id;
    if (!parentHandle.empty()) {
        int parent = RowOf(parentHandle, "h:");
        if (!store.FindRow(parent)) return false;
        e.parentRow = parent;
    } else if (store.rootRegistrationIdempotent) {
        for (const auto& held : store.Entities())
            if (held.parentRow == 0 && !held.orphaned && held.identity == e.identity && held.mode == mode &&
                held.kind == kind && held.id == id)
                return true;
    }
    store.AddEntity(e);
    return true;
}

bool VMCleaner::LookupEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& id,
                             std::string& handle) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("LookupEntity")) return false;
    for (const auto& e : store.Entities()) {
        if (e.mode == mode && e.kind == kind && e.id == id && !e.orphaned) {
            handle = HandleOf(e.row);
            return true;
        }
    }
    return false;
}

bool VMCleaner::GetCleanerPathForEntityHandle(VM_Cleaner_Mode, const std::string& handle, std::string& cleanerPath) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("GetCleanerPathForEntityHandle")) return false;
    int row = RowOf(handle, "h:");
    if (!store.FindRow(row)) return false;
    cleanerPath = PathOf(row);
    return true;
}

bool VMCleaner::FillItemsFromCleanerPath(const std::string& cleanerPath, VM_Cleaner_EntityType kind,
                                         std::vector<CleanerEntity>& out) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("FillItemsFromCleanerPath")) return false;
    int row = RowOf(cleanerPath, "/cleaner/");
    if (!store.FindRow(row)) return false;
    for (const auto& e : store.Entities()) {
        if (e.parentRow == row && e.kind == kind) {
            CleanerEntity entity;
            entity.entityType = e.kind;
            entity.entityId = e.id;
            entity.cleanerPath = PathOf(e.row);
            out.push_back(entity);
        }
    }
    return true;
}

bool VMCleaner::UnRegisterEntity(const std::string& cleanerPath, bool) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("UnRegisterEntity")) return false;
    int row = RowOf(cleanerPath, "/cleaner/");
    if (!store.FindRow(row)) return false;
    store.RemoveRow(row);
    return true;
}

bool VMCleaner::GetOrphanedRootEntityListByType(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& id,
                                                std::vector<CleanerEntity>& out) {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("GetOrphanedRootEntityListByType")) return false;
    for (const auto& e : store.Entities()) {
        if (e.parentRow == 0 && e.orphaned && e.mode == mode && e.kind == kind && (id.empty() || e.id == id)) {
            CleanerEntity entity;
            entity.entityType = e.kind;
            entity.entityId = e.id;
            entity.cleanerPath = PathOf(e.row);
            out.push_back(entity);
        }
    }
    return true;
}

bool VMCleaner::IsAllVMCleanupRequired() {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("IsAllVMCleanupRequired")) return false;
    if (store.cleanupRequiredSet) return store.cleanupRequired;
    return std::any_of(store.Entities().begin(), store.Entities().end(),
                       [](const fakefw::Entity& e) { return e.parentRow == 0 && e.orphaned; });
}

bool VMCleaner::PostAllVMCleanup() {
    auto& store = fakefw::Cleaner();
    if (!store.Begin("PostAllVMCleanup")) return false;
    ++store.postAllVMCleanupCalls;
    return true;
}

// ---- CDiskMapperLinux as a script ----

struct CDiskMapperLinux::Impl {};

CDiskMapperLinux::CDiskMapperLinux() = default;
CDiskMapperLinux::~CDiskMapperLinux() = default;

bool CDiskMapperLinux::Init() { return fakefw::Mapper().Record("Init", ""); }
bool CDiskMapperLinux::PreAttachDisk() { return fakefw::Mapper().Record("PreAttachDisk", ""); }

bool CDiskMapperLinux::PostAttachDisk(const std::string& diskId, std::string& logicalName, long long& size, bool failed) {
    auto& m = fakefw::Mapper();
    if (!m.Record("PostAttachDisk", failed ? diskId + " failed" : diskId)) return false;
    if (failed) return true;
    auto dev = m.deviceFor.find(diskId);
    logicalName = dev != m.deviceFor.end() ? dev->second : "/dev/fake/" + diskId;
    auto sz = m.sizeFor.find(diskId);
    size = sz != m.sizeFor.end() ? sz->second : (1LL << 30);
    return true;
}

bool CDiskMapperLinux::PostAttachDisk(const std::vector<std::string>& diskIds, std::vector<std::string>& logicalNames,
                                      bool failed) {
    for (const auto& id : diskIds) {
        std::string name;
        long long size = 0;
        if (!PostAttachDisk(id, name, size, failed)) return false;
        logicalNames.push_back(name);
    }
    return true;
}

bool CDiskMapperLinux::PreDetatchDisk(const std::string& name) { return fakefw::Mapper().Record("PreDetatchDisk", name); }
bool CDiskMapperLinux::PostDetatchDisk() { return fakefw::Mapper().Record("PostDetatchDisk", ""); }
bool CDiskMapperLinux::MakeDiskWriteable(const std::string& n) { return fakefw::Mapper().Record("MakeDiskWriteable", n); }
bool CDiskMapperLinux::MakeDiskReadOnly(const std::string& n) { return fakefw::Mapper().Record("MakeDiskReadOnly", n); }
bool CDiskMapperLinux::BringDiskOffline(const std::string& n) { return fakefw::Mapper().Record("BringDiskOffline", n); }
bool CDiskMapperLinux::BringDiskOnline(const std::string& n) { return fakefw::Mapper().Record("BringDiskOnline", n); }
bool CDiskMapperLinux::DeleteDiskDevice(const std::string& n) { return fakefw::Mapper().Record("DeleteDiskDevice", n); }
bool CDiskMapperLinux::DeleteDiskDeviceList(const std::vector<std::string>&) {
    return fakefw::Mapper().Record("DeleteDiskDeviceList", "");
}
bool CDiskMapperLinux::ReScan() { return fakefw::Mapper().Record("ReScan", ""); }
bool CDiskMapperLinux::Lock() { return fakefw::Mapper().Record("Lock", ""); }
bool CDiskMapperLinux::Unlock() { return fakefw::Mapper().Record("Unlock", ""); }
