#include "data/DataPlane.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <random>
#include <system_error>

namespace fs = std::filesystem;

namespace hxsim::data {

namespace {

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Closes the descriptor when it goes out of scope.
class Fd {
 public:
  Fd(const fs::path& path, int flags, mode_t mode = 0644) : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {
    if (fd_ < 0) ThrowErrno("open " + path.string());
  }
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

void WriteAll(int fd, const char* data, size_t size, off_t offset) {
  while (size > 0) {
    ssize_t n = ::pwrite(fd, data, size, offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      ThrowErrno("pwrite");
    }
    data += n;
    size -= static_cast<size_t>(n);
    offset += n;
  }
}

// Copies [begin, end) of src to the same offsets of dst.
void CopyRange(int src, int dst, off_t begin, off_t end) {
  std::vector<char> buffer(kMiB);
  while (begin < end) {
    size_t want = static_cast<size_t>(std::min<off_t>(end - begin, static_cast<off_t>(buffer.size())));
    ssize_t n = ::pread(src, buffer.data(), want, begin);
    if (n < 0) {
      if (errno == EINTR) continue;
      ThrowErrno("pread");
    }
    if (n == 0) break;
    WriteAll(dst, buffer.data(), static_cast<size_t>(n), begin);
    begin += n;
  }
}

void SparseCopy(int src, int dst, off_t size) {
  off_t pos = 0;
  while (pos < size) {
    off_t data = ::lseek(src, pos, SEEK_DATA);
    if (data < 0) {
      if (errno == ENXIO) break;  // only holes remain
      if (errno == EINVAL) {      // filesystem without SEEK_DATA: copy everything
        CopyRange(src, dst, pos, size);
        return;
      }
      ThrowErrno("lseek SEEK_DATA");
    }
    off_t hole = ::lseek(src, data, SEEK_HOLE);
    if (hole < 0) ThrowErrno("lseek SEEK_HOLE");
    CopyRange(src, dst, data, hole);
    pos = hole;
  }
}

}  // namespace

DataPlane::DataPlane(fs::path stateDir, fs::path deviceRoot)
    : stateDir_(std::move(stateDir)), deviceRoot_(std::move(deviceRoot)) {}

fs::path DataPlane::ByIdDir() const { return deviceRoot_ / "dev" / "disk" / "by-id"; }

void DataPlane::Prepare() {
  for (const char* sub : {"disks", "snapshots", "images"}) {
    fs::remove_all(stateDir_ / sub);
    fs::create_directories(stateDir_ / sub);
  }
  fs::remove_all(ByIdDir());
  fs::create_directories(ByIdDir());
}

fs::path DataPlane::DiskPath(const std::string& diskId) const { return stateDir_ / "disks" / (diskId + ".img"); }
fs::path DataPlane::SnapshotPath(const std::string& id) const { return stateDir_ / "snapshots" / (id + ".img"); }
fs::path DataPlane::ImagePath(const std::string& imageId, size_t index) const {
  return stateDir_ / "images" / (imageId + "-" + std::to_string(index) + ".img");
}

void DataPlane::CreateSparse(const fs::path& path, uint64_t bytes) {
  Fd fd(path, O_WRONLY | O_CREAT | O_TRUNC);
  if (::ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0) ThrowErrno("ftruncate " + path.string());
}

bool DataPlane::Copy(const fs::path& src, const fs::path& dst, uint64_t bytes) {
  Fd in(src, O_RDONLY);
  struct stat st {};
  if (::fstat(in.get(), &st) != 0) ThrowErrno("fstat " + src.string());
  if (static_cast<uint64_t>(st.st_size) > bytes) throw std::runtime_error("copy target smaller than source");
  Fd out(dst, O_WRONLY | O_CREAT | O_TRUNC);
  bool cloned = ::ioctl(out.get(), FICLONE, in.get()) == 0;
  if (!cloned) {
    if (::ftruncate(out.get(), st.st_size) != 0) ThrowErrno("ftruncate " + dst.string());
    SparseCopy(in.get(), out.get(), st.st_size);
  }
  if (::ftruncate(out.get(), static_cast<off_t>(bytes)) != 0) ThrowErrno("ftruncate " + dst.string());
  return cloned;
}

void DataPlane::Fill(const fs::path& path, uint64_t bytes, const ContentPattern& pattern) {
  if (pattern.kind == "zero" || pattern.dataMiB == 0) return;
  if (pattern.kind != "marker" && pattern.kind != "random") {
    throw std::runtime_error("unknown content pattern \"" + pattern.kind + "\"");
  }
  uint64_t chunks = std::min<uint64_t>(pattern.dataMiB, bytes / kMiB);
  if (chunks == 0) return;
  // Chunks are spread evenly so the file keeps holes between data extents.
  uint64_t stride = (bytes / kMiB / chunks) * kMiB;
  Fd fd(path, O_WRONLY);
  std::vector<char> chunk(kMiB);
  std::mt19937_64 rng(pattern.seed);
  for (uint64_t i = 0; i < chunks; ++i) {
    uint64_t offset = i * stride;
    if (pattern.kind == "random") {
      for (size_t b = 0; b < chunk.size(); b += 8) {
        uint64_t v = rng();
        std::memcpy(chunk.data() + b, &v, 8);
      }
    } else {
      for (size_t b = 0; b < chunk.size(); b += 64) {
        char line[65];
        std::snprintf(line, sizeof line, "hxsim %-22.22s off=%016llx .............\n", pattern.label.c_str(),
                      static_cast<unsigned long long>(offset + b));
        std::memcpy(chunk.data() + b, line, 64);
      }
    }
    WriteAll(fd.get(), chunk.data(), chunk.size(), static_cast<off_t>(offset));
  }
}

void DataPlane::Remove(const fs::path& path) {
  std::error_code ec;
  fs::remove(path, ec);
}

fs::path DataPlane::DeviceLinkPath(const std::string& serial) const { return ByIdDir() / ("virtio-" + serial); }

void DataPlane::LinkDevice(const std::string& serial, const fs::path& target) {
  fs::path link = DeviceLinkPath(serial);
  std::error_code ec;
  fs::remove(link, ec);
  fs::create_symlink(fs::absolute(target), link);
}

void DataPlane::UnlinkDevice(const std::string& serial) {
  std::error_code ec;
  fs::remove(DeviceLinkPath(serial), ec);
}

std::vector<std::string> DataPlane::DeviceLinks() const {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(ByIdDir(), ec)) out.push_back(entry.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace hxsim::data
