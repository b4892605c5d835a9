// Region and zone caches, single-object lookups, instance lists and instance types.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "InventoryWorld.h"
#include "ExpectedTags.h"
#include "PluginFixture.h"

using namespace expected_tags;
using inventoryworld::Names;
using Strings = std::vector<std::string>;

namespace {

const std::string kZonesBit = std::to_string(ALICLOUD_FLAG_WANT_ZONES);

class InventoryTest : public PluginFixture {
protected:
    void SetUp() override {
        PluginFixture::SetUp();
        inventoryworld::Build();
    }
    fakecloud::Cloud& cloud = fakecloud::TheCloud();
};

// Counts the hook calls that must go through the virtual table, then does the real work.
class ObservedPlugin : public TestPlugin {
public:
    std::vector<UINT64> refreshFlags;
    int hostLookups = 0;
    int _RefreshDCInfoCache(UINT64 flags, int value) override {
        refreshFlags.push_back(flags);
        return TestPlugin::_RefreshDCInfoCache(flags, value);
    }
    int GetHostInfoForHost(const string& zone, UINT64 flags, int value, SHostInfo& out) override {
        ++hostLookups;
        return TestPlugin::GetHostInfoForHost(zone, flags, value, out);
    }
};

TEST_F(InventoryTest, InventoryListFillsTheRegionCacheOnceWithZonesAndAppendsInCacheOrder) {
    ObservedPlugin plugin;
    std::vector<SInventoryInfo> out(1);
    out[0].name = "kept";
    ASSERT_EQ(1, plugin.GetInventoryInfoList(out, 0x4, 7));
    EXPECT_EQ((std::vector<UINT64>{0x4 | ALICLOUD_FLAG_WANT_ZONES}), plugin.refreshFlags);
    auto calls = cloud.CallsTo("GetDCInfoList");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Strings{std::to_string(0x4 | ALICLOUD_FLAG_WANT_ZONES), "7"}), calls[0].args);
    EXPECT_EQ((Strings{"kept", "cn-hangzhou", "Eu-central-1", "ap-southeast-1"}), Names(out));
    EXPECT_EQ(INVENTORY_DATACENTER, out[1].type);
    EXPECT_EQ("cn-hangzhou", out[1].id);
    EXPECT_EQ(2u, plugin.DcCache()[0].hostList.size());  // zones were asked for

    out.clear();
    ASSERT_EQ(1, plugin.GetInventoryInfoList(out, 0, 0));
    EXPECT_EQ(1, cloud.Count("GetDCInfoList"));
    EXPECT_EQ(3u, out.size());
    EXPECT_EQ(3u, plugin.DcCache().size());
}

TEST_F(InventoryTest, AnEmptyRegionAnswerIsNotCachedSoTheNextListAsksAgain) {
    cloud.regions.clear();
    TestPlugin plugin;
    std::vector<SInventoryInfo> out;
    EXPECT_EQ(1, plugin.GetInventoryInfoList(out, 0, 0));
    EXPECT_EQ(1, plugin.GetInventoryInfoList(out, 0, 0));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(2, cloud.Count("GetDCInfoList"));
}

TEST_F(InventoryTest, CacheRefreshFailuresLogAtTheirOwnLevelsAndSetNoCode) {
    TestPlugin plugin;
    cloud.FailNext("GetDCInfoList", "Throttling: slow down");
    std::vector<SInventoryInfo> out;
    EXPECT_EQ(0, plugin.GetInventoryInfoList(out, 0, 0));
    EXPECT_TRUE(out.empty());
    auto refreshLines = fakefw::TextsWithTag(k_RefreshDCInfoCache);
    EXPECT_EQ((Strings{"Start >>>", "_RefreshDCInfoCache failed with error [Throttling: slow down]."}), refreshLines);
    EXPECT_EQ(2, fakefw::LinesWithText("Start >>>")[0].level);
    EXPECT_EQ(1, fakefw::LinesWithText("_RefreshDCInfoCache failed with error [Throttling: slow down].")[0].level);
    EXPECT_EQ((Strings{"Failed to refresh Datacenter info cache."}), fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine(kGetInventoryInfoList, "Failed to refresh Datacenter info cache."));

    cloud.FailNext("GetHostInfoList", "Throttling: slow down");
    EXPECT_EQ(0, plugin._RefreshHostInfoCache(0, 0));
    EXPECT_TRUE(fakefw::HasLine(k_RefreshHostInfoCache, "GetHostInfoList failed."));
    EXPECT_EQ(2u, fakefw::ErrorTexts().size());
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());

    EXPECT_EQ(1, plugin._RefreshHostInfoCache(ALICLOUD_FLAG_WANT_INSTANCES, 3));
    EXPECT_EQ((Strings{"cn-hangzhou-k", "cn-hangzhou-a", "ap-southeast-1a"}), Names(plugin.HostCache()));
    EXPECT_EQ((Strings{std::to_string(ALICLOUD_FLAG_WANT_INSTANCES), "3"}), cloud.CallsTo("GetHostInfoList")[1].args);
}

TEST_F(InventoryTest, SingleRegionAndZoneLookupsAlwaysAskTheBridgeAndLeaveTheCachesAlone) {
    TestPlugin plugin;
    SDataCenterInfo region;
    ASSERT_EQ(1, plugin.GetDCInfoForDC("ap-southeast-1", 0x9, 5, region));
    EXPECT_EQ("ap-southeast-1", region.name);
    SHostInfo zone;
    ASSERT_EQ(1, plugin.GetHostInfoForHost("cn-hangzhou-a", 0x2, -1, zone));
    ASSERT_EQ(1, plugin.GetHostInfoForHost("cn-hangzhou-a", 0x2, 4, zone, "cn-hangzhou"));
    EXPECT_EQ("cn-hangzhou-a", zone.name);
    EXPECT_TRUE(plugin.DcCache().empty());
    EXPECT_TRUE(plugin.HostCache().empty());
    EXPECT_EQ((Strings{"ap-southeast-1", "9", "5"}), cloud.CallsTo("GetDCInfoForDC")[0].args);
    auto zoneCalls = cloud.CallsTo("GetHostInfoForHost");
    ASSERT_EQ(2u, zoneCalls.size());
    EXPECT_EQ((Strings{"cn-hangzhou-a", "2", std::to_string(UINT64(-1)), ""}), zoneCalls[0].args);
    EXPECT_EQ((Strings{"cn-hangzhou-a", "2", "4", "cn-hangzhou"}), zoneCalls[1].args);

    // Failures are debug lines with the bridge's text, under each function's own tag.
    cloud.FailNext("GetDCInfoForDC", "E1");
    cloud.FailNext("GetHostInfoForHost", "E2", 2);
    EXPECT_EQ(0, plugin.GetDCInfoForDC("cn-hangzhou", 0, 0, region));
    EXPECT_EQ(0, plugin.GetHostInfoForHost("z", 0, 0, zone));
    EXPECT_EQ(0, plugin.GetHostInfoForHost("z", 0, 0, zone, "r"));
    EXPECT_TRUE(fakefw::HasLine(kGetDCInfoForDC, "GetDCInfoForDC() failed. Error [E1]"));
    EXPECT_TRUE(fakefw::HasLine(kGetHostInfoForHost, "GetHostInfoForHost() failed. Error [E2]"));
    EXPECT_TRUE(fakefw::HasLine(kGetHostInfoForHostWithRegion, "GetHostInfoForHost() failed. Error [E2]"));
    EXPECT_TRUE(fakefw::ErrorTexts().empty());
}

TEST_F(InventoryTest, VMInfoListFiltersOnlyWithBothANameListAndAFilter) {
    cloud.vmCache = {inventoryworld::Vm("i-web", "web-01", "", ""), inventoryworld::Vm("i-db", "DB-main", "", ""),
                     inventoryworld::Vm("i-app", "app-7", "", "")};
    const std::vector<std::string> names{"WEB-01", "i-app"};
    const std::vector<std::string> patterns{"*-0?"};
    struct Case { const std::vector<std::string>* names; EFilterType filter; Strings expected; };
    const Case cases[] = {
        {nullptr, FILTER_INCLUDE_NAMES, {"web-01", "DB-main", "app-7"}},
        {&names, FILTER_NONE, {"web-01", "DB-main", "app-7"}},
        {&names, FILTER_INCLUDE_NAMES, {"web-01", "app-7"}},
        {&names, FILTER_EXCLUDE_NAMES, {"DB-main"}},
        {&patterns, FILTER_INCLUDE_PATTERN, {"web-01"}},
    };
    TestPlugin plugin;
    for (const Case& c : cases) {
        std::vector<SVMInfo> out{inventoryworld::Vm("i-old", "replaced", "", "")};
        ASSERT_EQ(1, plugin.GetVMInfoList(out, 0, 0, c.names, c.filter)) << c.filter;
        EXPECT_EQ(c.expected, Names(out)) << c.filter;
    }
    EXPECT_EQ(0, cloud.Count("RefreshVMInfoCache"));  // a filled bridge cache is good enough
}

TEST_F(InventoryTest, RootListRefreshesAnEmptyBridgeCacheExactlyOnce) {
    TestPlugin plugin;
    std::vector<SVMInfo> out;
    ASSERT_EQ(1, plugin.GetVMInfoListForRoot(0, 0, out));
    EXPECT_EQ((Strings{"GetVMInfoList", "RefreshVMInfoCache", "GetVMInfoList"}), cloud.CallNames());
    EXPECT_EQ(4u, out.size());

    // Still empty after the refresh: success with nothing, and no second refresh.
    cloud.calls.clear();
    cloud.vmCache.clear();
    cloud.instances.clear();
    out.resize(2);
    ASSERT_EQ(1, plugin.GetVMInfoListForRoot(0, 0, out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(1, cloud.Count("RefreshVMInfoCache"));
}

TEST_F(InventoryTest, RootListFailuresLogOnlyTheRefresh) {
    TestPlugin plugin;
    std::vector<SVMInfo> out{inventoryworld::Vm("i-keep", "keep", "", "")};
    cloud.FailNext("GetVMInfoList", "E-read");
    EXPECT_EQ(0, plugin.GetVMInfoList(out, 0, 0, nullptr, FILTER_NONE));
    EXPECT_EQ((Strings{"keep"}), Names(out));
    EXPECT_TRUE(fakefw::Logs().empty());

    cloud.FailNext("RefreshVMInfoCache", "E-refresh");
    EXPECT_EQ(0, plugin.GetVMInfoList(out, 0, 0, nullptr, FILTER_NONE));
    EXPECT_EQ((Strings{"keep"}), Names(out));
    EXPECT_EQ((Strings{"Failed to refresh VM Info list . Error [E-refresh]"}), fakefw::ErrorTexts());
    EXPECT_TRUE(fakefw::HasLine(kGetVMInfoListForRoot, "Failed to refresh VM Info list . Error [E-refresh]"));
}

TEST_F(InventoryTest, InventoryObjectListsDispatchOnTheNodeKindAndAppend) {
    const UINT64 want = ALICLOUD_FLAG_WANT_INSTANCES;
    struct Case { EInventoryType type; std::string name; int result; Strings names; std::string call; };
    const Case cases[] = {
        {INVENTORY_HOST, "cn-hangzhou-k", 1, {"keep", "web-01", "DB-main"}, "GetHostInfoForHost"},
        {INVENTORY_DATACENTER, "cn-hangzhou", 1, {"keep", "web-01", "DB-main", "app-7"}, "GetDCInfoForDC"},
        {INVENTORY_ROOT, "ignored", 1, {"web-01", "app-7"}, "GetVMInfoList"},
        {INVENTORY_VIEW, "cn-hangzhou", 0, {"keep"}, ""},
        {INVENTORY_FOLDER, "cn-hangzhou", 0, {"keep"}, ""},
        {INVENTORY_VM, "i-web", 0, {"keep"}, ""},
    };
    cloud.vmCache = {inventoryworld::Vm("i-web", "web-01", "", ""), inventoryworld::Vm("i-app", "app-7", "", "")};
    for (const Case& c : cases) {
        ObservedPlugin plugin;
        cloud.calls.clear();
        std::vector<SVMInfo> out{inventoryworld::Vm("i-keep", "keep", "", "")};
        EXPECT_EQ(c.result, plugin.GetVMInfoListForInventoryObject(c.name, c.type, want, 2, out)) << c.type;
        EXPECT_EQ(c.names, Names(out)) << c.type;
        EXPECT_EQ(c.call.empty() ? Strings{} : Strings{c.call}, cloud.CallNames()) << c.type;
        EXPECT_EQ(c.type == INVENTORY_HOST ? 1 : 0, plugin.hostLookups) << c.type;
        if (!c.call.empty() && c.type != INVENTORY_ROOT) {
            EXPECT_EQ(c.name, cloud.calls[0].Arg(0));
            EXPECT_EQ(std::to_string(want), cloud.calls[0].Arg(1));  // the caller's flags, nothing added
        }
    }
    EXPECT_TRUE(fakefw::Logs().empty());
}

TEST_F(InventoryTest, RegionAndZoneListFailuresAreErrorsWithTheBridgeText) {
    TestPlugin plugin;
    std::vector<SVMInfo> out;
    EXPECT_EQ(0, plugin.GetVMInfoListForDC("xx-nowhere", 0, 0, out));
    EXPECT_EQ(0, plugin.GetVMInfoListForHost("xx-nowhere-z", 0, 0, out));
    EXPECT_TRUE(fakefw::HasLine(kGetVMInfoListForDC,
                                "Failed to get Datacenter info for Datacenter [xx-nowhere]. Error [InvalidRegionId.NotFound: "
                                "The specified region does not exist.]"));
    EXPECT_TRUE(fakefw::HasLine(kGetVMInfoListForHost,
                                "Failed to get Host info for Host [xx-nowhere-z]. Error [InvalidZoneId.NotFound: The "
                                "specified zone does not exist.]"));
    EXPECT_EQ(2u, fakefw::ErrorTexts().size());
    EXPECT_TRUE(out.empty());
}

TEST_F(InventoryTest, InstanceLookupsUseOnlyTheIdAndLogFailuresAtDebugLevel) {
    TestPlugin plugin;
    SVMInfo a, b;
    ASSERT_EQ(1, plugin.GetVMInfoForVM("dc-one", "i-db", "x", 0x10, 3, a));
    ASSERT_EQ(1, plugin.GetVMInfoForVM("", "i-db", "other", 0x10, 3, b));
    EXPECT_EQ("DB-main", a.name);
    auto calls = cloud.CallsTo("GetVMInfoForVM");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ((Strings{"i-db", "16", "3"}), calls[0].args);
    EXPECT_EQ(calls[0].args, calls[1].args);

    SVMInfo vm;
    std::string config;
    ASSERT_TRUE(plugin.GetVMInfoAndConfigFile("i-web", 0x10, 1, vm, config));
    EXPECT_EQ("{\"InstanceId\":\"i-web\"}", config);
    EXPECT_EQ((Strings{"i-web", "16", "1"}), cloud.CallsTo("GetVMInfoAndConfigFile")[0].args);

    cloud.FailNext("GetVMInfoForVM", "E-vm");
    cloud.FailNext("GetVMInfoAndConfigFile", "E-cfg");
    EXPECT_EQ(0, plugin.GetVMInfoForVM("", "i-db", "", 0, 0, vm));
    EXPECT_FALSE(plugin.GetVMInfoAndConfigFile("i-web", 0, 0, vm, config));
    EXPECT_TRUE(fakefw::HasLine(kGetVMInfoForVM, "GetVMInfoForVM() failed. Error [E-vm]"));
    EXPECT_TRUE(fakefw::HasLine(kGetVMInfoAndConfigFile, "GetVMInfoAndConfigFile() failed. Error [E-cfg]"));
    EXPECT_TRUE(fakefw::ErrorTexts().empty());
}

SVMSizeInfo Size(const std::string& name, int cpus, int memory) {
    SVMSizeInfo s;
    s.name = name;
    s.specValue1 = cpus;
    s.specValue2 = memory;
    return s;
}

TEST_F(InventoryTest, ZoneInstanceTypesTakeTheRegionFiguresOfTheFirstExactNameMatch) {
    cloud.zoneTypes["cn-hangzhou|cn-hangzhou-k"] = {Size("ecs.g7.large", 0, 0), Size("ecs.C7.xlarge", 1, 1),
                                                   Size("ecs.t6.small", 0, 0), Size("ecs.zone.only", 9, 9)};
    cloud.regionTypes["cn-hangzhou"] = {Size("ecs.t6.small", 1, 1024), Size("ecs.c7.xlarge", 4, 8192),
                                        Size("ecs.g7.large", 2, 8192), Size("ecs.t6.small", 8, 8),
                                        Size("ecs.region.only", 64, 1)};
    TestPlugin plugin;
    std::vector<SVMSizeInfo> out;
    ASSERT_EQ(1, plugin.GetAvailableVMSizesForHost("cn-hangzhou|cn-hangzhou-k", out, 0xFF, 9));
    ASSERT_EQ((Strings{"ecs.g7.large", "ecs.C7.xlarge", "ecs.t6.small", "ecs.zone.only"}), Names(out));
    EXPECT_EQ(2, out[0].specValue1);
    EXPECT_EQ(8192, out[0].specValue2);
    EXPECT_EQ(1, out[1].specValue1);  // case differs: no match, the zone's values stay
    EXPECT_EQ(1, out[2].specValue1);  // the first of two region entries wins
    EXPECT_EQ(1024, out[2].specValue2);
    EXPECT_EQ(9, out[3].specValue1);
    EXPECT_EQ((Strings{"cn-hangzhou", "cn-hangzhou-k"}), cloud.CallsTo("GetInstanceTypesForZone")[0].args);
    EXPECT_EQ((Strings{"cn-hangzhou"}), cloud.CallsTo("GetInstanceTypesForRegion")[0].args);
}

TEST_F(InventoryTest, InstanceTypeFailuresAndBadCombinedStrings) {
    cloud.zoneTypes["r|z"] = {Size("ecs.a", 0, 0)};
    TestPlugin plugin;
    std::vector<SVMSizeInfo> out;
    cloud.FailNext("GetInstanceTypesForZone", "E-zone");
    EXPECT_EQ(0, plugin.GetAvailableVMSizesForHost("r|z", out, 0, 0));
    EXPECT_EQ(0, cloud.Count("GetInstanceTypesForRegion"));
    cloud.FailNext("GetInstanceTypesForRegion", "E-region");
    EXPECT_EQ(0, plugin.GetAvailableVMSizesForHost("r|z", out, 0, 0));
    EXPECT_EQ((Strings{"ecs.a"}), Names(out));  // the zone's entries stay
    EXPECT_EQ((Strings{"GetInstanceTypesForZone() failed. Error [E-zone]",
                       "GetInstanceTypesForRegion() failed. Error [E-region]"}),
              fakefw::TextsWithTag(kGetAvailableVMSizesForHost));
    EXPECT_TRUE(fakefw::ErrorTexts().empty());

    // A malformed combined string is only logged; the bridge is asked with empty ids.
    cloud.calls.clear();
    out.clear();
    EXPECT_EQ(1, plugin.GetAvailableVMSizesForHost("cn-hangzhou", out, 0, 0));
    EXPECT_EQ((Strings{"", ""}), cloud.CallsTo("GetInstanceTypesForZone")[0].args);
    EXPECT_EQ((Strings{"Invalid combined string [cn-hangzhou] passed."}), fakefw::ErrorTexts());
}

}  // namespace
