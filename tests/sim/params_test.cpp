// Request parameter parsing: the structured forms ECS uses (JSON-array lists, RepeatLists,
// Name.N.Field objects, tags) and the refusal of malformed values.
#include <gtest/gtest.h>

#include "actions/Paging.h"
#include "actions/Registry.h"
#include "api/ApiError.h"
#include "api/Params.h"
#include "util/Encoding.h"

namespace hxsim {
namespace {

api::Params Make(std::initializer_list<std::pair<const char*, const char*>> query) {
  api::Params p;
  for (auto& [k, v] : query) p.AddQuery(k, v);
  return p;
}

std::string CodeOf(const std::function<void()>& fn) {
  try {
    fn();
    return "OK";
  } catch (const api::ApiError& e) {
    return e.code;
  }
}

TEST(ParseQuery, DecodesPercentAndPlus) {
  auto kv = enc::ParseQuery("a=1%202&b=x+y&c&d=%E4%B8%AD&bad=%zz");
  ASSERT_EQ(kv.size(), 5u);
  EXPECT_EQ(kv[0].second, "1 2");
  EXPECT_EQ(kv[1].second, "x y");
  EXPECT_EQ(kv[2], (std::pair<std::string, std::string>{"c", ""}));
  EXPECT_EQ(kv[3].second, "\xE4\xB8\xAD");
  EXPECT_EQ(kv[4].second, "%zz");
}

TEST(Params, QueryWinsOverBodyAndBothAreKept) {
  api::Params p;
  p.AddBody("RegionId", "body");
  p.AddQuery("RegionId", "query");
  p.AddBody("DiskId", "d-1");
  EXPECT_EQ(p.GetOr("RegionId", ""), "query");
  EXPECT_EQ(p.GetOr("DiskId", ""), "d-1");
  EXPECT_EQ(p.Query().size(), 1u);
  EXPECT_EQ(p.Body().size(), 2u);
}

TEST(Params, StructuredLists) {
  auto p = Make({{"DiskIds", R"(["d-1","d-2"])"},
                 {"InstanceId.2", "i-2"},
                 {"InstanceId.1", "i-1"},
                 {"InstanceId.10", "i-10"},
                 {"DataDisk.1.Size", "20"},
                 {"DataDisk.1.Category", "cloud_essd"},
                 {"DataDisk.2.Size", "30"},
                 {"SystemDisk.Category", "cloud_auto"},
                 {"Tag.1.Key", "env"},
                 {"Tag.1.Value", "prod"},
                 {"Tag.2.Key", "team"}});
  EXPECT_EQ(*p.JsonArray("DiskIds"), (std::vector<std::string>{"d-1", "d-2"}));
  EXPECT_FALSE(p.JsonArray("SnapshotIds"));
  EXPECT_EQ(p.RepeatList("InstanceId"), (std::vector<std::string>{"i-1", "i-2", "i-10"}));
  auto disks = p.ObjectList("DataDisk");
  ASSERT_EQ(disks.size(), 2u);
  EXPECT_EQ(disks[0].at("Category"), "cloud_essd");
  EXPECT_EQ(disks[1].at("Size"), "30");
  EXPECT_EQ(p.Object("SystemDisk").at("Category"), "cloud_auto");
  auto tags = p.Tags();
  ASSERT_EQ(tags.size(), 2u);
  EXPECT_EQ(tags[0], (std::pair<std::string, std::string>{"env", "prod"}));
  EXPECT_EQ(tags[1], (std::pair<std::string, std::string>{"team", ""}));
}

TEST(Params, MalformedValuesAreRefusedWithTheServiceCodes) {
  EXPECT_EQ(CodeOf([] { Make({{"DiskIds", "d-1"}}).JsonArray("DiskIds"); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({{"DiskIds", R"([1,2])"}}).JsonArray("DiskIds"); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({{"DiskIds", R"(["a","b","c"])"}}).JsonArray("DiskIds", 2); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({{"Size", "12x"}}).Int("Size", 0, 1, 100); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({{"Size", "101"}}).Int("Size", 0, 1, 100); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({{"DryRun", "yes"}}).Bool("DryRun", false); }), "InvalidParameter");
  EXPECT_EQ(CodeOf([] { Make({}).Required("RegionId"); }), "MissingRegionId");
  EXPECT_EQ(CodeOf([] { Make({{"RegionId", ""}}).Required("RegionId"); }), "MissingRegionId");
  EXPECT_EQ(CodeOf([] { Make({{"Tag.1.Value", "v"}}).Tags(); }), "InvalidParameter");
  EXPECT_TRUE(Make({{"DryRun", "TRUE"}}).Bool("DryRun", false));
}

TEST(Params, FingerprintIgnoresSigningParametersOnly) {
  auto a = Make({{"Size", "20"}, {"SignatureNonce", "1"}, {"Timestamp", "t1"}, {"ClientToken", "x"}});
  auto b = Make({{"Size", "20"}, {"SignatureNonce", "2"}, {"Timestamp", "t2"}, {"ClientToken", "x"}});
  auto c = Make({{"Size", "30"}, {"SignatureNonce", "1"}, {"Timestamp", "t1"}, {"ClientToken", "x"}});
  EXPECT_EQ(a.Fingerprint(), b.Fingerprint());
  EXPECT_NE(a.Fingerprint(), c.Fingerprint());
}

TEST(Paging, TokensWalkTheWholeListOnce) {
  const size_t total = 23;
  std::vector<size_t> seen;
  std::string token;
  for (int guard = 0; guard < 10; ++guard) {
    api::Params p;
    p.AddQuery("MaxResults", "10");
    if (!token.empty()) p.AddQuery("NextToken", token);
    auto page = actions::ParsePaging(p, {});
    for (size_t i = page.Begin(total); i < page.End(total); ++i) seen.push_back(i);
    token = page.Fields(total, true)["NextToken"];
    if (token.empty()) break;
  }
  ASSERT_EQ(seen.size(), total);
  for (size_t i = 0; i < total; ++i) EXPECT_EQ(seen[i], i);

  EXPECT_EQ(CodeOf([] { actions::ParsePaging(Make({{"NextToken", "forged"}}), {}); }), "InvalidNextToken");
  EXPECT_EQ(actions::ParsePaging(Make({{"MaxResults", "101"}}), {}).limit, 100u);
  EXPECT_EQ(CodeOf([] { actions::ParsePaging(Make({{"MaxResults", "ten"}}), {}); }), "InvalidParameter");
  actions::PagingRules clamp;
  clamp.maxResultsMin = 10;
  clamp.maxResultsMax = 500;
  EXPECT_EQ(actions::ParsePaging(Make({{"MaxResults", "5000"}}), clamp).limit, 500u);
  EXPECT_EQ(actions::ParsePaging(Make({{"MaxResults", "1"}}), clamp).limit, 10u);

  auto page = actions::ParsePaging(Make({{"PageNumber", "3"}, {"PageSize", "5"}}), {});
  EXPECT_EQ(page.Begin(total), 10u);
  EXPECT_EQ(page.End(total), 15u);
  EXPECT_EQ(page.Fields(total, false)["PageNumber"], 3);
}

TEST(Wildcard, MatchesLikeInstanceNameFilters) {
  EXPECT_TRUE(actions::WildcardMatch("web*", "web-01"));
  EXPECT_TRUE(actions::WildcardMatch("*01", "web-01"));
  EXPECT_TRUE(actions::WildcardMatch("w*-*1", "web-01"));
  EXPECT_FALSE(actions::WildcardMatch("web", "web-01"));
  EXPECT_FALSE(actions::WildcardMatch("db*", "web-01"));
}

}  // namespace
}  // namespace hxsim
