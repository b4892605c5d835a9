// The account the backup tests run in: the proxy "i-proxy" and the instance "i-src"
// ("web-01", an OS disk and a data disk) in zone cn-hangzhou-k, and a mount directory of
// the test's own. The proxy's description is cached per process, so every plug-in test
// agrees on this proxy.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "FakeCloud.h"
#include "FakeFramework.h"
#include "PluginFixture.h"

namespace backupworld {

constexpr const char* kRegion = "cn-hangzhou";
constexpr const char* kZone = "cn-hangzhou-k";

inline void Build() {
    auto& cloud = fakecloud::TheCloud();
    cloud.localInstanceId = "i-proxy";
    cloud.AddInstance("i-proxy", "proxy", kRegion, kZone);
    cloud.AddInstance("i-src", "web-01", kRegion, kZone).configText = "{\"InstanceId\":\"i-src\",\"Name\":\"web-01\"}";
    cloud.AddDisk("d-os", "i-src", 40, true);
    cloud.AddDisk("d-data", "i-src", 100, false, "cloud_efficiency");
}

// Directories made by MakeMountPath; BackupFixture removes them after each test.
inline std::vector<std::string>& MadeDirectories() {
    static std::vector<std::string> dirs;
    return dirs;
}

// A fresh directory per call; the configuration file lands beside it ("<dir>\<id>_...").
inline std::string MakeMountPath() {
    char tmpl[] = "/tmp/backup-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (!dir) return "/tmp/backup-test-missing/mnt";
    MadeDirectories().push_back(dir);
    const std::string mountPath = std::string(dir) + "/mnt";
    mkdir(mountPath.c_str(), 0700);  // what the framework's mount-path preparation does
    return mountPath;
}

inline MountCtx Job(const std::string& vmGuid = "i-src") {
    MountCtx ctx;
    ctx.vmName = "web-01";
    ctx.vmGuid = vmGuid;
    ctx.mountPath = MakeMountPath();
    return ctx;
}

inline std::string ConfigPath(const MountCtx& ctx) { return ctx.mountPath + "\\" + ctx.vmGuid + "_InstanceConfig.json"; }

inline std::vector<std::string> SnapshotIds(const MountCtx& ctx) {
    std::vector<std::string> ids;
    for (const auto& d : ctx.vmInfo.disks) ids.push_back(d.snapshotId);
    return ids;
}

}  // namespace backupworld

class BackupFixture : public PluginFixture {
protected:
    void SetUp() override {
        PluginFixture::SetUp();
        backupworld::Build();
    }
    void TearDown() override {
        PluginFixture::TearDown();
        std::error_code ignored;
        for (const auto& dir : backupworld::MadeDirectories()) std::filesystem::remove_all(dir, ignored);
        backupworld::MadeDirectories().clear();
    }
    fakecloud::Cloud& cloud() { return fakecloud::TheCloud(); }
    fakefw::CleanerStore& store() { return fakefw::Cleaner(); }
    // The cloud calls made so far, by name, in order.
    std::vector<std::string> Ops() { return cloud().CallNames(); }
    // The proxy as the plug-in describes it, for operations called on their own.
    SVMInfo ProxyRecord() { return cloud().Describe(cloud().instances.at("i-proxy")); }
    // Mounts i-src and forgets the mapper calls the mount made.
    void MountSource(TestPlugin& plugin, MountCtx& ctx) {
        ctx = backupworld::Job();
        ASSERT_EQ(1, plugin.MountVM(ctx));
        fakefw::Mapper() = fakefw::MapperScript{};
    }
};
