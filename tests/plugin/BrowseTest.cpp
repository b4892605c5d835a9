// Inventory browsing: the path grammar, the node lookup, what each view lists at each level,
// the flags handed to the bridge, the sort, and the combined region|zone string.
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

const std::string kInstancesBit = std::to_string(ALICLOUD_FLAG_WANT_INSTANCES);
const std::string kZonesBit = std::to_string(ALICLOUD_FLAG_WANT_ZONES);

SInventoryInfo Node(const std::string& name, const std::string& id, EInventoryType type) {
    SInventoryInfo n;
    n.name = name;
    n.id = id;
    n.type = type;
    return n;
}

// The tree the console passes: the path from its root to the node being expanded, each node
// the only child of the one above.
SInventoryInfo Chain(std::vector<SInventoryInfo> nodes) {
    for (size_t i = nodes.size() - 1; i > 0; --i) nodes[i - 1].children.push_back(nodes[i]);
    return nodes.front();
}

const SInventoryInfo kRegionViewNode = Node("Region View", "", INVENTORY_VIEW);
const SInventoryInfo kInstanceViewNode = Node("Instance View", "", INVENTORY_VIEW);
const SInventoryInfo kHangzhou = Node("cn-hangzhou", "cn-hangzhou", INVENTORY_DATACENTER);
const SInventoryInfo kZoneK = Node("cn-hangzhou-k", "cn-hangzhou-k", INVENTORY_HOST);

class BrowseTest : public PluginFixture {
protected:
    void SetUp() override {
        PluginFixture::SetUp();
        inventoryworld::Build();
    }
    // Browses with caller flags the plug-in must discard.
    int Browse(const std::string& path, const SInventoryInfo& tree = SInventoryInfo{}) {
        return plugin.BrowseInventory(path, tree, out, 0xFFFF, 3);
    }
    fakecloud::Cloud& cloud = fakecloud::TheCloud();
    TestPlugin plugin;
    std::vector<SInventoryInfo> out;
};

TEST_F(BrowseTest, RootListsTheTwoViewsUnsortedWithoutAskingTheCloud) {
    for (const std::string path : {"", "\\"}) {
        out.clear();
        ASSERT_EQ(1, Browse(path)) << path;
        EXPECT_EQ((Strings{"Instance View", "Region View"}), Names(out)) << path;
        EXPECT_EQ(INVENTORY_VIEW, out[1].type);
        EXPECT_TRUE(out[1].id.empty());
        EXPECT_TRUE(fakefw::HasLine(kBrowseInventory, "Search path: [" + path + "]."));
    }
    EXPECT_TRUE(cloud.calls.empty());
}

TEST_F(BrowseTest, ViewNodeListsRegionsSortedIgnoringCaseFromACacheFilledOnce) {
    for (const std::string path : {"\\Region View", "\\Instance View"}) {
        out.clear();
        ASSERT_EQ(1, Browse(path)) << path;
        EXPECT_EQ((Strings{"ap-southeast-1", "cn-hangzhou", "Eu-central-1"}), Names(out)) << path;
        EXPECT_TRUE(fakefw::HasLine(kBrowseInventory, "Current node [" + path.substr(1) + "] is root node."));
    }
    auto calls = cloud.CallsTo("GetDCInfoList");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Strings{"0", "3"}), calls[0].args);  // the caller's flags are discarded
    EXPECT_EQ(1u, cloud.calls.size());
}

TEST_F(BrowseTest, ExpandingARegionOrAZoneListsItsChildrenWithTheFlagsOfTheLevel) {
    struct Case {
        std::string path;
        SInventoryInfo tree;
        std::string call;
        Strings args;
        Strings names;
    };
    const Case cases[] = {
        {"\\Instance View\\cn-hangzhou", Chain({kInstanceViewNode, kHangzhou}), "GetDCInfoForDC",
         {"cn-hangzhou", kInstancesBit, "3"}, {"app-7", "DB-main", "web-01"}},
        {"\\Region View\\cn-hangzhou", Chain({kRegionViewNode, kHangzhou}), "GetDCInfoForDC",
         {"cn-hangzhou", kZonesBit, "3"}, {"cn-hangzhou-a", "cn-hangzhou-k"}},
        // The zone is looked up within the region met on the way down the tree.
        {"\\Region View\\cn-hangzhou\\cn-hangzhou-k", Chain({kRegionViewNode, kHangzhou, kZoneK}), "GetHostInfoForHost",
         {"cn-hangzhou-k", kInstancesBit, "3", "cn-hangzhou"}, {"DB-main", "web-01"}},
    };
    for (const Case& c : cases) {
        cloud.calls.clear();
        out.clear();
        ASSERT_EQ(1, Browse(c.path, c.tree)) << c.path;
        EXPECT_EQ(c.names, Names(out)) << c.path;
        ASSERT_EQ(Strings{c.call}, cloud.CallNames()) << c.path;
        EXPECT_EQ(c.args, cloud.calls[0].args) << c.path;
        const std::string last = c.path.substr(c.path.rfind('\\') + 1);
        EXPECT_TRUE(fakefw::HasLine(kBrowseInventory, "Current node is [" + last + "].")) << c.path;
    }
    EXPECT_EQ(INVENTORY_VM, out[0].type);
    EXPECT_EQ("i-db", out[0].id);
    EXPECT_TRUE(plugin.DcCache().empty());  // expanding a region never touches the region cache
}

TEST_F(BrowseTest, BadPathsFailWithTheirMessageAndNoErrorCode) {
    SInventoryInfo fork = Node("Region View", "", INVENTORY_VIEW);
    fork.children = {kHangzhou, Node("ap-southeast-1", "ap-southeast-1", INVENTORY_DATACENTER)};
    struct Case { std::string path; SInventoryInfo tree; Strings errors; };
    const Case cases[] = {
        {"Region View", {}, {"Search path [Region View] is not valid."}},
        {"\\Region View\\cn-beijing", Chain({kRegionViewNode, kHangzhou}),
         {"Failed to locate browse node [cn-beijing] in path [\\Region View\\cn-beijing]."}},
        // The lookup follows single children only: a fork ends it.
        {"\\Region View\\cn-hangzhou", fork,
         {"Failed to locate browse node [cn-hangzhou] in path [\\Region View\\cn-hangzhou]."}},
        // Names are matched exactly.
        {"\\Region View\\CN-HANGZHOU", Chain({kRegionViewNode, kHangzhou}),
         {"Failed to locate browse node [CN-HANGZHOU] in path [\\Region View\\CN-HANGZHOU]."}},
        {"\\Region View\\Lost", Chain({kRegionViewNode, Node("Lost", "", INVENTORY_DATACENTER)}),
         {"Current browse node is empty."}},
        {"\\Zone View\\cn-hangzhou", Chain({Node("Zone View", "", INVENTORY_VIEW), kHangzhou}),
         {"Unrecognised view type [\\Zone View\\cn-hangzhou]."}},
        // An instance has nothing below it: refused without a line of its own.
        {"\\Instance View\\cn-hangzhou\\web-01",
         Chain({kInstanceViewNode, kHangzhou, Node("web-01", "i-web", INVENTORY_VM)}), {}},
    };
    for (const Case& c : cases) {
        fakefw::Reset();
        cloud.calls.clear();
        out.clear();
        EXPECT_EQ(0, Browse(c.path, c.tree)) << c.path;
        EXPECT_EQ(c.errors, fakefw::ErrorTexts()) << c.path;
        EXPECT_TRUE(out.empty()) << c.path;
        EXPECT_TRUE(cloud.calls.empty()) << c.path;
    }
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
}

TEST_F(BrowseTest, RegionViewWinsWhenAPathNamesBothViews) {
    // A region whose name mentions the other view: the zones (Region View) are listed.
    SInventoryInfo odd = Node("Instance View", "cn-hangzhou", INVENTORY_DATACENTER);
    ASSERT_EQ(1, Browse("\\Region View\\Instance View", Chain({kRegionViewNode, odd})));
    EXPECT_EQ(kZonesBit, cloud.calls.at(0).Arg(1));
    EXPECT_EQ((Strings{"cn-hangzhou-a", "cn-hangzhou-k"}), Names(out));
}

TEST_F(BrowseTest, CloudFailuresAreLoggedAndWhatWasListedIsStillSorted) {
    struct Case { std::string path; SInventoryInfo tree; std::string op; std::string tag; std::string error; };
    const Case cases[] = {
        {"\\Region View", kRegionViewNode, "GetDCInfoList", kGetDataCenterListView,
         "Failed to refresh Datacenter info cache."},
        {"\\Instance View\\cn-hangzhou", Chain({kInstanceViewNode, kHangzhou}), "GetDCInfoForDC", kGetDataCenterView,
         "Failed to get Datacenter info for datacenter [cn-hangzhou]. Error [E-cloud]."},
        {"\\Region View\\cn-hangzhou\\cn-hangzhou-k", Chain({kRegionViewNode, kHangzhou, kZoneK}), "GetHostInfoForHost",
         kGetHostView, "Failed to get Host info for host [cn-hangzhou-k]. Error [E-cloud]."},
    };
    for (const Case& c : cases) {
        fakefw::Reset();
        cloud.FailNext(c.op, "E-cloud");
        out = {Node("zeta", "", INVENTORY_VIEW), Node("Alpha", "", INVENTORY_VIEW)};
        EXPECT_EQ(0, Browse(c.path, c.tree)) << c.path;
        EXPECT_EQ((Strings{"Alpha", "zeta"}), Names(out)) << c.path;
        EXPECT_EQ(Strings{c.error}, fakefw::ErrorTexts()) << c.path;
        EXPECT_TRUE(fakefw::HasLine(c.tag, c.error)) << c.path;
    }
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
}

TEST_F(BrowseTest, BrowsingFillsTheRegionCacheThroughTheVirtualHook) {
    struct Observed : TestPlugin {
        std::vector<UINT64> flags;
        int _RefreshDCInfoCache(UINT64 f, int) override {
            flags.push_back(f);
            dcInfoCache.resize(1);
            dcInfoCache[0].name = "from-subclass";
            return 1;
        }
    } observed;
    ASSERT_EQ(1, observed.BrowseInventory("\\Region View", {}, out, 0xFFFF, 0));
    ASSERT_EQ(1, observed.BrowseInventory("\\Instance View", {}, out, 0xFFFF, 0));
    EXPECT_EQ((std::vector<UINT64>{0}), observed.flags);
    EXPECT_EQ((Strings{"from-subclass", "from-subclass"}), Names(out));
    EXPECT_TRUE(cloud.calls.empty());
}

TEST_F(BrowseTest, CombinedStringsDecodeOnlyWithExactlyTwoParts) {
    struct Case { std::string combined; std::string region; std::string zone; bool valid; };
    const Case cases[] = {
        {"cn-hangzhou|cn-hangzhou-k", "cn-hangzhou", "cn-hangzhou-k", true},
        {"|", "", "", true},  // the framework's split keeps empty parts
        {"cn-hangzhou|", "cn-hangzhou", "", true},
        {"cn-hangzhou", "old-r", "old-z", false},
        {"a|b|c", "old-r", "old-z", false},
        {"", "old-r", "old-z", false},
    };
    for (const Case& c : cases) {
        fakefw::Reset();
        std::string region = "old-r", zone = "old-z";
        plugin.DecodeCombinedStr(c.combined, region, zone);
        EXPECT_EQ(c.region, region) << c.combined;
        EXPECT_EQ(c.zone, zone) << c.combined;
        EXPECT_EQ(c.valid, fakefw::ErrorTexts().empty()) << c.combined;
        if (!c.valid) {
            EXPECT_TRUE(fakefw::HasLine(kDecodeCombinedStr, "Invalid combined string [" + c.combined + "] passed."));
        }
    }
}

}  // namespace
