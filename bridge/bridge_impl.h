// The state and the operations behind CAliCloudSDKCppBridge. Every method may throw
// (ApiError above all); the public class turns exceptions into false + GetLastError.
//
// Finding a region for operations that take none (AttachDisk, DeleteDisk, CreateSnapshot,
// DeleteSnapshot, the instance operations): the region remembered for the id from an
// earlier answer (every Describe*/Create* answer records its objects' regions); else a
// probe (Describe* by id) in the proxy's own region (metadata service), then in
// ALIBABA_CLOUD_REGION_ID, then in every region DescribeRegions lists. Not found anywhere
// gives the action's NotFound code.
//
// Waits (every one bounded; intervals between 1 and 2 s, see WaitBounds; all scaled by
// ALIBABA_CLOUD_BRIDGE_TIME_SCALE):
//   CreateDisk  -> disk Available ................ 15 min (large disks from snapshots), deferred
//   AttachDisk  -> disk In_use on the instance ..... 5 min
//   DetachDisk  -> disk Available ................. 10 min (ECS documents about a minute), deferred
//   CreateImageFromDiskSnapshots -> image Available  90 min (copying snapshot data)
//   PowerOffInstance with waitUntilStopped -> Stopped 10 min
//
// Deferred waits: CreateDisk and DetachDisk return once ECS accepted the request. The wait
// for Available (bounded as above) runs when the disk is next used through this bridge
// (attach, detach, snapshot, look-up, existence, delete), and each of its polls is one
// DescribeDisks for every disk with a deferred wait in the region, so disks created or
// detached one after another settle together. A caller that hands the id on before using it
// gets a disk that may still be Creating or Detaching; the ownership sweep waits for a stable
// state before it acts. An attach refused for the instance's disk limit first settles the
// disks this bridge detached from that instance, then asks once more.
//
// Reuse: every Describe answer about one object is kept by id for kReuseWindow, in answers
// shared with the other bridges of this process that use the same endpoint and AccessKey
// (SharedAnswers). Checks before
// an operation (is the disk attached already? whose is it? how large is the snapshot? does it
// still exist?) read the kept answer instead of asking again; a wrong guess only costs the
// refused request, after which the bridge asks ECS. Every change the bridge makes to an
// object (attach, detach, delete, start, stop, join, tag) drops the kept answer. Waits never
// trust an answer kept from before the change they wait for: they poll ECS. A snapshot poll
// asks, in one DescribeSnapshots, for every snapshot this bridge created and has not yet
// seen finish in that region; the others' waits are then served from that answer.
//
// Ownership tags (ownership.h) on every snapshot, disk, image and instance the bridge
// creates, in the create request itself. Deleting a snapshot, disk or image that lacks this
// proxy's ownership tags is refused (NotOwnedByThisProxy): a stray registry entry can never
// make the bridge delete somebody else's object. A delete returns only once ECS no longer
// lists the object, so a caller that unregisters on success never forgets a live one.
//
// Idempotence: CreateDisk, CreateSnapshot, CreateImage and CreateInstance carry one
// ClientToken for all attempts of one call, so a repetition after a lost answer returns the
// first object instead of making a second. Deletes that fail with NotFound after such a
// repetition count as done; Attach/Detach check the disk's state before and after.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "AliCloudSDKCppBridge.h"
#include "hxbridge/HostBridge.h"
#include "api_client.h"
#include "metadata_client.h"
#include "ownership.h"
#include "settings.h"
#include "waiter.h"

namespace hxbridge {

// Everything the bridge takes from outside, injectable for tests.
struct BridgeDependencies {
    BridgeSettings settings;
    std::shared_ptr<HttpTransport> ecsTransport;       // null: a CurlTransport
    std::shared_ptr<HttpTransport> metadataTransport;  // null: a CurlTransport for the metadata service
    TimeSource time = TimeSource::Real();
    RequestSigner signer;                              // default: real clock and random nonces
};

// The answers kept for "Reuse", shared by every bridge of this process connected to the same
// endpoint with the same AccessKey id: the host's bridge and the plug-in's see one cloud, and
// a change either makes drops the answer for both. Thread-safe.
class SharedAnswers {
public:
    using json = nlohmann::json;
    // The one for `key` while any bridge holds it; a new, empty one otherwise.
    static std::shared_ptr<SharedAnswers> For(const std::string& key);

    std::optional<json> Get(const std::string& id, std::chrono::steady_clock::time_point now,
                            std::chrono::steady_clock::duration maxAge);
    void Put(const std::string& id, json item, std::chrono::steady_clock::time_point now);
    void Drop(const std::string& id);
    void DropPrefix(const std::string& prefix);
    // DescribeRegions, which does not change within a process's life.
    std::vector<json> Regions();
    void SetRegions(std::vector<json> regions);

private:
    struct Entry {
        json item;
        std::chrono::steady_clock::time_point at;
    };
    std::mutex mutex_;
    std::map<std::string, Entry> entries_;
    std::vector<json> regions_;
};

// How long a kept Describe answer stands in for a new one (see "Reuse"): about one job step.
inline constexpr std::chrono::minutes kReuseWindow{2};

struct WaitBounds {
    // A wait that follows the bridge's own request probes first once the transition's usual
    // duration has passed (a disk is created in about 3 s and attaches or detaches in about
    // 5 s, an image takes half a minute and more: the durations the emulator models too),
    // then every 1-2 s as ECS asks, so that a wait mostly costs one Describe call. Probing
    // earlier only buys calls that find the object still changing, each one counted against
    // the account's per-API rate limit; probing late costs at most one interval of latency.
    // The deferred waits (see "Deferred waits") count that pause from their request, which
    // may be long past.
    PollSchedule createDisk{std::chrono::milliseconds(1000), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(15), std::chrono::milliseconds(3000)};
    PollSchedule attachDisk{std::chrono::milliseconds(1000), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(5), std::chrono::milliseconds(5000)};
    PollSchedule detachDisk{std::chrono::milliseconds(1000), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(10), std::chrono::milliseconds(5000)};
    // An image takes minutes: polled every 5 to 10 s.
    PollSchedule createImage{std::chrono::milliseconds(5000), 1.6, std::chrono::milliseconds(10000),
                             std::chrono::minutes(90), std::chrono::milliseconds(30000)};
    PollSchedule stopInstance{std::chrono::milliseconds(1000), 1.6, std::chrono::milliseconds(2000),
                              std::chrono::minutes(10), std::chrono::milliseconds(3000)};
    // ECS stops listing a deleted object at once: probe at once.
    PollSchedule deletion{std::chrono::milliseconds(250), 1.6, std::chrono::milliseconds(2000),
                          std::chrono::minutes(2)};
    WaitBounds Scaled(double scale) const;
};

}  // namespace hxbridge

class AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl {
public:
    using json = nlohmann::json;
    using SVMInfo = VMInfoStructs::SVMInfo;
    using SDisk = VMInfoStructs::SDisk;

    // Reads the settings from the environment at Connect.
    Impl();
    // Fixed dependencies (tests): Connect keeps them instead of reading the environment.
    explicit Impl(hxbridge::BridgeDependencies deps);

    // Runs `op`; false with the failure in lastError when it throws. Never throws.
    bool Run(const std::function<void()>& op);
    const std::string& LastError() const { return lastError_; }

    void Connect(const std::string& accessKeyId, const std::string& accessKeySecret);
    void Disconnect();

    void GetDCInfoList(std::vector<VMInfoStructs::SDataCenterInfo>& out, UINT64 flags);
    void GetDCInfoForDC(const std::string& regionId, UINT64 flags, VMInfoStructs::SDataCenterInfo& out);
    void GetHostInfoList(std::vector<VMInfoStructs::SHostInfo>& out, UINT64 flags);
    void GetHostInfoForHost(const std::string& zoneId, UINT64 flags, VMInfoStructs::SHostInfo& out,
                            const std::string& regionId);
    void GetVMInfoList(std::vector<SVMInfo>& out);
    void RefreshVMInfoCache();
    void GetVMInfoListForRegion(const std::string& regionId, std::vector<SVMInfo>& out, const std::string& name);
    void GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                 std::vector<VMInfoStructs::SVMSizeInfo>& out);
    void GetInstanceTypesForRegion(const std::string& regionId, std::vector<VMInfoStructs::SVMSizeInfo>& out);

    void GetVMInfoForVM(const std::string& instanceId, SVMInfo& out);
    void GetVMInfoAndConfigFile(const std::string& instanceId, SVMInfo& out, std::string& configText);
    void GetVMInfoFromConfigFile(const std::string& configText, SVMInfo& out);
    void CreateInstance(const SVMInfo& vmInfo, const std::string& imageId, const std::string& configText,
                        std::string& newInstanceId);
    void AddPeripheralComponents(const SVMInfo& vmInfo, const std::string& configText);
    void PowerOnInstance(const std::string& instanceId);
    void PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped, bool stopCharging);
    void GetInstanceStatus(const std::string& instanceId, std::string& status);
    void DeleteInstance(const std::string& instanceId);
    void GetLocalInstanceId(std::string& instanceId);

    void CreateDisk(const std::string& regionId, const std::string& zoneId, SDisk& disk,
                    const std::string& snapshotId, const std::string& diskName, const std::string& category,
                    long long sizeGiB, bool encrypted, const std::string& description);
    void GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out);
    void DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists);
    void AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                    bool waitUntilAttached);
    void DetachDisk(const std::string& instanceId, const std::string& diskId, const std::string& regionId);
    void DeleteDisk(const std::string& diskId);

    void CreateSnapshot(const std::string& diskId, VMInfoStructs::SChildDisk& snapshot,
                        const std::string& snapshotName, const std::string& description);
    void IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId, bool& completed);
    void DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId, bool& exists);
    void DeleteSnapshot(const std::string& snapshotId);
    void CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                      const std::vector<std::string>& dataSnapshotIds,
                                      const std::string& architecture, const std::string& platform,
                                      std::string& imageId, const std::string& imageName,
                                      const std::string& description);
    void DeleteImage(const std::string& regionId, const std::string& imageId, bool force);

    // Host operations (hxbridge/HostBridge.h); bridge_sweep.cpp.
    std::vector<hxbridge::OwnedObject> ListOwned(const std::string& regionId);
    void RemoveOwned(const std::vector<hxbridge::OwnedObject>& objects, hxbridge::RemovalReport& report);
    void FinishRestore(const std::string& regionId, const std::string& instanceId);
    std::vector<std::string> RegionIds();
    hxbridge::ZoneOffer DescribeZoneOffer(const std::string& regionId, const std::string& zoneId);
    void Ownership(const std::string& kind, const std::string& id, bool& exists, bool& owned);

private:
    enum class Kind { Instance, Disk, Snapshot, Image };

    // Sweep steps (bridge_sweep.cpp). Each records its outcome per object in `report`.
    using Owned = std::vector<const hxbridge::OwnedObject*>;
    bool StillOwned(Kind kind, const hxbridge::OwnedObject& o, json& current, hxbridge::RemovalReport& report);
    void StopIncompleteInstances(const Owned& instances, hxbridge::RemovalReport& report);
    void DetachOwnedDisks(const Owned& disks, const std::set<std::string>& releasable, hxbridge::RemovalReport& report,
                          std::set<std::string>& failed);
    // Removes the ownership tags from resources of one type ("disk", "instance").
    void Untag(const std::string& regionId, const std::string& type, const std::vector<std::string>& ids);
    void DeleteOwned(Kind kind, const Owned& objects, const std::set<std::string>& skip,
                     hxbridge::RemovalReport& report);

    hxbridge::ApiClient& Api();
    json Call(const std::string& action, const std::string& regionId, hxbridge::Params params);
    // A creating action: the new object's id from the answer's `idField`; an answer without
    // one is a MalformedResponse error.
    std::string CallForNewId(const std::string& action, const std::string& regionId, hxbridge::Params params,
                             const std::string& idField);

    // Lists (all pages).
    std::vector<json> ListPaged(const std::string& action, const std::string& regionId, hxbridge::Params params,
                                const char* outer, const char* inner);
    std::vector<json> Regions();
    std::vector<json> Zones(const std::string& regionId);
    std::vector<json> Instances(const std::string& regionId, hxbridge::Params filter);
    std::vector<SVMInfo> InstancesAsRecords(const std::string& regionId, hxbridge::Params filter);

    // One object by id in a region; nullopt when ECS does not know it there.
    // FindById asks ECS; Find also keeps the answer and treats NotFound as not there.
    std::optional<json> FindById(Kind kind, const std::string& regionId, const std::string& id);
    std::optional<json> Find(Kind kind, const std::string& regionId, const std::string& id);
    // The kept answer about `id` (see "Reuse"), or nullopt when none is kept or it is older
    // than kReuseWindow.
    std::optional<json> Kept(const std::string& id);
    void Keep(const std::string& id, const json& item);
    void Forget(const std::string& id);
    // Whether the object exists: a kept answer, else a Describe in `regionId` (or RegionOf).
    bool Exists(Kind kind, const std::string& regionId, const std::string& id);
    // The kept answer, else Require.
    json Current(Kind kind, const std::string& regionId, const std::string& id);
    // Ends the deferred wait of the disk, if any (see "Deferred waits"); throws WaitTimeout.
    void SettleDisk(const std::string& diskId);
    // One DescribeDisks for every disk with a deferred wait in `regionId`; keeps the answers
    // and ends the waits of those that are Available.
    void PollPendingDisks(const std::string& regionId);
    // Settles the deferred detaches from `instanceId`; false when there were none.
    bool SettleDetachesFrom(const std::string& instanceId);
    // The AttachDisk request and what a refusal means (see AttachDisk).
    void RequestAttach(const std::string& region, const std::string& instanceId, const std::string& diskId,
                       bool checkedAgainstKept, bool& limitReached);
    // One DescribeSnapshots for `id` and every pending snapshot of this bridge in `regionId`;
    // keeps each answer, and ends the pending state of those that finished or are gone.
    void PollSnapshots(const std::string& regionId, const std::string& id);
    // Whether an instance in `vSwitchId` holds the private `address` (DescribeInstances).
    bool AddressTaken(const std::string& regionId, const std::string& vSwitchId, const std::string& address);
    // The object, or the action's NotFound ApiError.
    json Require(Kind kind, const std::string& regionId, const std::string& id);

    // Region of an object (see the header comment); throws NotFound.
    std::string RegionOf(Kind kind, const std::string& id);
    // The object's region and description (the kept answer when one is kept; see "Reuse"); an
    // empty region and nullopt when no region knows it.
    std::pair<std::string, std::optional<json>> Locate(Kind kind, const std::string& id);
    // `regionId` when given, else RegionOf.
    std::string RegionOr(const std::string& regionId, Kind kind, const std::string& id);
    void Remember(const std::string& id, const std::string& regionId);

    std::string ArchitectureFor(const std::string& regionId, const json& instance);
    std::optional<json> InstanceType(const std::string& regionId, const std::string& typeId);
    void LoadInstanceTypes(const std::string& regionId, const std::vector<std::string>& typeIds);
    // The disks attached to the instance (one DescribeDisks by InstanceId, or the kept list).
    std::vector<json> DisksOf(const std::string& regionId, const std::string& instanceId);
    // The key under which the list of an instance's disk ids is kept; attaching or detaching
    // a disk forgets it.
    static std::string DiskListKey(const std::string& instanceId) { return "disks-of:" + instanceId; }
    // The key of an instance type's DescribeInstanceTypes entry (null: ECS does not know it).
    static std::string TypeKey(const std::string& typeId) { return "type:" + typeId; }
    // The key of the list of a region's instances bearing a name.
    static std::string NamedKey(const std::string& regionId, const std::string& name) {
        return "named:" + regionId + "\n" + name;
    }
    // Drops every kept list by name (an instance was created or released).
    void ForgetNamedLists();
    SVMInfo DescribeWithDisks(const std::string& instanceId, json* instanceOut, std::vector<json>* disksOut,
                              std::string* regionOut);

    std::optional<std::string> ProxyInstanceId(bool forceAsk);
    std::optional<std::string> ProxyRegion();
    // Adds the ownership tags from Tag.<first>; returns the next free tag index.
    int AddOwnershipTags(hxbridge::Params& params, const std::string& role, bool incomplete = false, int first = 1);
    // The proxy id the ownership tags name ("unknown" off ECS).
    std::string OwnershipProxyId();
    // Throws NotOwnedByThisProxy unless `item` carries this proxy's ownership tags.
    void RequireOwned(Kind kind, const nlohmann::json& item, const std::string& id);
    // Deletes the object with `action` when it exists and carries this proxy's ownership tags
    // (NotOwnedByThisProxy otherwise), and returns once ECS no longer lists it.
    void DeleteIfOwned(Kind kind, const std::string& id, const std::string& action, hxbridge::Params request);
    // Waits (bounded) until ECS no longer lists the object.
    void WaitUntilGone(Kind kind, const std::string& regionId, const std::string& id);
    std::string ClientToken();
    std::string DefaultRegion();

    hxbridge::BridgeDependencies deps_;
    bool fixedDependencies_ = false;
    hxbridge::WaitBounds waits_;
    std::unique_ptr<hxbridge::ApiClient> api_;
    std::unique_ptr<hxbridge::MetadataClient> metadata_;
    std::string lastError_;

    std::shared_ptr<hxbridge::SharedAnswers> answers_;  // see "Reuse"; set by Connect
    std::set<std::string> pendingSnapshots_;       // created here, not yet seen finished
    struct PendingDisk {
        std::string region;
        std::string what;          // "becoming Available", for the timeout's message
        std::string detachedFrom;  // the instance, for a deferred detach
        hxbridge::PollSchedule bound;
        std::chrono::steady_clock::time_point requested;
    };
    std::map<std::string, PendingDisk> pendingDisks_;  // disk id -> its deferred wait
    std::map<std::string, std::string> regionOf_;  // resource id (instance, disk, ...) -> region
    std::vector<SVMInfo> vmCache_;
    std::optional<std::string> proxyId_;
    std::optional<std::string> proxyRegion_;
    std::chrono::steady_clock::time_point proxyNegativeUntil_{};
    hxbridge::JobLabel job_;
};
