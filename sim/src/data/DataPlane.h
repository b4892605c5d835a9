// The emulator's data plane: one sparse file per disk, snapshot and image disk under the
// state folder, and the device links a guest would see under /dev/disk/by-id.
//
// Layout (all created by Prepare):
//   <state>/disks/<disk id>.img          full disk size, sparse
//   <state>/snapshots/<snapshot id>.img  frozen copy of the source disk
//   <state>/images/<image id>-<n>.img    an image's own copy of its n-th disk
//   <deviceRoot>/dev/disk/by-id/virtio-<serial> -> absolute path of the disk file
//
// Copies are cheap: FICLONE (reflink) where the filesystem supports it, otherwise a
// sparse-aware copy that walks SEEK_DATA/SEEK_HOLE and writes only data extents.
// Failures throw std::system_error / std::runtime_error; callers inside the request
// pipeline turn them into InternalError.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace hxsim::data {

constexpr uint64_t kGiB = uint64_t{1} << 30;
constexpr uint64_t kMiB = uint64_t{1} << 20;

// What a scenario disk initially holds.
struct ContentPattern {
  // "zero": nothing written (all holes).
  // "marker": 1 MiB chunks of text lines "hxsim <label> offset=<hex>" spread evenly over
  //           the disk, so a copy can be checked by eye and by offset.
  // "random": 1 MiB chunks of pseudo-random bytes from `seed`, at the same offsets.
  std::string kind = "zero";
  uint64_t dataMiB = 0;  // how many 1 MiB chunks to write
  std::string label;     // usually the disk id
  uint64_t seed = 0;
};

class DataPlane {
 public:
  DataPlane(std::filesystem::path stateDir, std::filesystem::path deviceRoot);

  // Creates the folders and removes whatever an earlier run left in them (only the
  // emulator's own subfolders are touched).
  void Prepare();

  const std::filesystem::path& StateDir() const { return stateDir_; }
  const std::filesystem::path& DeviceRoot() const { return deviceRoot_; }
  std::filesystem::path ByIdDir() const;

  std::filesystem::path DiskPath(const std::string& diskId) const;
  std::filesystem::path SnapshotPath(const std::string& snapshotId) const;
  std::filesystem::path ImagePath(const std::string& imageId, size_t index) const;

  // A sparse file of exactly `bytes` bytes (replaces any existing file).
  static void CreateSparse(const std::filesystem::path& path, uint64_t bytes);
  // Copies src to dst (reflink or sparse-aware), then sizes dst to `bytes`, which
  // must be at least src's size. Returns true when a reflink was used.
  static bool Copy(const std::filesystem::path& src, const std::filesystem::path& dst, uint64_t bytes);
  static void Fill(const std::filesystem::path& path, uint64_t bytes, const ContentPattern& pattern);
  static void Remove(const std::filesystem::path& path);

  // The guest-visible name of a disk: virtio-<serial>.
  std::filesystem::path DeviceLinkPath(const std::string& serial) const;
  void LinkDevice(const std::string& serial, const std::filesystem::path& target);
  void UnlinkDevice(const std::string& serial);
  std::vector<std::string> DeviceLinks() const;  // link names currently present

 private:
  std::filesystem::path stateDir_;
  std::filesystem::path deviceRoot_;
};

}  // namespace hxsim::data
