// The framework's Linux disk mapper: turns a cloud disk attached to this machine into a
// local block device, and prepares devices for detaching.
//
// Usage: PreAttachDisk before every attach, PostAttachDisk after it (failed = true closes
// the bracket of an attach that did not happen); PreDetatchDisk / PostDetatchDisk around a
// detach ("Detatch" is the framework's spelling). All operations return true on success and
// never throw.
#pragma once

#include <memory>
#include <string>
#include <vector>

class CDiskMapperLinux {
public:
    CDiskMapperLinux();
    virtual ~CDiskMapperLinux();
    CDiskMapperLinux(const CDiskMapperLinux&) = delete;
    CDiskMapperLinux& operator=(const CDiskMapperLinux&) = delete;

    virtual bool Init();
    virtual bool PreAttachDisk();
    // After attaching `diskId`: finds its block device (waiting a bounded time for it to
    // appear), returns its path in `logicalName` and its size in bytes in `size`.
    virtual bool PostAttachDisk(const std::string& diskId, std::string& logicalName, long long& size, bool failed);
    // The list form: one device per disk id, in order.
    virtual bool PostAttachDisk(const std::vector<std::string>& diskIds, std::vector<std::string>& logicalNames,
                                bool failed);
    // Before a detach: flushes `logicalName` (empty = every device this mapper attached).
    virtual bool PreDetatchDisk(const std::string& logicalName);
    // After a detach: waits (bounded) until devices whose disks were detached are gone.
    virtual bool PostDetatchDisk();
    virtual bool MakeDiskWriteable(const std::string& logicalName);
    virtual bool MakeDiskReadOnly(const std::string& logicalName);
    virtual bool BringDiskOffline(const std::string& logicalName);
    virtual bool BringDiskOnline(const std::string& logicalName);
    virtual bool DeleteDiskDevice(const std::string& logicalName);
    virtual bool DeleteDiskDeviceList(const std::vector<std::string>& logicalNames);
    virtual bool ReScan();
    virtual bool Lock();
    virtual bool Unlock();

    struct Impl;  // defined by each implementation

private:
    std::unique_ptr<Impl> impl_;
};
