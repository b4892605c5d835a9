// The fake cloud and the fake CAliCloudSDKCppBridge over it (see FakeCloud.h).
#include "FakeCloud.h"

#include <algorithm>

#include "AliCloudSDKCppBridge.h"

using namespace VMInfoStructs;

namespace fakecloud {
namespace {

constexpr UINT64 kWantInstances = 0x20000000ULL;
constexpr UINT64 kWantZones = 0x0020000000000000ULL;

std::string B(bool v) { return v ? "true" : "false"; }
std::string N(long long v) { return std::to_string(v); }
std::string U(UINT64 v) { return std::to_string(v); }

}  // namespace

Cloud& TheCloud() {
    static Cloud cloud;
    return cloud;
}

void Reset() { TheCloud() = Cloud{}; }

Instance& Cloud::AddInstance(const std::string& id, const std::string& name, const std::string& region,
                             const std::string& zone, std::string status) {
    Instance& inst = instances[id];
    inst.info.guid = id;
    inst.info.name = name;
    inst.info.regionId = region;
    inst.info.hostName = zone;
    inst.info.vmProfile = "ecs.g7.large";
    inst.info.guestOS = "Ubuntu 22.04 64 bit;x86_64";
    inst.status = std::move(status);
    inst.info.status = inst.status;
    inst.info.powerState = inst.status == "Running" ? 1 : 0;
    return inst;
}

Disk& Cloud::AddDisk(const std::string& diskId, const std::string& instanceId, long long sizeGiB, bool isOSDisk,
                     const std::string& category) {
    Disk& d = disks[diskId];
    const Instance& inst = instances.at(instanceId);
    d.info.diskId = diskId;
    d.info.diskName = diskId + "-name";
    d.info.diskType = 1;
    d.info.isOSDisk = isOSDisk;
    d.info.zone = inst.info.hostName;
    d.info.category = category;
    d.info.diskSize = sizeGiB;
    d.info.size = sizeGiB << 30;
    d.regionId = inst.info.regionId;
    d.attachedTo = instanceId;
    d.attachOrder = NextAttachOrder();
    d.deleteWithInstance = isOSDisk;
    return d;
}

void Cloud::FailNext(const std::string& op, Fault fault, int times) {
    Rule r;
    r.op = op;
    r.remaining = times;
    r.fault = std::move(fault);
    rules_.push_back(std::move(r));
}

void Cloud::FailNext(const std::string& op, const std::string& error, int times) { FailNext(op, Fault{error, false}, times); }

void Cloud::FailCall(const std::string& op, int nth, Fault fault) {
    Rule r;
    r.op = op;
    r.nth = counts_[op] + nth;
    r.fault = std::move(fault);
    rules_.push_back(std::move(r));
}

void Cloud::FailWhen(const std::string& op, std::function<bool(const Call&)> when, Fault fault) {
    Rule r;
    r.op = op;
    r.when = std::move(when);
    r.fault = std::move(fault);
    rules_.push_back(std::move(r));
}

const Fault* Cloud::Begin(const std::string& op, std::vector<std::string> args) {
    calls.push_back(Call{op, std::move(args)});
    int count = ++counts_[op];
    const Call call = calls.back();
    if (beforeCall) beforeCall(call);
    for (auto& r : rules_) {
        if (r.op != op) continue;
        if (r.remaining > 0) {
            --r.remaining;
            current_ = r.fault;
            return &current_;
        }
        if (r.nth > 0 && r.nth == count) {
            current_ = r.fault;
            return &current_;
        }
        if (r.when && r.when(call)) {
            current_ = r.fault;
            return &current_;
        }
    }
    return nullptr;
}

std::string Cloud::NewId(const std::string& prefix) { return prefix + "-fake" + std::to_string(++idCounter_); }

SVMInfo Cloud::Describe(const Instance& instance) const {
    SVMInfo info = instance.info;
    info.status = instance.status;
    info.powerState = (instance.status == "Running" || instance.status == "Starting") ? 1 : 0;
    info.disks.clear();
    std::vector<const Disk*> attached;
    for (const auto& [id, d] : disks)
        if (d.attachedTo == instance.info.guid) attached.push_back(&d);
    std::sort(attached.begin(), attached.end(), [](const Disk* a, const Disk* b) { return a->attachOrder < b->attachOrder; });
    for (const Disk* d : attached) info.disks.push_back(d->info);
    return info;
}

std::vector<std::string> Cloud::CallNames() const {
    std::vector<std::string> out;
    for (const auto& c : calls) out.push_back(c.op);
    return out;
}

std::vector<Call> Cloud::CallsTo(const std::string& op) const {
    std::vector<Call> out;
    for (const auto& c : calls)
        if (c.op == op) out.push_back(c);
    return out;
}

int Cloud::Count(const std::string& op) const {
    return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](const Call& c) { return c.op == op; }));
}

std::vector<std::string> Cloud::CreatedDisks() const {
    std::vector<std::string> out;
    for (const auto& id : createdDisks_)
        if (disks.count(id)) out.push_back(id);
    return out;
}

std::vector<std::string> Cloud::CreatedInstances() const {
    std::vector<std::string> out;
    for (const auto& id : createdInstances_)
        if (instances.count(id)) out.push_back(id);
    return out;
}

std::vector<std::string> Cloud::DisksAttachedTo(const std::string& instanceId) const {
    std::vector<std::string> out;
    for (const auto& d : Describe(instances.at(instanceId)).disks) out.push_back(d.diskId);
    return out;
}

}  // namespace fakecloud

// ======== The bridge, answering from the fake cloud ========

namespace AliCloudSDKCppBridge {

class CAliCloudSDKCppBridge::Impl {
public:
    std::string lastError;
    bool Fail(const std::string& text) {
        lastError = text;
        return false;
    }
    bool Fail(const fakecloud::Fault* f) { return Fail(f->error); }
};

namespace {
fakecloud::Cloud& C() { return fakecloud::TheCloud(); }
}  // namespace

using fakecloud::B;
using fakecloud::N;
using fakecloud::U;

CAliCloudSDKCppBridge::CAliCloudSDKCppBridge() : impl(std::make_unique<Impl>()) {}
CAliCloudSDKCppBridge::~CAliCloudSDKCppBridge() = default;

std::string CAliCloudSDKCppBridge::GetLastError() { return impl->lastError; }

bool CAliCloudSDKCppBridge::Connect(const std::string& user, const std::string& password) {
    if (auto f = C().Begin("Connect", {user, password})) return impl->Fail(f);
    return true;
}

bool CAliCloudSDKCppBridge::Disconnect() {
    if (auto f = C().Begin("Disconnect", {})) return impl->Fail(f);
    return true;
}

namespace {
SDataCenterInfo Shape(SDataCenterInfo dc, UINT64 flags) {
    if (!(flags & fakecloud::kWantInstances)) dc.vmList.clear();
    if (!(flags & fakecloud::kWantZones)) dc.hostList.clear();
    return dc;
}
SHostInfo Shape(SHostInfo zone, UINT64 flags) {
    if (!(flags & fakecloud::kWantInstances)) zone.vmList.clear();
    return zone;
}
}  // namespace

bool CAliCloudSDKCppBridge::GetDCInfoList(std::vector<SDataCenterInfo>& out, UINT64 flags, UINT64 value) {
    if (auto f = C().Begin("GetDCInfoList", {U(flags), U(value)})) return impl->Fail(f);
    for (const auto& dc : C().regions) out.push_back(Shape(dc, flags));
    return true;
}

bool CAliCloudSDKCppBridge::GetDCInfoForDC(const std::string& regionId, UINT64 flags, UINT64 value, SDataCenterInfo& out) {
    if (auto f = C().Begin("GetDCInfoForDC", {regionId, U(flags), U(value)})) return impl->Fail(f);
    for (const auto& dc : C().regions) {
        if (dc.name == regionId) {
            out = Shape(dc, flags);
            return true;
        }
    }
    return impl->Fail("InvalidRegionId.NotFound: The specified region does not exist.");
}

bool CAliCloudSDKCppBridge::GetHostInfoList(std::vector<SHostInfo>& out, UINT64 flags, UINT64 value) {
    if (auto f = C().Begin("GetHostInfoList", {U(flags), U(value)})) return impl->Fail(f);
    for (const auto& z : C().zones) out.push_back(Shape(z, flags));
    return true;
}

bool CAliCloudSDKCppBridge::GetHostInfoForHost(const std::string& zoneId, UINT64 flags, UINT64 value, SHostInfo& out,
                                               const std::string& regionId) {
    if (auto f = C().Begin("GetHostInfoForHost", {zoneId, U(flags), U(value), regionId})) return impl->Fail(f);
    for (const auto& z : C().zones) {
        if (z.name == zoneId && (regionId.empty() || z.regionId == regionId)) {
            out = Shape(z, flags);
            return true;
        }
    }
    return impl->Fail("InvalidZoneId.NotFound: The specified zone does not exist.");
}

bool CAliCloudSDKCppBridge::GetVMInfoList(std::vector<SVMInfo>& out) {
    if (auto f = C().Begin("GetVMInfoList", {})) return impl->Fail(f);
    out = C().vmCache;
    return true;
}

bool CAliCloudSDKCppBridge::RefreshVMInfoCache() {
    if (auto f = C().Begin("RefreshVMInfoCache", {})) return impl->Fail(f);
    C().vmCache.clear();
    for (const auto& [id, inst] : C().instances) C().vmCache.push_back(C().Describe(inst));
    return true;
}

bool CAliCloudSDKCppBridge::GetVMInfoListForRegion(const std::string& regionId, std::vector<SVMInfo>& out,
                                                   const std::string& name) {
    if (auto f = C().Begin("GetVMInfoListForRegion", {regionId, name})) return impl->Fail(f);
    for (const auto& [id, inst] : C().instances)
        if (inst.info.regionId == regionId && inst.info.name == name) out.push_back(C().Describe(inst));
    return true;
}

bool CAliCloudSDKCppBridge::GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                                    std::vector<SVMSizeInfo>& out) {
    if (auto f = C().Begin("GetInstanceTypesForZone", {regionId, zoneId})) return impl->Fail(f);
    auto it = C().zoneTypes.find(regionId + "|" + zoneId);
    if (it != C().zoneTypes.end()) out.insert(out.end(), it->second.begin(), it->second.end());
    return true;
}

bool CAliCloudSDKCppBridge::GetInstanceTypesForRegion(const std::string& regionId, std::vector<SVMSizeInfo>& out) {
    if (auto f = C().Begin("GetInstanceTypesForRegion", {regionId})) return impl->Fail(f);
    auto it = C().regionTypes.find(regionId);
    if (it != C().regionTypes.end()) out.insert(out.end(), it->second.begin(), it->second.end());
    return true;
}

bool CAliCloudSDKCppBridge::GetVMInfoForVM(const std::string& id, SVMInfo& out, UINT64 flags, int value) {
    if (auto f = C().Begin("GetVMInfoForVM", {id, U(flags), N(value)})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    out = C().Describe(it->second);
    return true;
}

bool CAliCloudSDKCppBridge::GetVMInfoAndConfigFile(const std::string& id, UINT64 flags, int value, SVMInfo& out,
                                                   std::string& configText) {
    if (auto f = C().Begin("GetVMInfoAndConfigFile", {id, U(flags), N(value)})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    out = C().Describe(it->second);
    configText = it->second.configText.empty() ? "{\"InstanceId\":\"" + id + "\"}" : it->second.configText;
    return true;
}

bool CAliCloudSDKCppBridge::GetVMInfoFromConfigFile(const std::string& configText, SVMInfo& out) {
    if (auto f = C().Begin("GetVMInfoFromConfigFile", {configText})) return impl->Fail(f);
    auto doc = C().configDocuments.find(configText);
    if (doc != C().configDocuments.end()) {
        out = doc->second;
        return true;
    }
    for (const auto& [id, inst] : C().instances) {
        std::string text = inst.configText.empty() ? "{\"InstanceId\":\"" + id + "\"}" : inst.configText;
        if (text == configText) {
            out = C().Describe(inst);
            return true;
        }
    }
    return impl->Fail("InvalidConfigDocument: the configuration document is not recognised");
}

bool CAliCloudSDKCppBridge::CreateInstance(const SVMInfo& vmInfo, const std::string& imageId,
                                           const std::string& configText, std::string& newInstanceId) {
    if (auto f = C().Begin("CreateInstance", {vmInfo.name, imageId, configText})) return impl->Fail(f);
    auto image = C().images.find(imageId);
    if (image == C().images.end()) return impl->Fail("InvalidImageId.NotFound: The specified ImageId does not exist.");
    newInstanceId = C().NewId("i");
    auto& inst = C().AddInstance(newInstanceId, vmInfo.name, vmInfo.regionId, vmInfo.hostName, "Stopped");
    inst.info.vmProfile = vmInfo.vmProfile;
    inst.info.guestOS = vmInfo.guestOS;
    inst.info.networkCards = vmInfo.networkCards;
    inst.info.securityGroups = vmInfo.securityGroups;
    std::string systemDisk = C().NewId("d");
    auto& d = C().AddDisk(systemDisk, newInstanceId, 20, true);
    d.sourceSnapshot = image->second.snapshotId;
    C().createdInstances_.push_back(newInstanceId);
    return true;
}

bool CAliCloudSDKCppBridge::AddPeripheralComponents(const SVMInfo& vmInfo, const std::string& configText) {
    if (auto f = C().Begin("AddPeripheralComponents", {vmInfo.guid, configText})) return impl->Fail(f);
    return true;
}

bool CAliCloudSDKCppBridge::PowerOnInstance(const std::string& id) {
    if (auto f = C().Begin("PowerOnInstance", {id})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    it->second.status = "Running";
    return true;
}

bool CAliCloudSDKCppBridge::PowerOffInstance(const std::string& id, bool forceStop, bool wait, bool stopCharging) {
    if (auto f = C().Begin("PowerOffInstance", {id, B(forceStop), B(wait), B(stopCharging)})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    it->second.status = "Stopped";
    return true;
}

bool CAliCloudSDKCppBridge::GetInstanceStatus(const std::string& id, std::string& status) {
    if (auto f = C().Begin("GetInstanceStatus", {id})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    auto& script = it->second.statusScript;
    if (!script.empty()) {
        status = script.front();
        script.erase(script.begin());
    } else {
        status = it->second.status;
    }
    return true;
}

bool CAliCloudSDKCppBridge::DeleteInstance(const std::string& id) {
    if (auto f = C().Begin("DeleteInstance", {id})) return impl->Fail(f);
    auto it = C().instances.find(id);
    if (it == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    if (it->second.status != "Stopped") return impl->Fail("IncorrectInstanceStatus: The current status of the instance does not support this operation.");
    for (auto d = C().disks.begin(); d != C().disks.end();) {
        if (d->second.attachedTo == id) {
            if (d->second.deleteWithInstance) {
                d = C().disks.erase(d);
                continue;
            }
            d->second.attachedTo.clear();
        }
        ++d;
    }
    C().instances.erase(it);
    return true;
}

bool CAliCloudSDKCppBridge::GetLocalInstanceId(std::string& id) {
    if (auto f = C().Begin("GetLocalInstanceId", {})) return impl->Fail(f);
    id = C().localInstanceId;
    return !id.empty();
}

bool CAliCloudSDKCppBridge::CreateDisk(const std::string& regionId, const std::string& zoneId, SDisk& disk,
                                       const std::string& snapshotId, const std::string& diskName,
                                       const std::string& category, long long sizeGiB, bool encrypted,
                                       const std::string& description) {
    if (auto f = C().Begin("CreateDisk", {regionId, zoneId, snapshotId, diskName, category, N(sizeGiB), B(encrypted),
                                          description}))
        return impl->Fail(f);
    long long size = sizeGiB;
    if (!snapshotId.empty()) {
        auto snap = C().snapshots.find(snapshotId);
        if (snap == C().snapshots.end()) return impl->Fail("InvalidSnapshotId.NotFound: The specified snapshot does not exist.");
        auto src = C().disks.find(snap->second.diskId);
        if (size == 0 && src != C().disks.end()) size = src->second.info.diskSize;
        if (size == 0) size = 20;
    }
    std::string id = C().NewId("d");
    fakecloud::Disk& d = C().disks[id];
    d.info.diskId = id;
    d.info.diskName = diskName;
    d.info.diskType = 1;
    d.info.zone = zoneId;
    d.info.category = category;
    d.info.diskSize = size;
    d.info.size = size << 30;
    d.info.createFlag = encrypted;
    d.regionId = regionId;
    d.sourceSnapshot = snapshotId;
    d.description = description;
    C().createdDisks_.push_back(id);
    disk.diskId = id;
    disk.diskName = diskName;
    disk.zone = zoneId;
    disk.category = category;
    disk.diskSize = size;
    disk.size = size << 30;
    disk.diskType = 1;
    return true;
}

bool CAliCloudSDKCppBridge::GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out) {
    if (auto f = C().Begin("GetDiskInfo", {regionId, diskId})) return impl->Fail(f);
    auto it = C().disks.find(diskId);
    if (it == C().disks.end()) return impl->Fail("InvalidDiskId.NotFound: The specified disk does not exist.");
    out = it->second.info;
    return true;
}

bool CAliCloudSDKCppBridge::DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists) {
    if (auto f = C().Begin("DoesDiskExist", {regionId, diskId})) return impl->Fail(f);
    exists = C().disks.count(diskId) > 0;
    return true;
}

bool CAliCloudSDKCppBridge::AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                                       bool wait) {
    if (auto f = C().Begin("AttachDisk", {instanceId, diskId, B(wait)})) {
        if (f->limitReached) limitReached = true;
        return impl->Fail(f);
    }
    auto inst = C().instances.find(instanceId);
    if (inst == C().instances.end()) return impl->Fail("InvalidInstanceId.NotFound: The specified InstanceId does not exist.");
    auto disk = C().disks.find(diskId);
    if (disk == C().disks.end()) return impl->Fail("InvalidDiskId.NotFound: The specified disk does not exist.");
    if (!disk->second.attachedTo.empty()) return impl->Fail("IncorrectDiskStatus: The current disk status does not support this operation.");
    if (disk->second.info.zone != inst->second.info.hostName)
        return impl->Fail("ResourcesNotInSameZone: The specified instance and disk are not in the same zone.");
    if (inst->second.diskLimit > 0 &&
        static_cast<int>(C().DisksAttachedTo(instanceId).size()) >= inst->second.diskLimit) {
        limitReached = true;
        return impl->Fail("InstanceDiskLimitExceeded: The amount of the disk on instance in question reach its limits.");
    }
    disk->second.attachedTo = instanceId;
    disk->second.attachOrder = C().NextAttachOrder();
    return true;
}

bool CAliCloudSDKCppBridge::DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId) {
    if (auto f = C().Begin("DetachDisk", {instanceId, diskId, regionId})) return impl->Fail(f);
    auto disk = C().disks.find(diskId);
    if (disk == C().disks.end()) return impl->Fail("InvalidDiskId.NotFound: The specified disk does not exist.");
    if (disk->second.attachedTo != instanceId)
        return impl->Fail("IncorrectDiskStatus: The disk is not attached to the instance.");
    disk->second.attachedTo.clear();
    return true;
}

bool CAliCloudSDKCppBridge::DeleteDisk(const std::string& diskId) {
    if (auto f = C().Begin("DeleteDisk", {diskId})) return impl->Fail(f);
    auto disk = C().disks.find(diskId);
    if (disk == C().disks.end()) return impl->Fail("InvalidDiskId.NotFound: The specified disk does not exist.");
    if (!disk->second.attachedTo.empty()) return impl->Fail("IncorrectDiskStatus: The disk is still attached.");
    C().disks.erase(disk);
    return true;
}

bool CAliCloudSDKCppBridge::CreateSnapshot(const std::string& diskId, SChildDisk& snapshot, const std::string& name,
                                           const std::string& description) {
    if (auto f = C().Begin("CreateSnapshot", {diskId, name, description})) return impl->Fail(f);
    auto disk = C().disks.find(diskId);
    if (disk == C().disks.end()) return impl->Fail("InvalidDiskId.NotFound: The specified disk does not exist.");
    fakecloud::Snapshot s;
    s.id = C().NewId("s");
    s.diskId = diskId;
    s.regionId = disk->second.regionId;
    s.pollsUntilDone = C().snapshotPolls;
    C().snapshots[s.id] = s;
    snapshot.snapshotId = s.id;
    snapshot.parentDiskId = diskId;
    snapshot.diskSize = disk->second.info.diskSize;
    return true;
}

bool CAliCloudSDKCppBridge::IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed) {
    if (auto f = C().Begin("IsSnapshotCompleted", {regionId, snapshotId})) return impl->Fail(f);
    auto it = C().snapshots.find(snapshotId);
    if (it == C().snapshots.end()) return impl->Fail("InvalidSnapshotId.NotFound: The specified snapshot does not exist.");
    if (it->second.neverCompletes) {
        completed = false;
    } else if (it->second.pollsUntilDone > 0) {
        --it->second.pollsUntilDone;
        completed = false;
    } else {
        completed = true;
    }
    return true;
}

bool CAliCloudSDKCppBridge::DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists) {
    if (auto f = C().Begin("DoesSnapshotExist", {regionId, snapshotId})) return impl->Fail(f);
    exists = C().snapshots.count(snapshotId) > 0;
    return true;
}

bool CAliCloudSDKCppBridge::DeleteSnapshot(const std::string& snapshotId) {
    if (auto f = C().Begin("DeleteSnapshot", {snapshotId})) return impl->Fail(f);
    if (!C().snapshots.erase(snapshotId)) return impl->Fail("InvalidSnapshotId.NotFound: The specified snapshot does not exist.");
    return true;
}

bool CAliCloudSDKCppBridge::CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                                         const std::vector<std::string>& dataSnapshotIds,
                                                         const std::string& architecture, const std::string& platform,
                                                         std::string& imageId, const std::string& imageName,
                                                         const std::string& description) {
    std::string data;
    for (const auto& id : dataSnapshotIds) data += (data.empty() ? "" : ",") + id;
    if (auto f = C().Begin("CreateImageFromDiskSnapshots",
                           {regionId, systemSnapshotId, data, architecture, platform, imageName, description}))
        return impl->Fail(f);
    if (!C().snapshots.count(systemSnapshotId))
        return impl->Fail("InvalidSnapshotId.NotFound: The specified snapshot does not exist.");
    fakecloud::Image image{C().NewId("m"), regionId, systemSnapshotId, architecture, platform, description};
    C().images[image.id] = image;
    imageId = image.id;
    return true;
}

bool CAliCloudSDKCppBridge::DeleteImage(const std::string& regionId, const std::string& imageId, bool force) {
    if (auto f = C().Begin("DeleteImage", {regionId, imageId, B(force)})) return impl->Fail(f);
    C().images.erase(imageId);  // ECS ignores unknown image ids
    return true;
}

}  // namespace AliCloudSDKCppBridge
