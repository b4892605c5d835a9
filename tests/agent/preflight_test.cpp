#include <gtest/gtest.h>

#include "Preflight.h"

namespace hxagent {
namespace {

TEST(Preflight, InstanceNamesFollowTheEcsRule) {
    struct Case {
        std::string name;
        bool valid;
    };
    const Case cases[] = {
        {"db-01", true},
        {"a1", true},
        {"Web_01.prod:blue", true},
        {"\xE6\x95\xB0\xE6\x8D\xAE\xE5\xBA\x93-01", true},  // begins with a Chinese character
        {std::string(128, 'a'), true},
        {"", false},
        {"a", false},
        {std::string(129, 'a'), false},
        {"1db", false},
        {"-db", false},
        {"db 01", false},
        {"db/01", false},
        {"db\xC3", false},  // a broken UTF-8 sequence
        {"http://db", false},
        {"https://db", false},
        {"\xC3\xA9tude", false},  // a letter, but not one ECS accepts first
    };
    for (const auto& c : cases) {
        const std::string why = CheckInstanceName(c.name);
        EXPECT_EQ(why.empty(), c.valid) << "'" << c.name << "': " << why;
    }
}

TEST(Preflight, ThePlanNamesWhatIsReplacedAndCreated) {
    RestorePlan plan;
    plan.name = "db";
    plan.regionId = "cn-hangzhou";
    plan.zoneId = "cn-hangzhou-h";
    plan.instanceType = "ecs.g7.large";
    plan.proxyId = "i-proxy";
    plan.disks = 3;
    plan.dataDisks = 2;
    plan.replaces = "i-old";
    const auto lines = plan.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "stop and delete instance i-old ('db')");
    bool creates = false;
    for (const auto& l : lines) creates |= l == "create instance 'db' (ecs.g7.large) in cn-hangzhou/cn-hangzhou-h and attach 2 data disk(s)";
    EXPECT_TRUE(creates);
}

}  // namespace
}  // namespace hxagent
