// The emulator's state: the scenario's static catalogue (regions, zones, instance
// types), every resource, ClientToken records, and the asynchronous transitions.
//
// Locking: one mutex guards everything. Action handlers run with Lock() held for their
// whole duration; every accessor below requires it. A background ticker applies due
// transitions (so device links appear on time even when nobody polls), and Advance() is
// also called at the start of every request so that answers are exact.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

#include "data/DataPlane.h"
#include "model/Clock.h"
#include "model/Model.h"

namespace hxsim::model {

struct ClientTokenRecord {
  std::string fingerprint;  // Params::Fingerprint of the first request
  std::string resultJson;   // the response fields of the first request
  SteadyTime readyAt{};     // until then the first request counts as still running
};

class Store {
 public:
  Store(const Clock& clock, data::DataPlane& dataPlane, uint64_t seed);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  std::unique_lock<std::mutex> Lock() { return std::unique_lock(mutex_); }
  void StartTicker();
  void StopTicker();
  // Wakes the ticker after a transition was scheduled.
  void Notify() { cv_.notify_all(); }

  // Removes every resource and ClientToken (catalogue included) and restarts the id
  // sequence from the seed; the caller then loads a scenario again. Files are not touched (DataPlane::Prepare does that).
  void Clear();

  // Applies every transition whose time has come.
  void Advance();

  const Clock& clock() const { return clock_; }
  data::DataPlane& dataPlane() { return dataPlane_; }
  Timings& timings() { return timings_; }

  // ---- catalogue ----
  std::vector<Region>& regions() { return regions_; }
  std::map<std::string, InstanceType>& instanceTypes() { return instanceTypes_; }
  const Region* FindRegion(const std::string& id) const;
  const Zone* FindZone(const std::string& zoneId) const;
  // Throws InvalidRegionId.NotFound when the region is unknown.
  const Region& RegionOrThrow(const std::string& id) const;
  std::string proxyInstanceId;

  // ---- resources (ordered by id) ----
  std::map<std::string, Instance> instances;
  std::map<std::string, Disk> disks;
  std::map<std::string, Snapshot> snapshots;
  std::map<std::string, Image> images;
  std::map<std::string, ClientTokenRecord> clientTokens;  // key: action + "\n" + token
  std::map<std::string, Vpc> vpcs;
  std::map<std::string, VSwitch> vswitches;
  std::map<std::string, SecurityGroup> securityGroups;

  // Lookups that answer an unknown id (or one outside `regionId`, when given) with the
  // service's 404 code.
  Instance& InstanceOrThrow(const std::string& id, const std::string& regionId = "");
  Disk& DiskOrThrow(const std::string& id, const std::string& regionId = "");
  Snapshot& SnapshotOrThrow(const std::string& id, const std::string& regionId = "");
  Image& ImageOrThrow(const std::string& id, const std::string& regionId = "");
  const InstanceType& TypeOf(const Instance& instance) const;
  SecurityGroup& SecurityGroupOrThrow(const std::string& id, const std::string& regionId = "");

  // ---- network helpers ----
  // The instance other than `except` that holds `address` in the vSwitch, or nullptr.
  const Instance* AddressHolder(const std::string& vswitchId, const std::string& address,
                                const std::string& except = "") const;
  // Up to `count` usable addresses of the vSwitch that no instance holds, lowest first.
  std::vector<std::string> FreeAddresses(const VSwitch& vswitch, size_t count) const;

  // A fresh id: prefix + 20 lowercase alphanumerics (seeded, so runs are repeatable).
  std::string NewId(const std::string& prefix);
  uint64_t NextSequence() { return ++sequence_; }
  std::string NowIso(bool withSeconds = true) const;

  // ---- disk helpers ----
  // Disks that count against the instance's DiskQuantity (attaching, attached, detaching).
  std::vector<Disk*> DisksOf(const std::string& instanceId);
  // Lowest free API device name on the instance (/dev/xvda is the system disk's).
  std::string NextDevice(const std::string& instanceId);
  static std::string SerialOf(const std::string& diskId);
  // Creates the record and its sparse file; the disk starts Creating (or Available when
  // `immediate`), with content copied from `sourceFile` when given.
  Disk& CreateDisk(Disk disk, const std::filesystem::path& sourceFile, bool immediate);
  // Starts Available -> Attaching -> In_use. The device link appears when the attach
  // completes, and only when the instance is the proxy.
  void BeginAttach(Disk& disk, const Instance& instance, bool immediate);
  // Starts In_use -> Detaching -> Available; the guest loses the device at once.
  void BeginDetach(Disk& disk, bool immediate);
  void DeleteDisk(const std::string& diskId);

  // ---- instance helpers ----
  void Schedule(Instance& instance, std::vector<std::pair<std::string, double>> steps);
  // Snapshots still in progress of disks on this instance fail when its state changes.
  void FailSnapshotsOf(const std::string& instanceId);

  // ---- snapshot/image helpers ----
  // Freezes the disk's current content into a new snapshot record (progressing).
  Snapshot& CreateSnapshot(const Disk& disk, Snapshot snapshot);
  // Progress in percent (0..100) as reported now.
  int SnapshotProgress(const Snapshot& snapshot) const;
  int ImageProgress(const Image& image) const;

 private:
  void TickerLoop();
  std::optional<SteadyTime> NextDue() const;
  void ApplyDiskStatus(Disk& disk, const std::string& status);

  const Clock& clock_;
  data::DataPlane& dataPlane_;
  uint64_t seed_;
  std::mt19937_64 rng_;
  uint64_t sequence_ = 0;
  Timings timings_;
  std::vector<Region> regions_;
  std::map<std::string, InstanceType> instanceTypes_;

  std::mutex mutex_;
  std::condition_variable cv_;
  std::thread ticker_;
  bool stopTicker_ = false;
};

}  // namespace hxsim::model
