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
// Waits (every one bounded; intervals start at 250 ms and grow to 2 s; all scaled by
// ALIBABA_CLOUD_BRIDGE_TIME_SCALE):
//   CreateDisk  -> disk Available ................ 15 min (large disks from snapshots)
//   AttachDisk  -> disk In_use on the instance ..... 5 min
//   DetachDisk  -> disk Available ................. 10 min (ECS documents about a minute)
//   CreateImageFromDiskSnapshots -> image Available  90 min (copying snapshot data)
//   PowerOffInstance with waitUntilStopped -> Stopped 10 min
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

struct WaitBounds {
    PollSchedule createDisk{std::chrono::milliseconds(250), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(15)};
    PollSchedule attachDisk{std::chrono::milliseconds(250), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(5)};
    PollSchedule detachDisk{std::chrono::milliseconds(250), 1.6, std::chrono::milliseconds(2000),
                            std::chrono::minutes(10)};
    PollSchedule createImage{std::chrono::milliseconds(500), 1.6, std::chrono::milliseconds(2000),
                             std::chrono::minutes(90)};
    PollSchedule stopInstance{std::chrono::milliseconds(250), 1.6, std::chrono::milliseconds(2000),
                              std::chrono::minutes(10)};
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

    // Lists (all pages).
    std::vector<json> ListPaged(const std::string& action, const std::string& regionId, hxbridge::Params params,
                                const char* outer, const char* inner);
    std::vector<json> Regions();
    std::vector<json> Zones(const std::string& regionId);
    std::vector<json> Instances(const std::string& regionId, hxbridge::Params filter);
    std::vector<SVMInfo> InstancesAsRecords(const std::string& regionId, hxbridge::Params filter);

    // One object by id in a region; nullopt when ECS does not know it there.
    std::optional<json> FindInstance(const std::string& regionId, const std::string& id);
    std::optional<json> FindDisk(const std::string& regionId, const std::string& id);
    std::optional<json> FindSnapshot(const std::string& regionId, const std::string& id);
    std::optional<json> FindImage(const std::string& regionId, const std::string& id);
    std::optional<json> Find(Kind kind, const std::string& regionId, const std::string& id);
    // The object, or the action's NotFound ApiError.
    json Require(Kind kind, const std::string& regionId, const std::string& id);

    // Region of an object (see the header comment); throws NotFound.
    std::string RegionOf(Kind kind, const std::string& id);
    // The object's region and description; an empty region and nullopt when no region knows it.
    std::pair<std::string, std::optional<json>> Locate(Kind kind, const std::string& id);
    // `regionId` when given, else RegionOf.
    std::string RegionOr(const std::string& regionId, Kind kind, const std::string& id);
    void Remember(const std::string& id, const std::string& regionId);

    std::string ArchitectureFor(const std::string& regionId, const json& instance);
    std::optional<json> InstanceType(const std::string& regionId, const std::string& typeId);
    void LoadInstanceTypes(const std::string& regionId, const std::vector<std::string>& typeIds);
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

    std::map<std::string, std::string> regionOf_;  // resource id (instance, disk, ...) -> region
    std::vector<json> regions_;                    // DescribeRegions, cached per connection
    std::map<std::string, json> instanceTypes_;    // type id -> DescribeInstanceTypes entry
    std::vector<SVMInfo> vmCache_;
    std::optional<std::string> proxyId_;
    std::optional<std::string> proxyRegion_;
    std::chrono::steady_clock::time_point proxyNegativeUntil_{};
    hxbridge::JobLabel job_;
};
