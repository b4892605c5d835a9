#include "model/Store.h"

#include <algorithm>
#include <set>

#include "api/ApiError.h"
#include "util/Ipv4.h"

namespace hxsim::model {

using api::NotFound;

Store::Store(const Clock& clock, data::DataPlane& dataPlane, uint64_t seed)
    : clock_(clock), dataPlane_(dataPlane), seed_(seed), rng_(seed) {}

Store::~Store() { StopTicker(); }

void Store::StartTicker() {
  std::lock_guard lock(mutex_);
  if (ticker_.joinable()) return;
  stopTicker_ = false;
  ticker_ = std::thread([this] { TickerLoop(); });
}

void Store::StopTicker() {
  {
    std::lock_guard lock(mutex_);
    stopTicker_ = true;
  }
  cv_.notify_all();
  if (ticker_.joinable()) ticker_.join();
}

void Store::TickerLoop() {
  std::unique_lock lock(mutex_);
  while (!stopTicker_) {
    try {
      Advance();
    } catch (const std::exception&) {
      // A failed link or file operation must not stop time; the next request retries.
    }
    auto next = NextDue();
    if (next) {
      cv_.wait_until(lock, *next);
    } else {
      cv_.wait_for(lock, std::chrono::seconds(1));
    }
  }
}

void Store::Clear() {
  instances.clear();
  disks.clear();
  snapshots.clear();
  images.clear();
  clientTokens.clear();
  vpcs.clear();
  vswitches.clear();
  securityGroups.clear();
  regions_.clear();
  instanceTypes_.clear();
  proxyInstanceId.clear();
  timings_ = Timings{};
  sequence_ = 0;
  rng_.seed(seed_);
}

std::optional<SteadyTime> Store::NextDue() const {
  std::optional<SteadyTime> next;
  auto consider = [&](SteadyTime t) {
    if (!next || t < *next) next = t;
  };
  for (const auto& [id, i] : instances)
    if (!i.steps.empty()) consider(i.steps.front().due);
  for (const auto& [id, d] : disks)
    if (!d.steps.empty()) consider(d.steps.front().due);
  for (const auto& [id, s] : snapshots)
    if (s.status == "progressing" && !s.stalled) consider(s.due);
  for (const auto& [id, m] : images)
    if (m.status == "Creating") consider(m.due);
  return next;
}

void Store::Advance() {
  const SteadyTime now = clock_.Now();
  for (auto& [id, inst] : instances) {
    while (!inst.steps.empty() && inst.steps.front().due <= now) {
      inst.status = inst.steps.front().status;
      inst.steps.pop_front();
      if (inst.status == "Running") inst.startTime = NowIso(false);
    }
  }
  for (auto& [id, disk] : disks) {
    while (!disk.steps.empty() && disk.steps.front().due <= now) {
      std::string status = disk.steps.front().status;
      disk.steps.pop_front();
      ApplyDiskStatus(disk, status);
    }
  }
  for (auto& [id, snap] : snapshots) {
    if (snap.status == "progressing" && !snap.stalled && snap.due <= now) snap.status = "accomplished";
  }
  for (auto& [id, image] : images) {
    if (image.status != "Creating" || image.due > now) continue;
    bool waiting = false, failed = false;
    for (const auto& m : image.mappings) {
      auto it = snapshots.find(m.snapshotId);
      if (it == snapshots.end()) continue;
      waiting = waiting || it->second.status == "progressing";
      failed = failed || it->second.status == "failed";
    }
    if (failed) {
      image.status = "CreateFailed";
    } else if (!waiting) {
      image.status = "Available";
    }
  }
}

void Store::ApplyDiskStatus(Disk& disk, const std::string& status) {
  const std::string previous = disk.status;
  disk.status = status;
  if (status == "In_use" && previous == "Attaching") {
    disk.attachedTime = NowIso();
    if (!proxyInstanceId.empty() && disk.instanceId == proxyInstanceId) {
      dataPlane_.LinkDevice(SerialOf(disk.id), disk.file);
    }
  } else if (status == "Available" && previous == "Detaching") {
    disk.instanceId.clear();
    disk.device.clear();
    disk.detachedTime = NowIso();
  }
}

const Region* Store::FindRegion(const std::string& id) const {
  for (const auto& r : regions_)
    if (r.id == id) return &r;
  return nullptr;
}

const Zone* Store::FindZone(const std::string& zoneId) const {
  for (const auto& r : regions_)
    for (const auto& z : r.zones)
      if (z.id == zoneId) return &z;
  return nullptr;
}

const Region& Store::RegionOrThrow(const std::string& id) const {
  const Region* r = FindRegion(id);
  if (!r) throw NotFound("InvalidRegionId.NotFound", "The specified RegionId does not exist.");
  return *r;
}

namespace {
template <typename Map>
auto& Lookup(Map& map, const std::string& id, const std::string& regionId, const char* code, const char* message) {
  auto it = map.find(id);
  if (it == map.end() || (!regionId.empty() && !it->second.regionId.empty() && it->second.regionId != regionId)) {
    throw NotFound(code, message);
  }
  return it->second;
}
}  // namespace

Instance& Store::InstanceOrThrow(const std::string& id, const std::string& regionId) {
  return Lookup(instances, id, regionId, "InvalidInstanceId.NotFound", "The specified InstanceId does not exist.");
}
Disk& Store::DiskOrThrow(const std::string& id, const std::string& regionId) {
  return Lookup(disks, id, regionId, "InvalidDiskId.NotFound", "The specified disk does not exist.");
}
Snapshot& Store::SnapshotOrThrow(const std::string& id, const std::string& regionId) {
  return Lookup(snapshots, id, regionId, "InvalidSnapshotId.NotFound", "The specified SnapshotId does not exist.");
}
Image& Store::ImageOrThrow(const std::string& id, const std::string& regionId) {
  return Lookup(images, id, regionId, "InvalidImageId.NotFound", "The specified ImageId does not exist.");
}

SecurityGroup& Store::SecurityGroupOrThrow(const std::string& id, const std::string& regionId) {
  return Lookup(securityGroups, id, regionId, "InvalidSecurityGroupId.NotFound",
                "The specified SecurityGroupId does not exist.");
}

const Instance* Store::AddressHolder(const std::string& vswitchId, const std::string& address,
                                     const std::string& except) const {
  for (const auto& [id, i] : instances) {
    if (id != except && i.vswitchId == vswitchId && i.privateIp == address) return &i;
  }
  return nullptr;
}

std::vector<std::string> Store::FreeAddresses(const VSwitch& vswitch, size_t count) const {
  std::vector<std::string> out;
  auto cidr = ipv4::ParseCidr(vswitch.cidrBlock);
  if (!cidr) return out;
  std::set<uint32_t> used;
  for (const auto& [id, i] : instances) {
    if (i.vswitchId != vswitch.id) continue;
    if (auto a = ipv4::Parse(i.privateIp)) used.insert(*a);
  }
  while (out.size() < count) {
    auto free = ipv4::LowestFree(*cidr, used);
    if (!free) break;
    used.insert(*free);
    out.push_back(ipv4::Format(*free));
  }
  return out;
}

const InstanceType& Store::TypeOf(const Instance& instance) const {
  auto it = instanceTypes_.find(instance.instanceType);
  if (it == instanceTypes_.end()) throw std::runtime_error("instance type " + instance.instanceType + " unknown");
  return it->second;
}

std::string Store::NewId(const std::string& prefix) {
  static constexpr char kChars[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (;;) {
    std::string id = prefix;
    for (int i = 0; i < 20; ++i) id += kChars[rng_() % 36];
    if (!instances.count(id) && !disks.count(id) && !snapshots.count(id) && !images.count(id)) return id;
  }
}

std::string Store::NowIso(bool withSeconds) const { return timefmt::Iso8601(clock_.WallNow(), withSeconds); }

std::vector<Disk*> Store::DisksOf(const std::string& instanceId) {
  std::vector<Disk*> out;
  for (auto& [id, d] : disks)
    if (d.instanceId == instanceId) out.push_back(&d);
  return out;
}

namespace {
std::string DeviceName(size_t index) {  // 0 -> xvda, 25 -> xvdz, 26 -> xvdaa
  std::string letters;
  size_t n = index + 1;
  while (n > 0) {
    --n;
    letters.insert(letters.begin(), static_cast<char>('a' + n % 26));
    n /= 26;
  }
  return "/dev/xvd" + letters;
}
}  // namespace

std::string Store::NextDevice(const std::string& instanceId) {
  std::set<std::string> used;
  for (auto* d : DisksOf(instanceId)) used.insert(d->device);
  for (size_t i = 1;; ++i) {
    std::string name = DeviceName(i);
    if (!used.count(name)) return name;
  }
}

std::string Store::SerialOf(const std::string& diskId) {
  return diskId.rfind("d-", 0) == 0 ? diskId.substr(2) : diskId;
}

Disk& Store::CreateDisk(Disk disk, const std::filesystem::path& sourceFile, bool immediate) {
  disk.file = dataPlane_.DiskPath(disk.id);
  const uint64_t bytes = static_cast<uint64_t>(disk.sizeGiB) * data::kGiB;
  if (sourceFile.empty()) {
    data::DataPlane::CreateSparse(disk.file, bytes);
  } else {
    data::DataPlane::Copy(sourceFile, disk.file, bytes);
  }
  disk.creationTime = NowIso();
  disk.sequence = NextSequence();
  if (immediate) {
    disk.status = "Available";
  } else {
    disk.status = "Creating";
    disk.steps.push_back({"Available", clock_.Now() + clock_.Scaled(timings_.diskCreate)});
  }
  auto [it, inserted] = disks.emplace(disk.id, std::move(disk));
  Notify();
  return it->second;
}

void Store::BeginAttach(Disk& disk, const Instance& instance, bool immediate) {
  disk.device = disk.type == "system" ? "/dev/xvda" : NextDevice(instance.id);
  disk.instanceId = instance.id;
  disk.everAttached = true;
  disk.status = "Attaching";
  if (immediate) {
    ApplyDiskStatus(disk, "In_use");
  } else {
    disk.steps.push_back({"In_use", clock_.Now() + clock_.Scaled(timings_.diskAttach)});
    Notify();
  }
}

void Store::BeginDetach(Disk& disk, bool immediate) {
  dataPlane_.UnlinkDevice(SerialOf(disk.id));
  disk.status = "Detaching";
  if (immediate) {
    ApplyDiskStatus(disk, "Available");
  } else {
    disk.steps.push_back({"Available", clock_.Now() + clock_.Scaled(timings_.diskDetach)});
    Notify();
  }
}

void Store::DeleteDisk(const std::string& diskId) {
  auto it = disks.find(diskId);
  if (it == disks.end()) return;
  dataPlane_.UnlinkDevice(SerialOf(diskId));
  data::DataPlane::Remove(it->second.file);
  disks.erase(it);
}

void Store::Schedule(Instance& instance, std::vector<std::pair<std::string, double>> steps) {
  instance.steps.clear();
  SteadyTime at = clock_.Now();
  for (auto& [status, seconds] : steps) {
    at += clock_.Scaled(seconds);
    instance.steps.push_back({status, at});
  }
  Notify();
}

void Store::FailSnapshotsOf(const std::string& instanceId) {
  for (auto& [id, snap] : snapshots) {
    if (snap.status != "progressing") continue;
    auto disk = disks.find(snap.sourceDiskId);
    if (disk != disks.end() && disk->second.instanceId == instanceId) snap.status = "failed";
  }
}

Snapshot& Store::CreateSnapshot(const Disk& disk, Snapshot snap) {
  snap.file = dataPlane_.SnapshotPath(snap.id);
  data::DataPlane::Copy(disk.file, snap.file, static_cast<uint64_t>(disk.sizeGiB) * data::kGiB);
  snap.regionId = disk.regionId;
  snap.sourceDiskId = disk.id;
  snap.sourceDiskType = disk.type;
  snap.sourceDiskCategory = disk.category;
  snap.sourceDiskSizeGiB = disk.sizeGiB;
  snap.started = clock_.Now();
  snap.due = snap.started + clock_.Scaled(timings_.snapshot);
  snap.status = (timings_.snapshot <= 0 && !snap.stalled) ? "accomplished" : "progressing";
  snap.creationTime = NowIso();
  snap.sequence = NextSequence();
  auto [it, inserted] = snapshots.emplace(snap.id, std::move(snap));
  Notify();
  return it->second;
}

namespace {
int Percent(SteadyTime started, SteadyTime due, SteadyTime now) {
  if (due <= started) return 99;
  double fraction = std::chrono::duration<double>(now - started) / std::chrono::duration<double>(due - started);
  return std::clamp(static_cast<int>(fraction * 100), 0, 99);
}
}  // namespace

int Store::SnapshotProgress(const Snapshot& s) const {
  if (s.status == "accomplished") return 100;
  if (s.status == "failed") return 0;
  return Percent(s.started, s.due, clock_.Now());
}

int Store::ImageProgress(const Image& m) const {
  if (m.status == "Available") return 100;
  if (m.status != "Creating") return 0;
  return Percent(m.started, m.due, clock_.Now());
}

}  // namespace hxsim::model
