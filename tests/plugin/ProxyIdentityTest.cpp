// The proxy's identity: its instance id (per object), its description (per process) and the
// framework's "local" lookups.
//
// The proxy description is cached for the life of the process, and other tests of this
// binary (backup mounts) may fill that cache before these run. So every test of the cache
// runs its scenario in a freshly started copy of this binary: a "threadsafe" death test
// re-executes the binary and runs only the current test there, where the cache has never
// been filled. The scenario collects failed checks as text; the child prints them with the
// plug-in log and exits non-zero, which fails the test here and shows the child's output.
// All tests use the proxy the plug-in tests agree on: "i-proxy" in cn-hangzhou-k.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "ExpectedTags.h"
#include "PluginFixture.h"

using namespace expected_tags;
using Strings = std::vector<std::string>;

namespace {

const std::string kNotCloudVm = "Failed to get local proxy Id. VSA proxy must be a VM in Alibaba cloud.";
const std::string kFromCache = "Proxy information already fetched. Using from cache.";
const std::string kNoLocalId = "Couldn't detect local instance id.";

class Checks {
public:
    void Expect(bool ok, const std::string& what) {
        if (!ok) failures_ += "check failed: " + what + "\n";
    }
    void Same(const std::string& expected, const std::string& actual, const std::string& what) {
        Expect(expected == actual, what + ": expected [" + expected + "] got [" + actual + "]");
    }
    void Same(long long expected, long long actual, const std::string& what) {
        Same(std::to_string(expected), std::to_string(actual), what);
    }
    [[noreturn]] void Finish() const {
        if (failures_.empty()) std::exit(0);
        std::fprintf(stderr, "%s---- plug-in log ----\n%s", failures_.c_str(), fakefw::Dump().c_str());
        std::exit(1);
    }

private:
    std::string failures_;
};

void InFreshProcess(const std::function<void(Checks&)>& scenario) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Checks checks;
            scenario(checks);
            checks.Finish();
        },
        ::testing::ExitedWithCode(0), "");
}

class ProxyIdentityTest : public PluginFixture {
protected:
    void SetUp() override {
        PluginFixture::SetUp();
        cloud.AddInstance("i-proxy", "vsa-proxy", "cn-hangzhou", "cn-hangzhou-k");
        cloud.zones = {SHostInfo{"cn-hangzhou-k", "cn-hangzhou", {}}};
        cloud.localInstanceId = "i-proxy";
    }
    fakecloud::Cloud& cloud = fakecloud::TheCloud();
    MountCtx ctx;
};

// Records the instance lookups that must reach a subclass through the virtual table.
class LookupObserver : public TestPlugin {
public:
    Strings lookups;  // "first|id|third|flags|value"
    int GetVMInfoForVM(const string& first, const string& id, const string& third, UINT64 flags, int value,
                       SVMInfo& out) override {
        lookups.push_back(first + "|" + id + "|" + third + "|" + std::to_string(flags) + "|" + std::to_string(value));
        return TestPlugin::GetVMInfoForVM(first, id, third, flags, value, out);
    }
};

TEST_F(ProxyIdentityTest, TheFirstMountOfAProcessDescribesTheProxyAndLaterObjectsCopyIt) {
    InFreshProcess([&](Checks& check) {
        LookupObserver first;
        check.Expect(first._InitProxyInfoForBackup(ctx), "first preparation succeeds");
        check.Same("|i-proxy||16|0", first.lookups.empty() ? "" : first.lookups[0], "lookup arguments");
        check.Same(1, cloud.Count("GetVMInfoForVM"), "bridge lookups");
        check.Same("cn-hangzhou-k", first.Proxy().hostName, "proxy zone");
        check.Same("vsa-proxy", first.Proxy().name, "proxy name");
        check.Expect(fakefw::HasLine(k_InitProxyInfoForBackup, "Proxy instance Id: [i-proxy]."), "id line");
        check.Expect(!fakefw::HasLine(kFromCache), "no cache line on the first fetch");

        // The proxy moves; the process keeps what it fetched, and a new object asks nothing.
        cloud.instances["i-proxy"].info.hostName = "cn-hangzhou-b";
        TestPlugin second;
        check.Expect(second._InitProxyInfoForBackup(ctx), "second preparation succeeds");
        check.Same("cn-hangzhou-k", second.Proxy().hostName, "cached zone");
        check.Same(1, cloud.Count("GetVMInfoForVM"), "bridge lookups after the second mount");
        check.Same(1, cloud.Count("GetLocalInstanceId"), "id detections");
        check.Expect(fakefw::HasLine(k_InitProxyInfoForBackup, kFromCache), "cache line");
    });
}

TEST_F(ProxyIdentityTest, AFailedDescriptionIsReportedAndAskedForAgainByTheNextMount) {
    InFreshProcess([&](Checks& check) {
        TestPlugin plugin;
        SVMInfo before;
        before.name = "before";
        plugin.SetProxy(before);
        cloud.FailNext("GetVMInfoForVM", "InvalidInstanceId.NotFound: gone");
        check.Expect(!plugin._InitProxyInfoForBackup(ctx), "failed lookup fails the preparation");
        check.Same(VMINFO_ERR_NONE, plugin.GetLastVMError(), "no code is set");
        check.Same("InvalidInstanceId.NotFound: gone", plugin.GetLastVMErrorDetails(), "details");
        check.Same("before", plugin.Proxy().name, "proxy record untouched");
        check.Expect(fakefw::ErrorTexts() == Strings{"GetVMInfoForVM failed for local instance Id [i-proxy]."},
                     "one error line");
        check.Expect(fakefw::HasLine(kGetVMInfoForVM, "GetVMInfoForVM() failed. Error [InvalidInstanceId.NotFound: gone]"),
                     "lookup's own debug line");

        check.Expect(plugin._InitProxyInfoForBackup(ctx), "retry succeeds");
        check.Same("vsa-proxy", plugin.Proxy().name, "proxy filled by the retry");
        check.Expect(plugin._InitProxyInfoForBackup(ctx), "third preparation succeeds");
        check.Same(2, cloud.Count("GetVMInfoForVM"), "bridge lookups");
        check.Same(1, cloud.Count("GetLocalInstanceId"), "the id is detected once per object");
    });
}

TEST_F(ProxyIdentityTest, AMachineThatIsNoInstanceCannotPrepareABackupUntilItIsDetected) {
    InFreshProcess([&](Checks& check) {
        cloud.localInstanceId.clear();
        TestPlugin plugin;
        check.Expect(!plugin._InitProxyInfoForBackup(ctx), "preparation fails");
        check.Same(VMINFO_ERR_PROXY_NOT_CLOUD_VM, plugin.GetLastVMError(), "code 179");
        check.Expect(fakefw::ErrorTexts() == Strings{kNoLocalId, kNotCloudVm}, "error lines");
        check.Expect(fakefw::HasLine(k_InitProxyInfoForBackup, kNotCloudVm), "tag of the refusal");
        check.Same(0, cloud.Count("GetVMInfoForVM"), "no description lookup");

        cloud.localInstanceId = "i-proxy";
        check.Expect(plugin._InitProxyInfoForBackup(ctx), "detected on the next mount");
        check.Same(2, cloud.Count("GetLocalInstanceId"), "id asked again");
        check.Same("i-proxy", plugin.Proxy().guid, "proxy filled");
    });
}

TEST_F(ProxyIdentityTest, TheDiskRegistryOnceMadeIsKeptEvenWhenTheProxyCouldNotBeDescribed) {
    InFreshProcess([&](Checks& check) {
        cloud.localInstanceId.clear();
        TestPlugin plugin;
        MountCtx job;
        job.vmInfo.guid = "i-src";
        check.Expect(!plugin.ConnectDiskInfo(job), "first connect fails");
        check.Expect(fakefw::ErrorTexts() == Strings{kNoLocalId, kNotCloudVm, "Failed to get proxy info.",
                                                     "Failed to initialize DiskInfo!"},
                     "error lines");
        check.Expect(fakefw::HasLine(kInitDiskInfo, "Failed to get proxy info."), "tag of the registry line");
        check.Expect(plugin.DiskRegistry() != nullptr, "registry kept");

        check.Expect(plugin.ConnectDiskInfo(job), "second connect uses the kept registry");
        check.Same(1, cloud.Count("GetLocalInstanceId"), "the proxy is not asked for again");
        check.Expect(plugin.DiskRegistry() && plugin.DiskRegistry()->FindVMHandle("i-src"), "instance connected");
    });
}

TEST_F(ProxyIdentityTest, TheProxyIdIsDetectedOncePerObjectButAskedAgainWhileMissing) {
    cloud.localInstanceId.clear();
    TestPlugin plugin;
    for (int i = 0; i < 3; ++i) EXPECT_EQ("", plugin.GetProxyUUID());
    EXPECT_EQ(3, cloud.Count("GetLocalInstanceId"));
    EXPECT_EQ((Strings{kNoLocalId, kNoLocalId, kNoLocalId}), fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine(kDetectLocalUUID, kNoLocalId));

    cloud.localInstanceId = "i-proxy";
    EXPECT_EQ("i-proxy", plugin.GetProxyUUID());
    cloud.localInstanceId = "i-other";
    EXPECT_EQ("i-proxy", plugin.GetProxyUUID());
    EXPECT_EQ(4, cloud.Count("GetLocalInstanceId"));
    EXPECT_EQ("i-other", TestPlugin().GetProxyUUID());  // cached per object, not per process
}

TEST_F(ProxyIdentityTest, LocalVMInfoReportsOnlyTheIdAndAlwaysSucceeds) {
    for (const std::string id : {"", "i-proxy"}) {
        cloud.localInstanceId = id;
        TestPlugin plugin;
        SVMInfo out;
        out.name = "untouched";
        out.guid = "stale";
        EXPECT_EQ(1, plugin.GetLocalVMInfo(out, 0xFF, 1));
        EXPECT_EQ(id, out.guid);
        EXPECT_EQ("untouched", out.name);
    }
    EXPECT_EQ(0, cloud.Count("GetVMInfoForVM"));
}

TEST_F(ProxyIdentityTest, LocalHostInfoIsTheZoneOfTheProxy) {
    LookupObserver plugin;
    SHostInfo out;
    ASSERT_EQ(1, plugin.GetLocalHostInfo(out, ALICLOUD_FLAG_WANT_INSTANCES, 4));
    EXPECT_EQ("cn-hangzhou-k", out.name);
    EXPECT_EQ((Strings{"|i-proxy||" + std::to_string(ALICLOUD_FLAG_WANT_INSTANCES) + "|4"}), plugin.lookups);
    auto zoneCalls = cloud.CallsTo("GetHostInfoForHost");
    ASSERT_EQ(1u, zoneCalls.size());
    EXPECT_EQ((Strings{"cn-hangzhou-k", std::to_string(ALICLOUD_FLAG_WANT_INSTANCES), "4", "cn-hangzhou"}),
              zoneCalls[0].args);
}

TEST_F(ProxyIdentityTest, LocalHostInfoFailsWhenTheProxyCannotBeDescribed) {
    struct Case { std::string localId; std::string failOp; Strings calls; };
    const Case cases[] = {
        {"", "", {"GetLocalInstanceId"}},
        {"i-proxy", "GetVMInfoForVM", {"GetLocalInstanceId", "GetVMInfoForVM"}},
        {"i-proxy", "GetHostInfoForHost", {"GetLocalInstanceId", "GetVMInfoForVM", "GetHostInfoForHost"}},
    };
    for (const Case& c : cases) {
        cloud.calls.clear();
        cloud.localInstanceId = c.localId;
        if (!c.failOp.empty()) cloud.FailNext(c.failOp, "E");
        TestPlugin plugin;
        SHostInfo out;
        EXPECT_EQ(0, plugin.GetLocalHostInfo(out, 0, 0)) << c.failOp;
        EXPECT_EQ(c.calls, cloud.CallNames()) << c.failOp;
    }
}

}  // namespace
