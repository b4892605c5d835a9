#include <gtest/gtest.h>

#include "InventoryCommands.h"

namespace hxagent {
namespace {

TEST(Browse, PathSplitting) {
    struct Case {
        std::string path;
        std::vector<std::string> parts;
    } cases[] = {
        {"", {}},
        {"\\", {}},
        {"\\Region View", {"Region View"}},
        {"Region View", {"Region View"}},
        {"\\Region View\\cn-hangzhou\\cn-hangzhou-h", {"Region View", "cn-hangzhou", "cn-hangzhou-h"}},
        {"\\Instance View\\cn-shanghai\\", {"Instance View", "cn-shanghai"}},
        {"\\\\Region View\\\\x", {"Region View", "x"}},
    };
    for (const auto& c : cases) EXPECT_EQ(SplitBrowsePath(c.path), c.parts) << c.path;
}

TEST(Browse, TreeIsAChainOfSingleChildren) {
    SInventoryInfo view, region, zone;
    view.name = "Region View";
    region.name = region.id = "cn-hangzhou";
    region.type = INVENTORY_DATACENTER;
    zone.name = zone.id = "cn-hangzhou-h";
    zone.type = INVENTORY_HOST;
    region.children.push_back(view);  // stale children must not leak into the tree
    SInventoryInfo tree = BuildBrowseTree({view, region, zone});
    EXPECT_EQ(tree.name, "Region View");
    ASSERT_EQ(tree.children.size(), 1u);
    EXPECT_EQ(tree.children[0].id, "cn-hangzhou");
    EXPECT_EQ(tree.children[0].type, INVENTORY_DATACENTER);
    ASSERT_EQ(tree.children[0].children.size(), 1u);
    EXPECT_EQ(tree.children[0].children[0].id, "cn-hangzhou-h");
    EXPECT_TRUE(tree.children[0].children[0].children.empty());

    SInventoryInfo empty = BuildBrowseTree({});
    EXPECT_TRUE(empty.name.empty());
    EXPECT_TRUE(empty.children.empty());
    EXPECT_EQ(empty.type, INVENTORY_VIEW);
}

}  // namespace
}  // namespace hxagent
