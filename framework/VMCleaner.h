// The framework's persistent cleaner: a store of the cloud objects jobs created, kept
// across processes, so that a later run can delete what an interrupted job left behind.
//
// The store is keyed by the identity given to Init (the proxy's instance id). Entities have
// a mode (backup/restore), a kind, an id and a parent; a root entity (empty parent) records
// the process that owns it, and becomes an orphan when that process is no longer running.
// Handles and cleaner paths are opaque strings issued by the store. No operation throws.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VMInfoStructs.h"

class VMCleaner {
public:
    VMCleaner();
    virtual ~VMCleaner();
    VMCleaner(const VMCleaner&) = delete;
    VMCleaner& operator=(const VMCleaner&) = delete;

    // Opens the persistent store of the identity `id`. `options` is reserved (pass 0).
    bool Init(const std::string& id, UINT64 options);
    // Closes the store.
    bool DeInit();
    // Records an entity under `parentHandle` (empty = a root entity owned by this process).
    bool RegisterEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind,
                        const std::string& id, const std::string& parentHandle);
    // Finds a live entity (for a root: one owned by a running process); true and its handle.
    bool LookupEntity(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind,
                      const std::string& id, std::string& handle);
    bool GetCleanerPathForEntityHandle(VM_Cleaner_Mode mode, const std::string& handle,
                                       std::string& cleanerPath);
    // Appends the children of kind `kind` of the entity at `cleanerPath`, in registration order.
    bool FillItemsFromCleanerPath(const std::string& cleanerPath, VM_Cleaner_EntityType kind,
                                  std::vector<CleanerEntity>& out);
    // Removes the entity at `cleanerPath` (with its children). `flag` is reserved (pass false).
    bool UnRegisterEntity(const std::string& cleanerPath, bool flag);
    // Appends the orphaned root entities of `mode` and `kind`; a non-empty `id` selects that id only.
    bool GetOrphanedRootEntityListByType(VM_Cleaner_Mode mode, VM_Cleaner_EntityType kind,
                                         const std::string& id, std::vector<CleanerEntity>& out);
    // Whether orphaned roots exist for this identity, so a sweep is due.
    bool IsAllVMCleanupRequired();
    // Records that a sweep has been done.
    bool PostAllVMCleanup();

    struct Impl;  // defined by each implementation of the store

private:
    std::unique_ptr<Impl> impl_;
};
