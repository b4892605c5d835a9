// Instance attributes through the HTTP API: DescribeInstanceAttribute,
// ModifyInstanceAttribute and its input rules, the primary network interface that
// DescribeInstances lists, and page sizes capped as ECS caps them.
#include <nlohmann/json.hpp>

#include "SimFixture.h"

namespace hxsim::test {
namespace {

using nlohmann::json;

class InstanceAttributeTest : public SimFixture {
 protected:
  json Instance(const std::string& id) {
    auto r = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"InstanceIds", json::array({id}).dump()}});
    EXPECT_EQ(r.status, 200) << r.raw;
    return r.body["Instances"]["Instance"].at(0);
  }
};

TEST_F(InstanceAttributeTest, DescribeInstanceAttributeAnswersTheInstanceFlat) {
  auto r = client->Call("DescribeInstanceAttribute", {{"InstanceId", "i-small"}});
  ASSERT_EQ(r.status, 200) << r.raw;
  const json listed = Instance("i-small");
  for (const char* field : {"InstanceId", "InstanceName", "ZoneId", "Status", "InstanceType", "Cpu", "Memory",
                            "ImageId", "VpcAttributes", "SecurityGroupIds", "OperationLocks"}) {
    EXPECT_EQ(r.body[field], listed[field]) << field;
  }
  EXPECT_FALSE(r.body.contains("Tags"));

  auto missing = client->Call("DescribeInstanceAttribute", {{"InstanceId", "i-nothere"}});
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.code(), "InvalidInstanceId.NotFound");
}

TEST_F(InstanceAttributeTest, ModifyInstanceAttributeChangesOnlyWhatItChecked) {
  struct Case {
    const char* what;
    ParamMap params;
    const char* code;  // "" for success
  } cases[] = {
      {"a name starting with a digit", {{"InstanceName", "1abc"}}, "InvalidInstanceName.Malformed"},
      {"a name starting with http://", {{"InstanceName", "http://x"}}, "InvalidInstanceName.Malformed"},
      {"a host name with an empty label", {{"HostName", "a..b"}}, "InvalidHostName.Malformed"},
      {"a host name ending with '-'", {{"HostName", "web-"}}, "InvalidHostName.Malformed"},
      {"a password of two kinds", {{"Password", "abcdefgh1"}}, "InvalidPassword.Malformed"},
      {"a security group change", {{"SecurityGroupIds.1", "sg-x"}}, "InvalidParameter"},
      {"a dry run", {{"InstanceName", "dry-name"}, {"DryRun", "true"}}, "DryRunOperation"},
      {"a Chinese name, host and description", {{"InstanceName", "数据库-1"}, {"HostName", "db1.lan"},
                                                {"Description", "moved"}}, ""},
      {"a valid password (checked, not kept)", {{"Password", "Abcdefg1!"}}, ""},
  };
  for (auto& c : cases) {
    c.params["InstanceId"] = "i-small";
    auto r = client->Call("ModifyInstanceAttribute", c.params);
    EXPECT_EQ(r.code(), c.code) << c.what << ": " << r.raw;
    EXPECT_EQ(r.status, *c.code ? 400 : 200) << c.what;
  }
  const json after = Instance("i-small");
  EXPECT_EQ(after["InstanceName"], "数据库-1") << "only the successful change applies";
  EXPECT_EQ(after["HostName"], "db1.lan");
  EXPECT_EQ(after["Description"], "moved");
  EXPECT_EQ(client->Call("DescribeInstanceAttribute", {{"InstanceId", "i-small"}}).raw.find("Abcdefg1!"),
            std::string::npos);
}

TEST_F(InstanceAttributeTest, DescribeInstancesListsThePrimaryNetworkInterface) {
  const json small = Instance("i-small");
  const json cards = small["NetworkInterfaces"]["NetworkInterface"];
  ASSERT_EQ(cards.size(), 1u);
  EXPECT_EQ(cards[0]["Type"], "Primary");
  EXPECT_EQ(cards[0]["PrimaryIpAddress"], small["VpcAttributes"]["PrivateIpAddress"]["IpAddress"][0]);
  EXPECT_EQ(cards[0]["NetworkInterfaceId"].get<std::string>().rfind("eni-", 0), 0u);
  EXPECT_EQ(cards[0]["MacAddress"].get<std::string>().rfind("00:16:3e:", 0), 0u);
  EXPECT_EQ(cards[0], Instance("i-small")["NetworkInterfaces"]["NetworkInterface"][0]) << "stable between calls";
  EXPECT_NE(cards[0]["MacAddress"], Instance("i-far")["NetworkInterfaces"]["NetworkInterface"][0]["MacAddress"]);
}

TEST_F(InstanceAttributeTest, PageSizesAboveTheMaximumAreCappedNotRefused) {
  for (const char* action : {"DescribeInstances", "DescribeSnapshots", "DescribeDisks"}) {
    auto r = client->Call(action, {{"RegionId", "r1"}, {"MaxResults", "5000"}});
    EXPECT_EQ(r.status, 200) << action << ": " << r.raw;
  }
  auto instances = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"MaxResults", "5000"}});
  EXPECT_EQ(instances.body["Instances"]["Instance"].size(), 3u) << "every instance on one capped page";
  EXPECT_EQ(instances.body["NextToken"], "");
}

}  // namespace
}  // namespace hxsim::test
