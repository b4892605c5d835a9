// Networks through the HTTP API: security group membership (JoinSecurityGroup,
// LeaveSecurityGroup and what DescribeInstances reports of it) and the private address
// CreateInstance and RunInstances give an instance (PrivateIpAddress honoured, refused
// with ECS's codes when it is malformed, outside the vSwitch or taken).
#include <nlohmann/json.hpp>
#include <set>

#include "SimFixture.h"

namespace hxsim::test {
namespace {

using nlohmann::json;

// The behaviour-test world plus: more groups in r1's default VPC, a second VPC in r1
// whose vSwitch reuses the default vSwitch's addresses (VPCs are separate address
// spaces), a vSwitch with four usable addresses, and a group in r2.
std::string NetworkScenario() {
  json j = json::parse(kTestScenario);
  j["vpcs"] = json::parse(R"([{"vpcId": "vpc-other", "regionId": "r1", "cidrBlock": "172.16.0.0/16"}])");
  j["vSwitches"] = json::parse(R"([
    {"vSwitchId": "vsw-other", "vpcId": "vpc-other", "zoneId": "r1-a", "cidrBlock": "172.16.0.0/24"},
    {"vSwitchId": "vsw-tiny", "vpcId": "vpc-hxsimr1", "zoneId": "r1-a", "cidrBlock": "172.20.0.0/29"}])");
  j["securityGroups"] = json::array();
  for (const char* id : {"sg-web", "sg-db", "sg-a", "sg-b", "sg-c"}) {
    j["securityGroups"].push_back({{"securityGroupId", id}, {"vpcId", "vpc-hxsimr1"}});
  }
  j["securityGroups"].push_back({{"securityGroupId", "sg-other"}, {"vpcId", "vpc-other"}});
  j["securityGroups"].push_back({{"securityGroupId", "sg-r2"}, {"vpcId", "vpc-hxsimr2"}});
  return j.dump();
}

class NetworkTest : public SimFixture {
 protected:
  void SetUp() override { StartSim(0.01, NetworkScenario()); }

  json Instance(const std::string& id, const std::string& region = "r1") {
    auto r = client->Call("DescribeInstances", {{"RegionId", region}, {"InstanceIds", json::array({id}).dump()}});
    EXPECT_EQ(r.status, 200) << r.raw;
    const auto& list = r.body["Instances"]["Instance"];
    return list.empty() ? json() : list[0];
  }
  std::vector<std::string> Groups(const std::string& id) {
    return Instance(id)["SecurityGroupIds"]["SecurityGroupId"].get<std::vector<std::string>>();
  }
  std::string Address(const std::string& id) {
    const json addresses = Instance(id)["VpcAttributes"]["PrivateIpAddress"]["IpAddress"];
    return addresses.size() == 1 ? addresses[0].get<std::string>() : "<" + addresses.dump() + ">";
  }
  size_t InstanceCount() { return client->Control("GET", "/_sim/state")["instances"].size(); }

  Reply Join(const std::string& instance, const std::string& group) {
    return client->Call("JoinSecurityGroup", {{"InstanceId", instance}, {"SecurityGroupId", group}});
  }
  Reply Leave(const std::string& instance, const std::string& group) {
    return client->Call("LeaveSecurityGroup", {{"InstanceId", instance}, {"SecurityGroupId", group}});
  }
  Reply Create(ParamMap extra) {
    ParamMap p{{"RegionId", "r1"}, {"InstanceType", "ecs.big"}, {"ImageId", "img-linux"}};
    for (auto& [k, v] : extra) p[k] = v;
    return client->Call("CreateInstance", p);
  }
};

// ---------------------------------------------------------------- security groups

TEST_F(NetworkTest, ScenarioInstancesStartInTheirVpcsDefaultGroup) {
  EXPECT_EQ(Groups("i-small"), std::vector<std::string>{"sg-hxsimr1"});
  EXPECT_EQ(Instance("i-small")["VpcAttributes"]["VpcId"], "vpc-hxsimr1");
  EXPECT_EQ(Instance("i-far")["VpcAttributes"]["VSwitchId"], "vsw-hxsimr1-b");
}

TEST_F(NetworkTest, JoinAddsTheGroupDescribeReportsBothAndLeaveRemovesIt) {
  auto r = Join("i-small", "sg-web");
  ASSERT_EQ(r.status, 200) << r.raw;
  EXPECT_EQ(Groups("i-small"), (std::vector<std::string>{"sg-hxsimr1", "sg-web"}));

  // The DescribeInstances filter matches any of the instance's groups.
  for (const char* group : {"sg-hxsimr1", "sg-web"}) {
    auto found = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"SecurityGroupId", group}});
    ASSERT_EQ(found.status, 200) << found.raw;
    std::set<std::string> ids;
    for (const auto& i : found.body["Instances"]["Instance"]) ids.insert(i["InstanceId"]);
    EXPECT_TRUE(ids.count("i-small")) << group;
    EXPECT_EQ(ids.count("i-far"), group == std::string("sg-hxsimr1") ? 1u : 0u) << group;
  }

  r = Leave("i-small", "sg-hxsimr1");  // any group may go, as long as one is left
  ASSERT_EQ(r.status, 200) << r.raw;
  EXPECT_EQ(Groups("i-small"), std::vector<std::string>{"sg-web"});
}

TEST_F(NetworkTest, JoinPreconditionsAreAnsweredWithTheDocumentedCodes) {
  struct Case {
    const char* name;
    ParamMap params;
    int status;
    const char* code;
  } cases[] = {
      {"unknown instance", {{"InstanceId", "i-none"}, {"SecurityGroupId", "sg-web"}}, 404, "InvalidInstanceId.NotFound"},
      {"unknown group", {{"InstanceId", "i-small"}, {"SecurityGroupId", "sg-none"}}, 404,
       "InvalidSecurityGroupId.NotFound"},
      {"group of another region", {{"InstanceId", "i-small"}, {"SecurityGroupId", "sg-r2"}}, 404,
       "InvalidSecurityGroupId.NotFound"},
      {"instance outside the given region", {{"RegionId", "r2"}, {"InstanceId", "i-small"}, {"SecurityGroupId", "sg-web"}},
       404, "InvalidInstanceId.NotFound"},
      {"group of another VPC", {{"InstanceId", "i-small"}, {"SecurityGroupId", "sg-other"}}, 400,
       "InvalidInstanceId.Mismatch"},
      {"already a member", {{"InstanceId", "i-small"}, {"SecurityGroupId", "sg-hxsimr1"}}, 403,
       "InvalidInstanceId.AlreadyExists"},
      {"no group", {{"InstanceId", "i-small"}}, 400, "MissingParameter"},
      {"no instance", {{"SecurityGroupId", "sg-web"}}, 400, "MissingParameter"},
      {"unknown network interface", {{"NetworkInterfaceId", "eni-none"}, {"SecurityGroupId", "sg-web"}}, 404,
       "InvalidNetworkInterfaceId.NotFound"},
      {"instance and network interface",
       {{"InstanceId", "i-small"}, {"NetworkInterfaceId", "eni-none"}, {"SecurityGroupId", "sg-web"}}, 400,
       "InvalidParameter"},
      {"dry run", {{"InstanceId", "i-small"}, {"SecurityGroupId", "sg-web"}, {"DryRun", "true"}}, 400,
       "DryRunOperation"},
  };
  for (const auto& c : cases) {
    auto r = client->Call("JoinSecurityGroup", c.params);
    EXPECT_EQ(r.status, c.status) << c.name << ": " << r.raw;
    EXPECT_EQ(r.code(), c.code) << c.name;
    EXPECT_EQ(Groups("i-small"), std::vector<std::string>{"sg-hxsimr1"}) << c.name << " changed the membership";
  }
}

TEST_F(NetworkTest, AnInstanceIsInFiveGroupsAtMost) {
  for (const char* group : {"sg-web", "sg-db", "sg-a", "sg-b"}) ASSERT_EQ(Join("i-small", group).status, 200) << group;
  EXPECT_EQ(Groups("i-small").size(), 5u);
  auto r = Join("i-small", "sg-c");
  EXPECT_EQ(r.status, 400) << r.raw;
  EXPECT_EQ(r.code(), "InstanceSecurityGroupLimitExceeded");
  EXPECT_EQ(Groups("i-small").size(), 5u);
  // Leaving one makes room again.
  ASSERT_EQ(Leave("i-small", "sg-a").status, 200);
  EXPECT_EQ(Join("i-small", "sg-c").status, 200);
}

TEST_F(NetworkTest, LeavePreconditionsAreAnsweredWithTheDocumentedCodes) {
  ASSERT_EQ(Join("i-small", "sg-web").status, 200);
  struct Case {
    const char* name;
    std::string instance, group;
    int status;
    const char* code;
  } cases[] = {
      {"unknown instance", "i-none", "sg-web", 404, "InvalidInstanceId.NotFound"},
      {"unknown group", "i-small", "sg-none", 404, "InvalidSecurityGroupId.NotFound"},
      {"not a member", "i-small", "sg-db", 404, "InvalidSecurityGroupAssociation.NotFound"},
  };
  for (const auto& c : cases) {
    auto r = Leave(c.instance, c.group);
    EXPECT_EQ(r.status, c.status) << c.name << ": " << r.raw;
    EXPECT_EQ(r.code(), c.code) << c.name;
  }
  EXPECT_EQ(Groups("i-small"), (std::vector<std::string>{"sg-hxsimr1", "sg-web"}));

  ASSERT_EQ(Leave("i-small", "sg-web").status, 200);
  auto last = Leave("i-small", "sg-hxsimr1");
  EXPECT_EQ(last.status, 403) << last.raw;
  EXPECT_EQ(last.code(), "InstanceLastSecurityGroup");
  EXPECT_EQ(Groups("i-small"), std::vector<std::string>{"sg-hxsimr1"});
}

TEST_F(NetworkTest, MembershipChangesOnlyWhileStoppedOrRunning) {
  StartSim(1.0, NetworkScenario());  // a new instance stays Pending for a second
  auto created = Create({{"ZoneId", "r1-a"}});
  ASSERT_EQ(created.status, 200) << created.raw;
  const std::string id = created.body["InstanceId"];
  ASSERT_EQ(Instance(id)["Status"], "Pending");
  for (const auto& r : {Join(id, "sg-web"), Leave(id, "sg-hxsimr1")}) {
    EXPECT_EQ(r.status, 403) << r.raw;
    EXPECT_EQ(r.code(), "IncorrectInstanceStatus");
  }
  EXPECT_EQ(Groups(id), std::vector<std::string>{"sg-hxsimr1"});
}

// ---------------------------------------------------------------- private addresses

TEST_F(NetworkTest, CreateInstanceGetsTheRequestedFreeAddress) {
  auto r = Create({{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.3.7"}});
  ASSERT_EQ(r.status, 200) << r.raw;
  const std::string id = r.body["InstanceId"];
  const json inst = Instance(id);
  EXPECT_EQ(inst["ZoneId"], "r1-a");  // the vSwitch's zone
  EXPECT_EQ(inst["VpcAttributes"]["VSwitchId"], "vsw-hxsimr1-a");
  EXPECT_EQ(Address(id), "172.16.3.7");
}

TEST_F(NetworkTest, CreateInstanceRefusesUnusableAddressesAndCreatesNothing) {
  const std::string taken = Address("i-small");
  struct Case {
    const char* name;
    ParamMap params;
    int status;
    const char* code;
  } cases[] = {
      {"address of another instance", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", taken}}, 400,
       "InvalidIPAddress.AlreadyUsed"},
      {"address of the zone's other vSwitch", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.16.9"}},
       400, "InvalidPrivateIpAddress"},
      {"the block's network address", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.0.0"}}, 400,
       "InvalidPrivateIpAddress"},
      {"one of the block's last three", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.15.253"}}, 400,
       "InvalidPrivateIpAddress"},
      {"octet above 255", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.0.256"}}, 400,
       "InvalidPrivateIpAddress.Malformed"},
      {"not an address", {{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "db-01"}}, 400,
       "InvalidPrivateIpAddress.Malformed"},
      {"address without vSwitch", {{"ZoneId", "r1-a"}, {"PrivateIpAddress", "172.16.3.7"}}, 400, "MissingParameter"},
      {"unknown vSwitch", {{"VSwitchId", "vsw-none"}}, 404, "InvalidVSwitchId.NotFound"},
      {"vSwitch of another zone", {{"ZoneId", "r1-a"}, {"VSwitchId", "vsw-hxsimr1-b"}}, 400,
       "InvalidParameter.Mismatch"},
      {"group of another VPC", {{"VSwitchId", "vsw-hxsimr1-a"}, {"SecurityGroupId", "sg-other"}}, 400,
       "InvalidParameter.Mismatch"},
      {"unknown group", {{"VSwitchId", "vsw-hxsimr1-a"}, {"SecurityGroupId", "sg-none"}}, 404,
       "InvalidSecurityGroupId.NotFound"},
  };
  const size_t before = InstanceCount();
  for (const auto& c : cases) {
    auto r = Create(c.params);
    EXPECT_EQ(r.status, c.status) << c.name << ": " << r.raw;
    EXPECT_EQ(r.code(), c.code) << c.name;
  }
  EXPECT_EQ(InstanceCount(), before);
  EXPECT_EQ(Address("i-small"), taken);
}

TEST_F(NetworkTest, AnAddressIsTakenOnlyWithinItsVSwitchAndOnlyWhileItsInstanceExists) {
  const std::string taken = Address("i-small");
  // vsw-other (another VPC) covers the same addresses: the same one is free there.
  auto other = Create({{"VSwitchId", "vsw-other"}, {"PrivateIpAddress", taken}});
  ASSERT_EQ(other.status, 200) << other.raw;
  EXPECT_EQ(Address(other.body["InstanceId"]), taken);
  EXPECT_EQ(Groups(other.body["InstanceId"]), std::vector<std::string>{"sg-other"});  // its VPC's group

  // A released instance gives its address back.
  auto first = Create({{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.9.9"}});
  ASSERT_EQ(first.status, 200) << first.raw;
  const std::string id = first.body["InstanceId"];
  EXPECT_EQ(Create({{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.9.9"}}).code(),
            "InvalidIPAddress.AlreadyUsed");
  for (int i = 0; i < 200 && Instance(id)["Status"] != "Stopped"; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(client->Call("DeleteInstance", {{"InstanceId", id}}).status, 200);
  auto again = Create({{"VSwitchId", "vsw-hxsimr1-a"}, {"PrivateIpAddress", "172.16.9.9"}});
  ASSERT_EQ(again.status, 200) << again.raw;
  EXPECT_EQ(Address(again.body["InstanceId"]), "172.16.9.9");
}

TEST_F(NetworkTest, AddressesEcsPicksAreDistinctFreeAndInsideTheVSwitch) {
  // vsw-tiny is 172.20.0.0/29: .1 to .4 are usable.
  auto r = client->Call("RunInstances", {{"RegionId", "r1"},
                                         {"InstanceType", "ecs.big"},
                                         {"ImageId", "img-linux"},
                                         {"VSwitchId", "vsw-tiny"},
                                         {"Amount", "3"}});
  ASSERT_EQ(r.status, 200) << r.raw;
  std::set<std::string> addresses;
  for (const auto& id : r.body["InstanceIdSets"]["InstanceIdSet"]) addresses.insert(Address(id));
  EXPECT_EQ(addresses, (std::set<std::string>{"172.20.0.1", "172.20.0.2", "172.20.0.3"}));

  const size_t before = InstanceCount();
  auto full = client->Call("RunInstances", {{"RegionId", "r1"},
                                            {"InstanceType", "ecs.big"},
                                            {"ImageId", "img-linux"},
                                            {"VSwitchId", "vsw-tiny"},
                                            {"Amount", "2"}});
  EXPECT_EQ(full.status, 400) << full.raw;
  EXPECT_EQ(full.code(), "QuotaExceeded.PrivateIpAddress");
  EXPECT_EQ(InstanceCount(), before);  // all or nothing

  auto two = client->Call("RunInstances", {{"RegionId", "r1"},
                                           {"InstanceType", "ecs.big"},
                                           {"ImageId", "img-linux"},
                                           {"VSwitchId", "vsw-tiny"},
                                           {"PrivateIpAddress", "172.20.0.4"},
                                           {"Amount", "2"}});
  EXPECT_EQ(two.status, 400) << two.raw;
  EXPECT_EQ(two.code(), "InvalidParameter");

  auto last = Create({{"VSwitchId", "vsw-tiny"}});
  ASSERT_EQ(last.status, 200) << last.raw;
  EXPECT_EQ(Address(last.body["InstanceId"]), "172.20.0.4");
}

}  // namespace
}  // namespace hxsim::test
