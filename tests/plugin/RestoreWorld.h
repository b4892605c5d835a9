// Shared set-up of the restore tests: the proxy ECS instance, a restore request as the
// framework would build it, and real temporary folders for the restored configuration file.
//
// Every plug-in test of the process uses the same proxy ("i-proxy" in cn-hangzhou /
// cn-hangzhou-k), because the plug-in caches the proxy's description process-wide.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FakeCloud.h"
#include "FakeFramework.h"
#include "PluginFixture.h"

namespace restoreworld {

inline constexpr const char kRegion[] = "cn-hangzhou";
inline constexpr const char kZone[] = "cn-hangzhou-k";
inline constexpr const char kProxyId[] = "i-proxy";
inline constexpr const char kProxyName[] = "proxy1";
inline constexpr long long kJobId = 1234;
// Text of the backed-up configuration file, and the properties the bridge reads from it.
inline constexpr const char kConfigText[] = "{\"InstanceId\":\"i-web\",\"InstanceName\":\"web-01\"}";

// A folder under the system's temporary directory, removed with everything in it at the end.
class TempDir {
public:
    TempDir() {
        std::string templ = (std::filesystem::temp_directory_path() / "restore-test-XXXXXX").string();
        if (::mkdtemp(templ.data())) path_ = templ;
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string File(const std::string& name, const std::string& text = "x") const {
        const std::string full = path_ + "/" + name;
        std::ofstream(full) << text;
        return full;
    }
    void Dir(const std::string& name) const { std::filesystem::create_directory(path_ + "/" + name); }

private:
    std::string path_;
};

inline VMInfoStructs::SVMInfo ConfigProperties() {
    VMInfoStructs::SVMInfo vm;
    vm.guid = "i-web";
    vm.name = "web-01";
    vm.regionId = "cn-beijing";
    vm.hostName = "cn-beijing-h";
    vm.guestOS = "CentOS 7.9 64 bit;x86_64";
    vm.vmProfile = "ecs.g6.large";
    vm.networkCards = {{"eni-old", "vsw-old", "vpc-old", "10.0.0.5", "00:16:3e:00:00:01", true}};
    vm.securityGroups = {{"sg-old", "old group"}};
    VMInfoStructs::SDisk oldDisk;
    oldDisk.diskId = "d-old";
    vm.disks = {oldDisk};
    return vm;
}

// The proxy, the job id, and the configuration document the bridge understands.
inline void Build() {
    auto& cloud = fakecloud::TheCloud();
    cloud.localInstanceId = kProxyId;
    cloud.AddInstance(kProxyId, kProxyName, kRegion, kZone);
    cloud.AddDisk("d-proxy-os", kProxyId, 40, true);
    cloud.configDocuments[kConfigText] = ConfigProperties();
    fakefw::SetJobId(kJobId);
}

inline VMInfoStructs::SDisk Disk(const std::string& id, long long sizeGiB, bool isOSDisk,
                                 const std::string& category = "cloud_essd") {
    VMInfoStructs::SDisk d;
    d.diskId = id;
    d.diskType = 1;
    d.isOSDisk = isOSDisk;
    d.diskSize = sizeGiB;
    d.category = category;
    d.zone = "cn-hangzhou-b";  // the zone the disk had at backup time
    return d;
}

// A restore of "web-01" as "web-restored" into the proxy's zone: an OS disk and a data disk.
inline RestoreCtx Request(const std::string& restorePath = "") {
    RestoreCtx ctx;
    ctx.restoreFlavor = 1;
    ctx.vmName = "web-restored";
    ctx.sourceVMName = "web-01";
    ctx.zoneName = kZone;
    ctx.regionName = kRegion;
    ctx.restorePath = restorePath;
    ctx.disks = {Disk("d-src-os", 40, true), Disk("d-src-data", 100, false, "cloud_efficiency")};
    return ctx;
}

// The proxy as CheckFeasibility describes it.
inline VMInfoStructs::SVMInfo Proxy() {
    return fakecloud::TheCloud().Describe(fakecloud::TheCloud().instances.at(kProxyId));
}

}  // namespace restoreworld

// A fresh proxy world per test, and a plug-in object.
class RestoreFixture : public PluginFixture {
protected:
    void SetUp() override {
        PluginFixture::SetUp();
        restoreworld::Build();
    }
    fakecloud::Cloud& cloud() { return fakecloud::TheCloud(); }
    fakefw::CleanerStore& store() { return fakefw::Cleaner(); }
    TestPlugin plugin;
};
