// CAliCloudCleaner: a typed layer over the framework's persistent cleaner, naming the cloud
// objects a job creates: the job's VM (the root entity), and under it the snapshots, disks
// and templates (custom images) created for it.
//
// Every operation returns true on success (or "found") and logs nothing: callers decide
// what a failure means. Outputs are appended to; lists are never cleared first.
#pragma once

#include <string>
#include <vector>

#include "VMCleaner.h"
#include "VMInfoStructs.h"

class CAliCloudCleaner : public VMCleaner {
public:
    CAliCloudCleaner() = default;
    ~CAliCloudCleaner() override = default;

    // Opens the registry of the proxy `proxyId`.
    bool Init(const std::string& proxyId);
    bool DeInit();

    // The job's VM: a root entity.
    bool RegisterVM(VM_Cleaner_Mode mode, const std::string& vmGuid);
    // Children of the VM entity of the same mode and id; false (and nothing registered)
    // when that VM is not registered.
    bool RegisterSnapshot(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& snapshotId);
    bool RegisterDisk(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& diskId);
    // Reports success when the VM is registered even if the store refused the image entity:
    // callers treat an image as registered once its VM is.
    bool RegisterTemplate(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& imageId);

    // Unregistration takes the VM entity's cleaner path (from GetRegisteredVM), not its id.
    bool UnRegisterVM(const std::string& cleanerPath);
    bool UnRegisterSnapshot(const std::string& vmCleanerPath, const std::string& snapshotId);
    bool UnRegisterDisk(const std::string& vmCleanerPath, const std::string& diskId);
    bool UnRegisterTemplate(const std::string& vmCleanerPath, const std::string& imageId);

    // Finds the VM entity's cleaner path: a live entity first (unless `orphansOnly`), then
    // among the orphans left by earlier processes.
    bool GetRegisteredVM(VM_Cleaner_Mode mode, const std::string& vmGuid, std::string& cleanerPath, bool orphansOnly);
    // One SDisk per registered disk, with diskId and diskName set to the registered id and
    // diskType 1 (a cloud disk: the only kind ever registered, and the only kind teardown removes).
    bool GetRegisteredDisks(const std::string& vmCleanerPath, std::vector<VMInfoStructs::SDisk>& disks);
    bool GetRegisteredSnapshots(const std::string& vmCleanerPath, std::vector<std::string>& ids);
    bool GetRegisteredTemplates(const std::string& vmCleanerPath, std::vector<std::string>& ids);

private:
    bool RegisterChild(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& vmGuid,
                       const std::string& id, bool& vmFound);
    bool UnRegisterChild(const std::string& vmCleanerPath, VM_Cleaner_EntityType kind, const std::string& id);
    bool GetRegisteredIds(const std::string& vmCleanerPath, VM_Cleaner_EntityType kind, std::vector<std::string>& ids);
};
