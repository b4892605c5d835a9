// The wire protocol: how requests are accepted (GET/POST, V2/V3, query and form body)
// and how answers look (wrapped lists, error bodies, XML, unknown actions/versions).
#include <httplib.h>

#include "SimFixture.h"
#include "api/Signature.h"
#include "util/Crypto.h"
#include "util/Time.h"

namespace hxsim::test {
namespace {

using nlohmann::json;

class ProtocolTest : public SimFixture {};

TEST_F(ProtocolTest, UnknownActionsVersionsAndMissingAuthentication) {
  auto unknown = client->Call("DescribeUnicorns", {});
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.code(), "InvalidAction.NotFound");
  auto version = client->Raw("GET", "/?Action=DescribeRegions&Version=2016-01-01");
  EXPECT_EQ(version.status, 400);
  EXPECT_EQ(version.code(), "InvalidVersion");
  auto unsigned_ = client->Raw("GET", "/?Action=DescribeRegions&Version=2014-05-26");
  EXPECT_EQ(unsigned_.status, 400);
  auto missing = client->Raw("GET", "/?Version=2014-05-26");
  EXPECT_EQ(missing.code(), "MissingAction");
}

TEST_F(ProtocolTest, ErrorAndSuccessBodiesHaveTheServiceShape) {
  auto error = client->Call("DeleteDisk", {{"DiskId", "d-nothere"}, {"RegionId", "r1"}});
  ASSERT_EQ(error.status, 404);
  for (const char* field : {"Code", "Message", "RequestId", "HostId", "Recommend"}) {
    EXPECT_TRUE(error.body.contains(field)) << field;
  }
  EXPECT_EQ(error.body["HostId"], "ecs.r1.aliyuncs.com");
  EXPECT_NE(error.body["Recommend"].get<std::string>().find("InvalidDiskId.NotFound"), std::string::npos);
  EXPECT_EQ(error.body["RequestId"].get<std::string>().size(), 36u);

  auto ok = client->Call("DescribeDisks", {{"RegionId", "r1"}, {"InstanceId", "i-small"}});
  ASSERT_EQ(ok.status, 200);
  EXPECT_FALSE(ok.body.contains("Code"));
  ASSERT_TRUE(ok.body["Disks"]["Disk"].is_array()) << "lists are wrapped: Disks.Disk[]";
  EXPECT_EQ(ok.body["Disks"]["Disk"].size(), 2u);
  EXPECT_EQ(ok.body["Disks"]["Disk"][0]["Device"], "/dev/xvda");
  EXPECT_EQ(ok.body["Disks"]["Disk"][1]["SerialNumber"], "smalldata");
  EXPECT_EQ(ok.body["Disks"]["Disk"][1]["Attachments"]["Attachment"][0]["InstanceId"], "i-small");
}

TEST_F(ProtocolTest, XmlFormatWrapsListsAsRepeatedElements) {
  auto r = client->Call("DescribeRegions", {{"Format", "XML"}});
  ASSERT_EQ(r.status, 200);
  EXPECT_NE(r.raw.find("<DescribeRegionsResponse><Regions><Region>"), std::string::npos) << r.raw;
  EXPECT_NE(r.raw.find("<RegionId>r2</RegionId>"), std::string::npos);
  auto e = client->Call("DeleteDisk", {{"Format", "XML"}, {"DiskId", "d-x"}});
  EXPECT_NE(e.raw.find("<Error>"), std::string::npos);
  EXPECT_NE(e.raw.find("<Code>InvalidDiskId.NotFound</Code>"), std::string::npos);
}

TEST_F(ProtocolTest, PostFormBodiesAndV3HeadersAreBothAccepted) {
  auto form = client->Call("DescribeZones", {{"RegionId", "r1"}}, "POST");
  ASSERT_EQ(form.status, 200) << form.raw;
  EXPECT_EQ(form.body["Zones"]["Zone"].size(), 2u);

  auto v3 = client->CallV3("DescribeInstances", {{"RegionId", "r1"}, {"InstanceIds", R"(["i-far"])"}});
  ASSERT_EQ(v3.status, 200) << v3.raw;
  EXPECT_EQ(v3.body["Instances"]["Instance"][0]["ZoneId"], "r1-b");

  SimClient wrong("127.0.0.1", sim->Port(), {"AKTEST", "not-the-secret", ""});
  EXPECT_EQ(wrong.CallV3("DescribeRegions", {}).code(), "SignatureDoesNotMatch");
  EXPECT_EQ(wrong.Call("DescribeRegions", {}, "POST").code(), "SignatureDoesNotMatch");
  SimClient stranger("127.0.0.1", sim->Port(), {"AKOTHER", "SECRETTEST", ""});
  auto foreign = stranger.Call("DescribeRegions", {});
  EXPECT_EQ(foreign.status, 404);
  EXPECT_EQ(foreign.code(), "InvalidAccessKeyId.NotFound");
}

TEST_F(ProtocolTest, QueryAndBodyParametersAreMergedAndBothSigned) {
  // Signature over all parameters, sent half in the query and half in the body.
  std::map<std::string, std::string> params = {
      {"Action", "DescribeZones"},      {"Version", "2014-05-26"},  {"Format", "JSON"},
      {"AccessKeyId", "AKTEST"},        {"SignatureMethod", "HMAC-SHA1"},
      {"SignatureVersion", "1.0"},      {"SignatureNonce", Nonce()},
      {"Timestamp", timefmt::Iso8601(std::chrono::system_clock::now())}, {"RegionId", "r2"}};
  enc::KeyValues kv(params.begin(), params.end());
  std::string signature = sig::V2Sign("SECRETTEST", sig::V2StringToSign("POST", kv));
  std::string query, body;
  for (const auto& [k, v] : params) {
    std::string& target = (k == "RegionId" || k == "Action") ? body : query;
    target += (target.empty() ? "" : "&") + k + "=" + enc::PercentEncode(v);
  }
  query += "&Signature=" + enc::PercentEncode(signature);
  auto r = client->Raw("POST", "/?" + query, {}, body, "application/x-www-form-urlencoded");
  ASSERT_EQ(r.status, 200) << r.raw;
  EXPECT_EQ(r.body["Zones"]["Zone"][0]["ZoneId"], "r2-a");
}

TEST_F(ProtocolTest, RequestHeadersCanInjectFaults) {
  auto throttled = client->Call("DescribeRegions", {}, "GET", {{"x-hxsim-fault", "Throttling.User"}});
  EXPECT_EQ(throttled.status, 400);
  EXPECT_EQ(throttled.code(), "Throttling.User");
  auto custom = client->Call("DescribeRegions", {}, "GET",
                             {{"x-hxsim-fault", "InternalError"}, {"x-hxsim-fault-status", "502"}});
  EXPECT_EQ(custom.status, 502);
  auto dropped = client->Call("CreateDisk",
                              {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"Size", "1"}, {"DiskCategory", "cloud_auto"},
                               {"DiskName", "dropped"}},
                              "GET", {{"x-hxsim-fault", "drop"}});
  EXPECT_EQ(dropped.status, 0);
  auto found = client->Call("DescribeDisks", {{"RegionId", "r1"}, {"DiskName", "dropped"}});
  EXPECT_EQ(found.body["Disks"]["Disk"].size(), 1u) << "the call was performed before its answer was dropped";
}

TEST_F(ProtocolTest, PagingCoversEveryInstanceOnce) {
  std::vector<std::string> seen;
  std::string token;
  for (int guard = 0; guard < 10; ++guard) {
    ParamMap p = {{"RegionId", "r1"}, {"MaxResults", "2"}};
    if (!token.empty()) p["NextToken"] = token;
    auto r = client->Call("DescribeInstances", p);
    ASSERT_EQ(r.status, 200) << r.raw;
    for (const auto& i : r.body["Instances"]["Instance"]) seen.push_back(i["InstanceId"]);
    token = r.body["NextToken"];
    if (token.empty()) break;
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"i-proxy", "i-small", "i-far"}));
  auto page2 = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"PageNumber", "2"}, {"PageSize", "2"}});
  EXPECT_EQ(page2.body["TotalCount"], 3);
  ASSERT_EQ(page2.body["Instances"]["Instance"].size(), 1u);
  EXPECT_EQ(page2.body["Instances"]["Instance"][0]["InstanceId"], "i-far");
}

TEST_F(ProtocolTest, CatalogueActionsDescribeTheScenario) {
  auto types = client->Call("DescribeInstanceTypes", {{"InstanceTypes.1", "ecs.small"}});
  ASSERT_EQ(types.body["InstanceTypes"]["InstanceType"].size(), 1u);
  EXPECT_EQ(types.body["InstanceTypes"]["InstanceType"][0]["DiskQuantity"], 3);
  auto zones = client->Call("DescribeAvailableResource",
                            {{"RegionId", "r1"}, {"DestinationResource", "InstanceType"}, {"InstanceType", "ecs.small"}});
  ASSERT_EQ(zones.status, 200) << zones.raw;
  ASSERT_EQ(zones.body["AvailableZones"]["AvailableZone"].size(), 1u);
  EXPECT_EQ(zones.body["AvailableZones"]["AvailableZone"][0]["ZoneId"], "r1-a");
  auto bad = client->Call("DescribeAvailableResource", {{"RegionId", "r1"}, {"DestinationResource", "Moon"}});
  EXPECT_EQ(bad.code(), "InvalidParameter");
}

}  // namespace
}  // namespace hxsim::test
