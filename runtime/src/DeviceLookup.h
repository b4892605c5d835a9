// Finding an ECS cloud disk among this machine's block devices, and the block-device
// operations of the disk mapper.
//
// A cloud disk "d-<rest>" carries the serial "<rest>" (virtio serials are cut to 20
// characters; a disk id without "d-" is taken as the serial itself). It is looked for, in
// this order, under the roots the host set (hxruntime::SetDeviceRoots):
//   <dev>/disk/by-id/virtio-<serial>
//   <dev>/disk/by-id/nvme-Alibaba_Cloud_Elastic_Block_Storage_<serial>
//   <sys>/block/<name>/serial or <sys>/block/<name>/device/serial (NVMe) holding the
//   serial (surrounding blanks ignored)  ->  <dev>/<name>
// The udev links can be missing on some images; the sysfs scan covers that case.
//
// What is reported: for a block device the resolved node (e.g. "/dev/vdb"); for a regular
// file (the emulator presents a disk as a by-id link to a sparse file) the path where it
// was found, i.e. the by-id link itself, so that the name stops resolving once the emulator
// detaches the disk, as a real device node would.
#pragma once

#include <string>
#include <vector>

namespace hxruntime::detail {

struct DeviceRoots {
    std::string dev = "/dev";
    std::string sys = "/sys";
};
DeviceRoots CurrentDeviceRoots();

struct FoundDevice {
    std::string logicalName;  // what the mapper reports (see above)
    long long size = 0;       // bytes
    bool isBlock = false;     // a block device (else a regular file)
};

// Serials the disk may carry, most specific first.
std::vector<std::string> SerialCandidates(const std::string& diskId);

// One look, no waiting: true when the disk is present with a non-zero size (a device that
// reports 0 bytes is still settling and counts as not there yet).
bool FindDisk(const DeviceRoots& roots, const std::string& diskId, FoundDevice& out);

// Size of a block device (BLKGETSIZE64) or regular file; false for anything else.
bool DeviceSize(const std::string& path, long long& size, bool& isBlock);

enum class FlushResult { Flushed, Gone, Failed };
// fsync, and BLKFLSBUF on a block device (its refusal without CAP_SYS_ADMIN is ignored).
// Gone when the path no longer exists; Failed when fsync reports an I/O error.
FlushResult FlushDevice(const std::string& path);

// BLKROSET on a block device (true at once when BLKROGET already shows the wanted state);
// a regular file is left alone (true). False when the path is missing or the ioctl fails.
bool SetDeviceReadOnly(const std::string& path, bool readOnly);

}  // namespace hxruntime::detail
