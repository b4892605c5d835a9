// Write access to the restore context the framework hands to every restore call.
//
// The framework passes RestoreCtx as a const reference, but it keeps one non-const context
// object per restore job and passes that same object to InitRestoreVM, PreRestoreVM,
// RestoreVM, PostRestoreVM and CleanupRestoreVM. The plug-in records its progress in it
// (temporary cleaner id, the disks it created, the configuration file found, the new
// instance's properties) so that the later calls of the same job pick it up. Casting the
// const away is therefore deliberate and safe: the object itself is never const.
#pragma once

#include "VMInfoStructs.h"

inline RestoreCtx& WritableRestoreCtx(const RestoreCtx& ctx) { return const_cast<RestoreCtx&>(ctx); }
