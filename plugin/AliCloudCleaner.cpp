#include "AliCloudCleaner.h"

bool CAliCloudCleaner::Init(const std::string& proxyId) { return VMCleaner::Init(proxyId, 0); }

bool CAliCloudCleaner::DeInit() { return VMCleaner::DeInit(); }

bool CAliCloudCleaner::RegisterVM(VM_Cleaner_Mode mode, const std::string& vmGuid) {
    return RegisterEntity(mode, VM_CLEANER_ENTITY_VM, vmGuid, "");
}

bool CAliCloudCleaner::RegisterChild(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind, const std::string& vmGuid,
                                     const std::string& id, bool& vmFound) {
    std::string parent;
    vmFound = LookupEntity(mode, VM_CLEANER_ENTITY_VM, vmGuid, parent);
    if (!vmFound) return false;
    return RegisterEntity(mode, kind, id, parent);
}

bool CAliCloudCleaner::RegisterSnapshot(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& snapshotId) {
    bool vmFound = false;
    return RegisterChild(mode, VM_CLEANER_ENTITY_SNAPSHOT, vmGuid, snapshotId, vmFound);
}

bool CAliCloudCleaner::RegisterDisk(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& diskId) {
    bool vmFound = false;
    return RegisterChild(mode, VM_CLEANER_ENTITY_DISK, vmGuid, diskId, vmFound);
}

bool CAliCloudCleaner::RegisterTemplate(VM_Cleaner_Mode mode, const std::string& vmGuid, const std::string& imageId) {
    bool vmFound = false;
    RegisterChild(mode, VM_CLEANER_ENTITY_TEMPLATE, vmGuid, imageId, vmFound);
    return vmFound;
}

bool CAliCloudCleaner::UnRegisterVM(const std::string& cleanerPath) { return UnRegisterEntity(cleanerPath, false); }

bool CAliCloudCleaner::UnRegisterChild(const std::string& vmCleanerPath, VM_Cleaner_EntityType kind,
                                       const std::string& id) {
    std::vector<CleanerEntity> children;
    if (!FillItemsFromCleanerPath(vmCleanerPath, kind, children)) return false;
    for (const auto& child : children)
        if (child.entityId == id) return UnRegisterEntity(child.cleanerPath, false);
    return false;
}

bool CAliCloudCleaner::UnRegisterSnapshot(const std::string& vmCleanerPath, const std::string& snapshotId) {
    return UnRegisterChild(vmCleanerPath, VM_CLEANER_ENTITY_SNAPSHOT, snapshotId);
}

bool CAliCloudCleaner::UnRegisterDisk(const std::string& vmCleanerPath, const std::string& diskId) {
    return UnRegisterChild(vmCleanerPath, VM_CLEANER_ENTITY_DISK, diskId);
}

bool CAliCloudCleaner::UnRegisterTemplate(const std::string& vmCleanerPath, const std::string& imageId) {
    return UnRegisterChild(vmCleanerPath, VM_CLEANER_ENTITY_TEMPLATE, imageId);
}

bool CAliCloudCleaner::GetRegisteredVM(VM_Cleaner_Mode mode, const std::string& vmGuid, std::string& cleanerPath,
                                       bool orphansOnly) {
    if (!orphansOnly) {
        std::string handle;
        if (LookupEntity(mode, VM_CLEANER_ENTITY_VM, vmGuid, handle))
            return GetCleanerPathForEntityHandle(mode, handle, cleanerPath);
    }
    std::vector<CleanerEntity> orphans;
    if (!GetOrphanedRootEntityListByType(mode, VM_CLEANER_ENTITY_VM, vmGuid, orphans)) return false;
    for (const auto& orphan : orphans) {
        if (orphan.entityId == vmGuid) {
            cleanerPath = orphan.cleanerPath;
            return true;
        }
    }
    return false;
}

bool CAliCloudCleaner::GetRegisteredDisks(const std::string& vmCleanerPath, std::vector<VMInfoStructs::SDisk>& disks) {
    std::vector<CleanerEntity> children;
    if (!FillItemsFromCleanerPath(vmCleanerPath, VM_CLEANER_ENTITY_DISK, children)) return false;
    for (const auto& child : children) {
        VMInfoStructs::SDisk disk;
        disk.diskId = child.entityId;
        disk.diskName = child.entityId;
        disk.diskType = 1;  // only cloud disks are ever registered, and teardown acts on cloud disks only
        disks.push_back(std::move(disk));
    }
    return true;
}

bool CAliCloudCleaner::GetRegisteredIds(const std::string& vmCleanerPath, VM_Cleaner_EntityType kind,
                                        std::vector<std::string>& ids) {
    std::vector<CleanerEntity> children;
    if (!FillItemsFromCleanerPath(vmCleanerPath, kind, children)) return false;
    for (const auto& child : children) ids.push_back(child.entityId);
    return true;
}

bool CAliCloudCleaner::GetRegisteredSnapshots(const std::string& vmCleanerPath, std::vector<std::string>& ids) {
    return GetRegisteredIds(vmCleanerPath, VM_CLEANER_ENTITY_SNAPSHOT, ids);
}

bool CAliCloudCleaner::GetRegisteredTemplates(const std::string& vmCleanerPath, std::vector<std::string>& ids) {
    return GetRegisteredIds(vmCleanerPath, VM_CLEANER_ENTITY_TEMPLATE, ids);
}
