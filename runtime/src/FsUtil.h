// File-system helpers of the runtime's environment part.
#pragma once

#include <sys/types.h>

#include <string>

namespace hxruntime::detail {

// Creates `path` and its missing parents. Every folder this call creates gets exactly `mode`
// (the umask is not applied); folders that already exist are left as they are. True when
// `path` is a directory afterwards (also when another process created it concurrently).
bool MakeDirectories(const std::string& path, mode_t mode);

// The folder part of `path` ("" for a bare name, "/" for "/x").
std::string ParentOf(const std::string& path);

}  // namespace hxruntime::detail
