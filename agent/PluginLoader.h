// Loading the hypervisor plug-in the way the framework does: dlopen the library, ask its
// factory for an object, hand out the object as the CVMInfo every IVMInfo is, and at the
// end destroy the object (through IVMInfo's virtual destructor) before dlclose.
#pragma once

#include <memory>
#include <string>

#include "VMInfo.h"

namespace hxagent {

inline constexpr const char* kPluginFileName = "libAliCloudInfo.so";
inline constexpr const char* kPluginFactory = "CreateAliCloudInfoObject";

// Default plug-in path: libAliCloudInfo.so in the folder of the running executable (a build
// tree), else in the private library folder of an installed tree (HX_PLUGIN_DIR_FROM_BIN,
// ../lib/hxagent from bin/), else the first of the two, which the load error then names.
std::string DefaultPluginPath();
// The same choice for an executable in `exeDir`.
std::string PluginPathFor(const std::string& exeDir);

class LoadedPlugin {
public:
    // Loads `path` and creates one object of `type`. Null with `error` (dlerror's text, or
    // the factory's refusal) on failure; nothing stays loaded then.
    static std::unique_ptr<LoadedPlugin> Load(const std::string& path, VirtualServerInstanceType type,
                                              std::string& error);
    ~LoadedPlugin();  // deletes the object, then dlclose
    LoadedPlugin(const LoadedPlugin&) = delete;
    LoadedPlugin& operator=(const LoadedPlugin&) = delete;

    CVMInfo& vm() { return *vm_; }
    const std::string& path() const { return path_; }

private:
    LoadedPlugin(void* handle, IVMInfo* object, std::string path);
    void* handle_;
    IVMInfo* object_;
    CVMInfo* vm_;
    std::string path_;
};

}  // namespace hxagent
