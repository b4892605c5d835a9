// Scenario files: the built-in demo world has the promised shape, and inconsistent
// scenarios are refused with a reason instead of producing a lying cloud.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
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
