// Scenario files: the built-in demo world has the promised shape, and inconsistent
// scenarios are refused with a reason instead of producing a lying cloud.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <map>
#include <set>

#include "scenario/Scenario.h"

namespace hxsim {
namespace {

using nlohmann::json;

TEST(DefaultScenario, HasTheDocumentedDemoWorld) {
  std::string error;
  auto s = scenario::Parse(scenario::DefaultScenarioJson(), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->regions.size(), 2u);
  EXPECT_EQ(s->proxyInstanceId, "i-hxsim0proxy000000001");
  ASSERT_EQ(s->accessKeys.size(), 1u);
  EXPECT_EQ(s->accessKeys[0].id, "LTAI5tHxSimDemoAccessKey");

  std::string proxyZone;
  for (const auto& i : s->instances)
    if (i.id == s->proxyInstanceId) proxyZone = i.zoneId;
  int sameZone = 0, otherZone = 0;
  std::set<size_t> diskCounts;
  for (const auto& i : s->instances) {
    if (i.id == s->proxyInstanceId) continue;
    (i.zoneId == proxyZone ? sameZone : otherZone)++;
    diskCounts.insert(i.disks.size());
    for (const auto& d : i.disks) {
      EXPECT_GE(d.sizeGiB, 1);
      EXPECT_LE(d.sizeGiB, 2);
      EXPECT_NE(d.content.kind, "zero") << d.id << " must hold recognisable data";
      EXPECT_LE(d.content.dataMiB, 8u);
    }
  }
  EXPECT_EQ(sameZone, 3);
  EXPECT_EQ(otherZone, 1);
  EXPECT_EQ(*diskCounts.begin(), 1u);
  EXPECT_EQ(*diskCounts.rbegin(), 4u);
}

json Minimal() {
  return json::parse(R"({
    "accessKeys": [{"accessKeyId": "AK", "accessKeySecret": "S"}],
    "instanceTypes": [{"instanceTypeId": "ecs.t.small", "diskQuantity": 2}],
    "regions": [{"regionId": "r1", "zones": [{"zoneId": "r1-a", "instanceTypes": ["ecs.t.small"],
                 "diskCategories": ["cloud_essd"]}]}],
    "proxyInstanceId": "i-p",
    "instances": [{"instanceId": "i-p", "regionId": "r1", "zoneId": "r1-a", "instanceType": "ecs.t.small"}]
  })");
}

TEST(ScenarioParse, AcceptsAMinimalWorld) {
  std::string error;
  auto s = scenario::Parse(Minimal().dump(), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->instances[0].status, "Running");
  EXPECT_EQ(s->instanceTypes[0].diskQuantity, 2);
}

TEST(ScenarioParse, CompletesNetworksWithDefaultsWithoutTakingListedAddresses) {
  json j = Minimal();
  j["instances"].push_back(j["instances"][0]);
  j["instances"][1]["instanceId"] = "i-q";
  j["instances"][1]["privateIpAddress"] = "172.16.0.1";  // the lowest usable address, asked for by the second
  std::string error;
  auto s = scenario::Parse(j.dump(), &error);
  ASSERT_TRUE(s) << error;
  const auto& p = s->instances[0];
  EXPECT_EQ(p.vSwitchId, "vsw-hxsimr1-a");
  EXPECT_EQ(p.securityGroupIds, std::vector<std::string>{"sg-hxsimr1"});
  EXPECT_EQ(p.privateIp, "172.16.0.2");
  EXPECT_EQ(s->instances[1].privateIp, "172.16.0.1");
  ASSERT_EQ(s->vswitches.size(), 1u);
  EXPECT_EQ(s->vswitches[0].cidrBlock, "172.16.0.0/20");
  EXPECT_EQ(s->vswitches[0].regionId, "r1");
}

TEST(DefaultScenario, KeepsFixedAddressesAndOffersGroupsToJoin) {
  std::string error;
  auto s = scenario::Parse(scenario::DefaultScenarioJson(), &error);
  ASSERT_TRUE(s) << error;
  std::map<std::string, std::string> addresses;
  for (const auto& i : s->instances) {
    addresses[i.id] = i.privateIp;
    EXPECT_EQ(i.securityGroupIds, std::vector<std::string>{"sg-hxsimcn-hangzhou"}) << i.id;
    EXPECT_EQ(i.vSwitchId, "vsw-hxsim" + i.zoneId) << i.id;
  }
  EXPECT_EQ(addresses["i-hxsim0vm000000000002"], "172.16.0.13");
  EXPECT_EQ(addresses["i-hxsim0vm000000000004"], "172.16.16.15");
  std::map<std::string, std::string> vpcOfGroup;
  for (const auto& g : s->securityGroups) vpcOfGroup[g.id] = g.vpcId;
  EXPECT_EQ(vpcOfGroup["sg-hxsim0web00000000001"], "vpc-hxsimcn-hangzhou");
  EXPECT_EQ(vpcOfGroup["sg-hxsim0iso00000000001"], "vpc-hxsim0iso00000000001");
}

TEST(ScenarioParse, RefusesInconsistentWorlds) {
  struct Case {
    const char* name;
    std::function<void(json&)> mutate;
    const char* expect;  // fragment of the error
  } cases[] = {
      {"not json", nullptr, "invalid scenario"},
      {"no keys", [](json& j) { j["accessKeys"] = json::array(); }, "access key"},
      {"zone of another region", [](json& j) { j["instances"][0]["zoneId"] = "r2-a"; }, "zone"},
      {"unknown type", [](json& j) { j["instances"][0]["instanceType"] = "ecs.huge"; }, "instance type"},
      {"zone offers unknown type", [](json& j) { j["regions"][0]["zones"][0]["instanceTypes"].push_back("x"); },
       "unknown instance type"},
      {"more disks than DiskQuantity",
       [](json& j) {
         j["instances"][0]["disks"] = json::array({{{"type", "data"}}, {{"type", "data"}}});
       },
       "DiskQuantity"},
      {"two system disks",
       [](json& j) { j["instances"][0]["disks"] = json::array({{{"type", "system"}}, {{"type", "system"}}}); },
       "system disk"},
      {"proxy missing", [](json& j) { j["proxyInstanceId"] = "i-none"; }, "proxyInstanceId"},
      {"duplicate ids",
       [](json& j) {
         j["instances"][0]["disks"] = json::array({{{"diskId", "d-1"}, {"type", "system"}}});
         j["disks"] = json::array({{{"diskId", "d-1"}, {"regionId", "r1"}, {"zoneId", "r1-a"}}});
       },
       "duplicate"},
      {"bad pattern", [](json& j) { j["instances"][0]["disks"] = json::array({{{"content", {{"pattern", "x"}}}}}); },
       "pattern"},
      {"bad status", [](json& j) { j["instances"][0]["status"] = "Pending"; }, "status"},
      {"bad VPC block", [](json& j) { j["vpcs"] = json::parse(R"([{"vpcId": "vpc-x", "regionId": "r1", "cidrBlock": "10.0.0.1/16"}])"); },
       "bad cidrBlock"},
      {"VPC of an unknown region",
       [](json& j) { j["vpcs"] = json::parse(R"([{"vpcId": "vpc-x", "regionId": "r9", "cidrBlock": "10.0.0.0/16"}])"); },
       "unknown region"},
      {"vSwitch outside its VPC",
       [](json& j) {
         j["vpcs"] = json::parse(R"([{"vpcId": "vpc-x", "regionId": "r1", "cidrBlock": "10.0.0.0/16"}])");
         j["vSwitches"] = json::parse(R"([{"vSwitchId": "vsw-x", "vpcId": "vpc-x", "zoneId": "r1-a", "cidrBlock": "10.1.0.0/24"}])");
       },
       "not inside"},
      {"vSwitches overlapping in a VPC",
       [](json& j) {
         j["vSwitches"] = json::parse(
             R"([{"vSwitchId": "vsw-x", "vpcId": "vpc-hxsimr1", "zoneId": "r1-a", "cidrBlock": "172.16.8.0/24"}])");
       },
       "overlaps vsw-hxsimr1-a"},
      {"vSwitch of an unknown VPC",
       [](json& j) {
         j["vSwitches"] = json::parse(R"([{"vSwitchId": "vsw-x", "vpcId": "vpc-none", "zoneId": "r1-a", "cidrBlock": "10.1.0.0/24"}])");
       },
       "unknown VPC"},
      {"instance on an unknown vSwitch", [](json& j) { j["instances"][0]["vSwitchId"] = "vsw-none"; }, "unknown vSwitch"},
      {"address outside the vSwitch", [](json& j) { j["instances"][0]["privateIpAddress"] = "10.0.0.1"; }, "not usable"},
      {"address twice",
       [](json& j) {
         j["instances"][0]["privateIpAddress"] = "172.16.0.9";
         j["instances"].push_back(j["instances"][0]);
         j["instances"][1]["instanceId"] = "i-q";
       },
       "is taken"},
      {"group of another VPC",
       [](json& j) {
         j["vpcs"] = json::parse(R"([{"vpcId": "vpc-x", "regionId": "r1", "cidrBlock": "10.0.0.0/16"}])");
         j["securityGroups"] = json::parse(R"([{"securityGroupId": "sg-x", "vpcId": "vpc-x"}])");
         j["instances"][0]["securityGroupIds"] = {"sg-x"};
       },
       "another VPC"},
      {"six groups",
       [](json& j) {
         j["securityGroups"] = json::array();
         for (int k = 0; k < 6; ++k) {
           j["securityGroups"].push_back({{"securityGroupId", "sg-" + std::to_string(k)}, {"vpcId", "vpc-hxsimr1"}});
           j["instances"][0]["securityGroupIds"].push_back("sg-" + std::to_string(k));
         }
       },
       "more than 5"},
  };
  for (const auto& c : cases) {
    json j = Minimal();
    std::string text = c.mutate ? (c.mutate(j), j.dump()) : "{not json";
    std::string error;
    EXPECT_FALSE(scenario::Parse(text, &error)) << c.name;
    EXPECT_NE(error.find(c.expect), std::string::npos) << c.name << ": " << error;
  }
}

}  // namespace
}  // namespace hxsim
