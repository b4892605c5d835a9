#include "DeviceLookup.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "FxUtil.h"
#include "hxruntime/HostApi.h"

namespace hxruntime::detail {

namespace {

constexpr size_t kVirtioSerialMax = 20;

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::string RealPath(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : path;
}

bool Probe(const std::string& path, FoundDevice& out) {
    long long size = 0;
    bool isBlock = false;
    if (!DeviceSize(path, size, isBlock) || size <= 0) return false;
    out.logicalName = isBlock ? RealPath(path) : path;
    out.size = size;
    out.isBlock = isBlock;
    return true;
}

// The sysfs scan: a block device whose serial file holds one of the serials.
bool ScanSysBlock(const DeviceRoots& roots, const std::vector<std::string>& serials, FoundDevice& out) {
    std::string block = roots.sys + "/block";
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(block.c_str()), ::closedir);
    if (!dir) return false;
    while (dirent* e = ::readdir(dir.get())) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string serial;
        if (!ReadWholeFile(block + "/" + name + "/serial", serial) &&
            !ReadWholeFile(block + "/" + name + "/device/serial", serial))
            continue;
        serial = Trim(serial);
        for (const auto& want : serials)
            if (serial == want && Probe(roots.dev + "/" + name, out)) return true;
    }
    return false;
}

}  // namespace

DeviceRoots CurrentDeviceRoots() {
    DeviceRoots r;
    r.dev = GetDeviceRoot();
    r.sys = GetSysRoot();
    return r;
}

std::vector<std::string> SerialCandidates(const std::string& diskId) {
    std::string serial = diskId.size() > 2 && diskId.compare(0, 2, "d-") == 0 ? diskId.substr(2) : diskId;
    std::vector<std::string> out{serial};
    if (serial.size() > kVirtioSerialMax) out.push_back(serial.substr(0, kVirtioSerialMax));
    return out;
}

bool FindDisk(const DeviceRoots& roots, const std::string& diskId, FoundDevice& out) {
    if (diskId.empty()) return false;
    std::vector<std::string> serials = SerialCandidates(diskId);
    std::string byId = roots.dev + "/disk/by-id/";
    for (const auto& s : serials) {
        if (Probe(byId + "virtio-" + s, out)) return true;
        if (Probe(byId + "nvme-Alibaba_Cloud_Elastic_Block_Storage_" + s, out)) return true;
    }
    return ScanSysBlock(roots, serials, out);
}

bool DeviceSize(const std::string& path, long long& size, bool& isBlock) {
    struct stat st{};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) return false;
    isBlock = S_ISBLK(st.st_mode);
    return FileSize(path, size);  // BLKGETSIZE64 or st_size; false for other kinds
}

FlushResult FlushDevice(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return errno == ENOENT || errno == ENXIO || errno == ENODEV ? FlushResult::Gone : FlushResult::Failed;
    FlushResult result = FlushResult::Flushed;
    if (::fsync(fd) != 0 && errno != EINVAL && errno != EROFS) result = FlushResult::Failed;
    struct stat st{};
    if (result == FlushResult::Flushed && ::fstat(fd, &st) == 0 && S_ISBLK(st.st_mode))
        ::ioctl(fd, BLKFLSBUF, 0);  // needs CAP_SYS_ADMIN; fsync above already wrote dirty data
    ::close(fd);
    return result;
}

bool SetDeviceReadOnly(const std::string& path, bool readOnly) {
    struct stat st{};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) return false;
    if (S_ISREG(st.st_mode)) return true;
    if (!S_ISBLK(st.st_mode)) return false;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    int current = -1;
    bool ok = ::ioctl(fd, BLKROGET, &current) == 0 && (current != 0) == readOnly;
    if (!ok) {
        int want = readOnly ? 1 : 0;
        ok = ::ioctl(fd, BLKROSET, &want) == 0;
    }
    ::close(fd);
    return ok;
}

}  // namespace hxruntime::detail
