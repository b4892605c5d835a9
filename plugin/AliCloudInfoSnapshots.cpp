// Snapshots: taking one of every disk, registering each with the cleaner, and waiting
// until the cloud reports them complete. Backup and restore share _CreateSnapshots.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
// Snapshots of large disks take minutes to hours; poll at a fixed, unhurried pace.
constexpr int kSnapshotPollSeconds = 20;
}  // namespace

bool CAliCloudInfo::TakeSnapshots(const MountCtx& ctx) {
    // The job's record receives the filter marks and the snapshot ids; later calls read them.
    MountCtx& job = const_cast<MountCtx&>(ctx);
    vector<SDisk> disks;
    // Cleared by every disk, filtered or not: only an empty list stops here. A filtered disk
    // is still snapshotted; the filter spares it the disk creation and the attach.
    bool allFiltered = true;
    for (SDisk& disk : job.vmInfo.disks) {
        if (IsDiskFiltered(ctx, disk)) {
            disk.filtered = true;
            ++job.filteredDiskCount;
        }
        disks.push_back(disk);
        allFiltered = false;
    }
    if (allFiltered) {
        log.Error(kTakeSnapshots, "All the disks of the instance are filtered");
        SetLastVMError(VMINFO_ERR_ALL_DISKS_FILTERED);
        return false;
    }
    if (IsJobCancelled()) {
        log.Debug(kTakeSnapshots, "Detected Quit flag");
        SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
        return false;
    }
    if (!_CreateSnapshots(ctx.vmInfo.guid, disks, VM_CLEANER_MODE_BACKUP)) return false;

    // The local list is a copy in the same order, so the search for each disk goes on from
    // the last match instead of starting over.
    size_t j = 0;
    for (const SDisk& taken : disks) {
        while (j < job.vmInfo.disks.size() && job.vmInfo.disks[j].diskId != taken.diskId) ++j;
        if (j < job.vmInfo.disks.size()) job.vmInfo.disks[j].snapshotId = taken.snapshotId;
    }
    return true;
}

bool CAliCloudInfo::_WaitForSnapshots(const vector<SDisk>& disks) {
    for (const SDisk& disk : disks) {
        if (disk.diskType != 1) continue;
        const std::string snapshotId = disk.snapshotId;
        log.Debug(k_WaitForSnapshots, "Waiting for snapshot [%s] to finish completion.", snapshotId);
        // No upper bound: a slow snapshot is waited for until it completes or the job is
        // cancelled. The cancel flag is read before every status call; the caller reports it.
        for (;;) {
            if (IsJobCancelled()) return false;
            bool completed = false;
            if (!bridge->IsSnapshotCompleted(proxyVMInfo.regionId, snapshotId, completed)) {
                log.Error(k_WaitForSnapshots, "Failed to get status of snapshot [%s].", snapshotId);
                return false;
            }
            if (completed) break;
            log.DebugLvl(k_WaitForSnapshots, 5, "Snapshot [%s] not yet completed. Waiting for [%d] seconds.",
                         snapshotId, kSnapshotPollSeconds);
            FXThread::Sleep(kSnapshotPollSeconds * 1000);
        }
    }
    return true;
}

bool CAliCloudInfo::_CreateSnapshots(const string& vmId, vector<SDisk>& disks, VM_Cleaner_Mode mode) {
    for (size_t i = 0; i < disks.size(); ++i) {
        if (IsJobCancelled()) {
            log.Debug(k_CreateSnapshots, "Detected Quit flag");
            SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
            return false;
        }
        SDisk& disk = disks[i];
        if (disk.diskType != 1) continue;
        log.Debug(k_CreateSnapshots, "Creating snapshot for disk [%s].", disk.diskId);
        SChildDisk snapshot;
        if (!bridge->CreateSnapshot(disk.diskId, snapshot, "", "")) {
            // Snapshots taken before this one stay registered; cleanup removes them.
            const std::string message = FXString::Format("Failed to create snapshot for disk [%s]. Error: [%s].",
                                                         disk.diskId, bridge->GetLastError());
            log.Error(k_CreateSnapshots, "%s", message);
            SetLastVMError(VMINFO_ERR_SNAPSHOT_CREATE);
            SetLastVMErrorDetails(message);
            return false;
        }
        disk.snapshotId = snapshot.snapshotId;
        // Mode "none" creates without registering. A snapshot the cleaner does not know is
        // accepted: the job goes on, only a crash would leave it behind.
        if (mode != VM_CLEANER_MODE_NONE && !cleaner.RegisterSnapshot(mode, vmId, disk.snapshotId))
            log.Error(k_CreateSnapshots, "Failed to register snapshot [%s] with cleaner!! Snapshot may not be cleaned up.",
                      disk.snapshotId);
        log.Debug(k_CreateSnapshots, "Snapshot [%s] for disk [%s].", disk.snapshotId, disk.diskId);
    }
    return true;
}
