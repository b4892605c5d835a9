#include "PluginLoader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "hx_build_info.h"

namespace hxagent {

std::string PluginPathFor(const std::string& exeDir) {
    const std::string beside = exeDir + "/" + kPluginFileName;
    const std::string installed = exeDir + "/" + HX_PLUGIN_DIR_FROM_BIN + "/" + kPluginFileName;
    std::error_code ec;
    if (!std::filesystem::exists(beside, ec) && std::filesystem::exists(installed, ec))
        return std::filesystem::path(installed).lexically_normal().string();
    return beside;
}

std::string DefaultPluginPath() {
    char buf[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return kPluginFileName;
    std::string exe(buf, static_cast<size_t>(n));
    auto slash = exe.rfind('/');
    return PluginPathFor(slash == std::string::npos ? std::string(".") : exe.substr(0, slash));
}

std::unique_ptr<LoadedPlugin> LoadedPlugin::Load(const std::string& path, VirtualServerInstanceType type,
                                                 std::string& error) {
    // RTLD_NOW: an unresolved symbol is reported here, not in the middle of a job.
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = ::dlerror();
        error = "cannot load plug-in " + path + ": " + (why ? why : "unknown reason");
        return nullptr;
    }
    auto factory = reinterpret_cast<CreateVMInfoObjectFn>(::dlsym(handle, kPluginFactory));
    if (factory == nullptr) {
        error = path + " does not export " + kPluginFactory;
        ::dlclose(handle);
        return nullptr;
    }
    IVMInfo* object = nullptr;
    if (factory(type, &object) != 1 || object == nullptr) {
        error = std::string(kPluginFactory) + " refused to create an object";
        delete object;
        ::dlclose(handle);
        return nullptr;
    }
    return std::unique_ptr<LoadedPlugin>(new LoadedPlugin(handle, object, path));
}

// Every IVMInfo a plug-in factory hands out is a CVMInfo (the framework's contract).
LoadedPlugin::LoadedPlugin(void* handle, IVMInfo* object, std::string path)
    : handle_(handle), object_(object), vm_(static_cast<CVMInfo*>(object)), path_(std::move(path)) {}

LoadedPlugin::~LoadedPlugin() {
    delete object_;  // the plug-in's destructor runs from its own library: close after it
    ::dlclose(handle_);
}

}  // namespace hxagent
