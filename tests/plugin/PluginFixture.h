// Shared set-up of the plug-in tests: fresh fakes per test, and a plug-in subclass that
// exposes the protected members a test needs to read or seed.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AliCloudInfo.h"
#include "FakeCloud.h"
#include "FakeFramework.h"

class TestPlugin : public CAliCloudInfo {
public:
    TestPlugin() : CAliCloudInfo(VSI_TYPE_ALIBABA_CLOUD_ECS) {}
    long long JobId() const { return jobId; }
    const SVMInfo& Proxy() const { return proxyVMInfo; }
    void SetProxy(const SVMInfo& proxy) { proxyVMInfo = proxy; }
    CAliCloudCleaner& Cleaner() { return cleaner; }
    CAliCloudDiskInfo* DiskRegistry() { return diskInfo; }
    const std::string& ConfigContent() const { return vmConfigFileContent; }
    void SetConfigContent(const std::string& text) { vmConfigFileContent = text; }
    bool OrphansCleaned() const { return backupOrphansCleaned; }
    vector<SDataCenterInfo>& DcCache() { return dcInfoCache; }
    vector<SHostInfo>& HostCache() { return hostInfoCache; }
    const std::string& User() const { return userName; }
};

// The disk mapper calls made so far, each as "<operation> <argument>".
inline std::vector<std::string> MapperTrace() {
    std::vector<std::string> trace;
    for (const auto& call : fakefw::Mapper().Calls()) trace.push_back(call.op + " " + call.arg);
    return trace;
}

class PluginFixture : public ::testing::Test {
protected:
    void SetUp() override {
        fakefw::Reset();
        fakecloud::Reset();
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "---- plug-in log ----\n" << fakefw::Dump();
    }
};
