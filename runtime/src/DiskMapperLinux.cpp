// The Linux disk mapper (CDiskMapperLinux) for ECS disks: virtio-blk and NVMe.
//
// Attach: PostAttachDisk finds the disk by its serial (DeviceLookup.h), polling every 100 ms
// for at most the host's attach wait (default 60 s of real time, not scaled: the kernel
// and udev work at their own pace). A raised cancel flag ends the wait early (failure).
// The mapper remembers every disk it mapped, in attach order.
// PreAttachDisk has nothing to prepare (the lookup is by serial, not by "the new device");
// PostAttachDisk with failed = true only closes the bracket and always succeeds.
//
// Detach: PreDetatchDisk flushes (fsync + BLKFLSBUF) one device, or with an empty name every
// device this mapper still has mapped, since callers do not say which disk they are about
// to detach. PostDetatchDisk then waits (at most the host's detach wait, default 10 s real
// time) until one of the flushed disks is no longer found, forgets the disks that went,
// and fails when none went within the wait (then the detach most likely did not happen).
// Nothing flushed (e.g. cleanup of disks attached by an earlier process): it returns at once.
//
// Read-only/writeable: BLKROSET on a block device; a no-op on a regular file (emulator).
// Online/offline: no-ops that succeed. A virtio-blk or NVMe disk has no separate online
// state on Linux: it is usable as soon as its node exists, and nothing mounts it.
// DeleteDiskDevice / ReScan: the kernel adds and removes virtio and NVMe devices on hot-plug
// by itself, so these only forget the mapping / do nothing, and succeed.
// Lock/Unlock: one process-wide lock (not tied to a thread) with which callers serialise
// their attach brackets across all mapper objects; Unlock without Lock fails.
//
// Init fails when the device root is not a folder, so a misconfigured root fails the
// mount at once instead of making each attach wait out its bound.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <utility>

#include "DeviceLookup.h"
#include "DiskMapperLinux.h"
#include "EvDebug.h"
#include "FxUtil.h"
#include "Time.h"
#include "hxruntime/HostApi.h"

using hxruntime::detail::FindDisk;
using hxruntime::detail::FlushDevice;
using hxruntime::detail::FlushResult;
using hxruntime::detail::FoundDevice;

namespace {

constexpr std::uint32_t kPollMs = 100;

void LogDebug(const char* tag, int level, const std::string& text) {
    if (EvDebug::IsLevelEnabled(level)) EvDebug::Write(EvLogKind::Debug, level, tag, text);
}
void LogError(const char* tag, const std::string& text) { EvDebug::Write(EvLogKind::Error, 0, tag, text); }

// The process-wide attach lock behind Lock/Unlock. A flag under a mutex rather than a held
// std::mutex, so that Unlock from another thread, or without Lock, is defined.
struct AttachGate {
    std::mutex mu;
    std::condition_variable cv;
    bool held = false;
};
AttachGate& Gate() {
    static AttachGate* gate = new AttachGate;  // never destroyed
    return *gate;
}

// Polls `found` (which returns true when done) every kPollMs until it succeeds or `waitMs`
// of real time passed. False on timeout or when the cancel flag is raised.
template <class F>
bool PollUntil(std::uint32_t waitMs, F found) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
        if (found()) return true;
        std::chrono::duration<double, std::milli> left = deadline - Clock::now();
        if (left.count() <= 0) return false;
        if (!hxruntime::detail::SleepRealMs(std::min(left.count(), double(kPollMs)))) return false;
    }
}

}  // namespace

struct CDiskMapperLinux::Impl {
    struct Mapping {
        std::string diskId;
        FoundDevice device;
    };
    std::mutex mu;
    std::vector<Mapping> mapped;        // attach order; one entry per disk id
    std::vector<std::string> flushed;   // disk ids flushed by the last PreDetatchDisk

    void Remember(const std::string& diskId, const FoundDevice& dev) {
        std::lock_guard lock(mu);
        auto it = std::find_if(mapped.begin(), mapped.end(), [&](const Mapping& m) { return m.diskId == diskId; });
        if (it != mapped.end()) it->device = dev;
        else mapped.push_back({diskId, dev});
    }

    void Forget(const std::string& diskId) {
        std::lock_guard lock(mu);
        std::erase_if(mapped, [&](const Mapping& m) { return m.diskId == diskId; });
    }
};

CDiskMapperLinux::CDiskMapperLinux() : impl_(new (std::nothrow) Impl) {}
CDiskMapperLinux::~CDiskMapperLinux() = default;

bool CDiskMapperLinux::Init() {
    try {
        struct stat st{};
        std::string dev = hxruntime::GetDeviceRoot();
        if (!impl_ || ::stat(dev.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            LogError("virtual bool CDiskMapperLinux::Init()", "Device root [" + dev + "] is not a folder.");
            return false;
        }
        return true;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::PreAttachDisk() { return impl_ != nullptr; }

bool CDiskMapperLinux::PostAttachDisk(const std::string& diskId, std::string& logicalName, long long& size,
                                      bool failed) {
    static const char* tag = "virtual bool CDiskMapperLinux::PostAttachDisk(const std::string&, std::string&, long long int&, bool)";
    if (failed) return true;
    try {
        if (!impl_ || diskId.empty()) return false;
        auto roots = hxruntime::detail::CurrentDeviceRoots();
        FoundDevice dev;
        std::uint32_t waitMs = hxruntime::GetAttachWaitMs();
        if (!PollUntil(waitMs, [&] { return FindDisk(roots, diskId, dev); })) {
            LogError(tag, FXString::Format("No device for disk [%s] under [%s] / [%s] after [%u] ms%s.", diskId,
                                           roots.dev, roots.sys, waitMs,
                                           hxruntime::IsCancelRaised() ? " (cancelled)" : ""));
            return false;
        }
        impl_->Remember(diskId, dev);
        logicalName = dev.logicalName;
        size = dev.size;
        LogDebug(tag, 2,
                 FXString::Format("Disk [%s] is [%s], [%lld] bytes%s.", diskId, dev.logicalName, dev.size,
                                  dev.isBlock ? "" : " (regular file)"));
        return true;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::PostAttachDisk(const std::vector<std::string>& diskIds, std::vector<std::string>& logicalNames,
                                      bool failed) {
    static const char* tag =
        "virtual bool CDiskMapperLinux::PostAttachDisk(const std::vector<std::string>&, std::vector<std::string>&, bool)";
    if (failed) return true;
    try {
        if (!impl_) return false;
        for (const auto& id : diskIds)
            if (id.empty()) return false;
        auto roots = hxruntime::detail::CurrentDeviceRoots();
        // One deadline for the whole list: the disks were attached together and appear together.
        std::vector<FoundDevice> devs(diskIds.size());
        std::vector<bool> done(diskIds.size(), false);
        bool all = PollUntil(hxruntime::GetAttachWaitMs(), [&] {
            bool complete = true;
            for (size_t i = 0; i < diskIds.size(); ++i) {
                if (!done[i]) done[i] = FindDisk(roots, diskIds[i], devs[i]);
                complete = complete && done[i];
            }
            return complete;
        });
        if (!all) {
            for (size_t i = 0; i < diskIds.size(); ++i)
                if (!done[i]) LogError(tag, FXString::Format("No device for disk [%s].", diskIds[i]));
            return false;
        }
        logicalNames.clear();
        for (size_t i = 0; i < diskIds.size(); ++i) {
            impl_->Remember(diskIds[i], devs[i]);
            logicalNames.push_back(devs[i].logicalName);
        }
        return true;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::PreDetatchDisk(const std::string& logicalName) {
    static const char* tag = "virtual bool CDiskMapperLinux::PreDetatchDisk(const std::string&)";
    try {
        if (!impl_) return false;
        std::lock_guard lock(impl_->mu);
        impl_->flushed.clear();
        bool ok = true;
        std::vector<std::string> gone;
        bool matched = false;
        for (const auto& m : impl_->mapped) {
            if (!logicalName.empty() && m.device.logicalName != logicalName) continue;
            matched = true;
            switch (FlushDevice(m.device.logicalName)) {
                case FlushResult::Flushed: impl_->flushed.push_back(m.diskId); break;
                case FlushResult::Gone: gone.push_back(m.diskId); break;
                case FlushResult::Failed:
                    LogError(tag, FXString::Format("Flushing [%s] of disk [%s] failed.", m.device.logicalName, m.diskId));
                    ok = false;
                    break;
            }
        }
        for (const auto& id : gone) std::erase_if(impl_->mapped, [&](const Impl::Mapping& m) { return m.diskId == id; });
        // A device this mapper did not attach is flushed all the same; there is nothing to wait for.
        if (!logicalName.empty() && !matched && FlushDevice(logicalName) == FlushResult::Failed) {
            LogError(tag, FXString::Format("Flushing [%s] failed.", logicalName));
            ok = false;
        }
        return ok;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::PostDetatchDisk() {
    static const char* tag = "virtual bool CDiskMapperLinux::PostDetatchDisk()";
    try {
        if (!impl_) return false;
        std::vector<std::string> waiting;
        {
            std::lock_guard lock(impl_->mu);
            waiting.swap(impl_->flushed);
        }
        if (waiting.empty()) return true;
        auto roots = hxruntime::detail::CurrentDeviceRoots();
        std::vector<std::string> gone;
        std::uint32_t waitMs = hxruntime::GetDetachWaitMs();
        bool went = PollUntil(waitMs, [&] {
            FoundDevice dev;
            for (const auto& id : waiting)
                if (!FindDisk(roots, id, dev)) gone.push_back(id);
            return !gone.empty();
        });
        for (const auto& id : gone) impl_->Forget(id);
        if (!went)
            LogError(tag, FXString::Format("None of [%zu] flushed disk(s) went away within [%u] ms.", waiting.size(), waitMs));
        return went;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::MakeDiskWriteable(const std::string& logicalName) {
    return hxruntime::detail::SetDeviceReadOnly(logicalName, false);
}

bool CDiskMapperLinux::MakeDiskReadOnly(const std::string& logicalName) {
    return hxruntime::detail::SetDeviceReadOnly(logicalName, true);
}

bool CDiskMapperLinux::BringDiskOffline(const std::string&) { return true; }
bool CDiskMapperLinux::BringDiskOnline(const std::string&) { return true; }

bool CDiskMapperLinux::DeleteDiskDevice(const std::string& logicalName) {
    try {
        if (!impl_) return false;
        std::lock_guard lock(impl_->mu);
        std::erase_if(impl_->mapped, [&](const Impl::Mapping& m) { return m.device.logicalName == logicalName; });
        return true;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::DeleteDiskDeviceList(const std::vector<std::string>& logicalNames) {
    bool ok = true;
    for (const auto& n : logicalNames) ok = DeleteDiskDevice(n) && ok;
    return ok;
}

bool CDiskMapperLinux::ReScan() { return true; }

bool CDiskMapperLinux::Lock() {
    try {
        auto& g = Gate();
        std::unique_lock lock(g.mu);
        g.cv.wait(lock, [&] { return !g.held; });
        g.held = true;
        return true;
    } catch (...) {
        return false;
    }
}

bool CDiskMapperLinux::Unlock() {
    try {
        auto& g = Gate();
        {
            std::lock_guard lock(g.mu);
            if (!g.held) return false;
            g.held = false;
        }
        g.cv.notify_one();
        return true;
    } catch (...) {
        return false;
    }
}
