// Signature schemes against the published test vectors, and the authenticator's
// refusals: a wrong signature, a foreign key, a stale timestamp, a reused nonce or a
// missing STS token must never be accepted.
#include <gtest/gtest.h>

#include "api/ApiError.h"
#include "api/Auth.h"
#include "api/Signature.h"
#include "util/Crypto.h"
#include "util/Encoding.h"

namespace hxsim {
namespace {

TEST(PercentEncode, FollowsTheSigningRules) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"abcXYZ019-_.~", "abcXYZ019-_.~"}, {" ", "%20"},        {"*", "%2A"},   {"+", "%2B"},
      {"/", "%2F"},                       {"=", "%3D"},        {":", "%3A"},   {"\xE4\xB8\xAD", "%E4%B8%AD"},
      {"[\"d-1\"]", "%5B%22d-1%22%5D"},   {"!'()", "%21%27%28%29"},
  };
  for (const auto& c : cases) EXPECT_EQ(enc::PercentEncode(c.in), c.out) << c.in;
}

TEST(SignatureV2, MatchesTheDocumentedVector) {
  enc::KeyValues params = {
      {"AccessKeyId", "testid"},
      {"Action", "DescribeRegions"},
      {"Format", "XML"},
      {"SignatureMethod", "HMAC-SHA1"},
      {"SignatureNonce", "3ee8c1b8-83d3-44af-a94f-4e0ad82fd6cf"},
      {"SignatureVersion", "1.0"},
      {"Timestamp", "2016-02-23T12:46:24Z"},
      {"Version", "2014-05-26"},
      {"Signature", "ignored-when-signing"},
  };
  const std::string sts = sig::V2StringToSign("GET", params);
  EXPECT_EQ(sts,
            "GET&%2F&AccessKeyId%3Dtestid%26Action%3DDescribeRegions%26Format%3DXML%26SignatureMethod%3DHMAC-SHA1"
            "%26SignatureNonce%3D3ee8c1b8-83d3-44af-a94f-4e0ad82fd6cf%26SignatureVersion%3D1.0%26Timestamp%3D2016-"
            "02-23T12%253A46%253A24Z%26Version%3D2014-05-26");
  EXPECT_EQ(sig::V2Sign("testsecret", sts), "OLeaidS1JvxuMvnyHOwuJ+uX5qY=");
  EXPECT_EQ(enc::PercentEncode(sig::V2Sign("testsecret", sts)), "OLeaidS1JvxuMvnyHOwuJ%2BuX5qY%3D");
}

TEST(SignatureV3, MatchesTheDocumentedVector) {
  sig::HeaderMap headers = {
      {"host", "ecs.cn-shanghai.aliyuncs.com"},
      {"x-acs-action", "RunInstances"},
      {"x-acs-version", "2014-05-26"},
      {"x-acs-date", "2023-10-26T10:22:32Z"},
      {"x-acs-signature-nonce", "3156853299f313e23d1673dc12e1703d"},
      {"x-acs-content-sha256", crypto::Hex(crypto::Sha256(""))},
  };
  enc::KeyValues query = {{"RegionId", "cn-shanghai"},
                          {"ImageId", "win2019_1809_x64_dtc_zh-cn_40G_alibase_20230811.vhd"}};
  std::vector<std::string> names = {"host", "x-acs-action", "x-acs-content-sha256", "x-acs-date",
                                    "x-acs-signature-nonce", "x-acs-version"};
  std::string canonical = sig::V3CanonicalRequest("POST", "/", query, headers, names,
                                                  headers.find("x-acs-content-sha256")->second);
  EXPECT_EQ(crypto::Hex(crypto::Sha256(canonical)),
            "7ea06492da5221eba5297e897ce16e55f964061054b7695beedaac1145b1e259");
  EXPECT_EQ(sig::V3Sign("YourAccessKeySecret", sig::V3StringToSign(canonical)),
            "06563a9e1b43f5dfe96b81484da74bceab24a1d853912eee15083a6f0f3283c0");
}

TEST(SignatureV3, ParsesTheAuthorizationHeader) {
  auto auth = sig::ParseV3Authorization(
      "ACS3-HMAC-SHA256 Credential=AK1,SignedHeaders=host;x-acs-action;X-Acs-Date,Signature=ABCdef");
  ASSERT_TRUE(auth);
  EXPECT_EQ(auth->algorithm, "ACS3-HMAC-SHA256");
  EXPECT_EQ(auth->accessKeyId, "AK1");
  EXPECT_EQ(auth->signedHeaders, (std::vector<std::string>{"host", "x-acs-action", "x-acs-date"}));
  EXPECT_EQ(auth->signature, "abcdef");
  for (const char* bad : {"", "ACS3-HMAC-SHA256", "ACS3-HMAC-SHA256 Credential=AK,Signature=x",
                          "ACS3-HMAC-SHA256 SignedHeaders=host,Signature=x"}) {
    EXPECT_FALSE(sig::ParseV3Authorization(bad)) << bad;
  }
}

// ---- Authenticator ----

class AuthTest : public ::testing::Test {
 protected:
  const timefmt::WallTime now = *timefmt::ParseIso8601("2024-05-01T12:00:00Z");
  api::Authenticator auth{{
      {"AK", "secret", "", std::nullopt},
      {"STS.AK", "stssecret", "token-1", *timefmt::ParseIso8601("2024-05-01T13:00:00Z")},
  }};

  api::Params V2Params(const std::string& ak, const std::string& secret, const std::string& nonce,
                       const std::string& timestamp = "2024-05-01T12:00:00Z", const std::string& token = "") {
    enc::KeyValues kv = {{"AccessKeyId", ak},         {"Action", "DescribeRegions"}, {"Version", "2014-05-26"},
                         {"SignatureMethod", "HMAC-SHA1"}, {"SignatureVersion", "1.0"}, {"SignatureNonce", nonce},
                         {"Timestamp", timestamp}};
    if (!token.empty()) kv.emplace_back("SecurityToken", token);
    api::Params p;
    for (auto& [k, v] : kv) p.AddQuery(k, v);
    p.AddQuery("Signature", sig::V2Sign(secret, sig::V2StringToSign("GET", kv)));
    return p;
  }

  std::string Verify(const api::Params& p, const sig::HeaderMap& headers = {}, const std::string& body = "",
                     const std::string& method = "GET") {
    api::RequestView view{method, "/", &p, &headers, &body};
    try {
      auth.Verify(view, now);
      return "OK";
    } catch (const api::ApiError& e) {
      return e.code;
    }
  }
};

TEST_F(AuthTest, V2AcceptsAGoodSignatureAndRefusesEveryForgery) {
  EXPECT_EQ(Verify(V2Params("AK", "secret", "n1")), "OK");
  EXPECT_EQ(Verify(V2Params("AK", "wrong", "n2")), "SignatureDoesNotMatch");
  EXPECT_EQ(Verify(V2Params("NOPE", "secret", "n3")), "InvalidAccessKeyId.NotFound");

  api::Params tampered = V2Params("AK", "secret", "n4");
  api::Params copy;
  for (auto [k, v] : tampered.Query()) copy.AddQuery(k, k == "Action" ? "DeleteDisk" : v);
  EXPECT_EQ(Verify(copy), "SignatureDoesNotMatch");

  // Signed for GET, replayed as POST.
  EXPECT_EQ(Verify(V2Params("AK", "secret", "n5"), {}, "", "POST"), "SignatureDoesNotMatch");
}

TEST_F(AuthTest, V2RefusesStaleTimestampsAndReusedNonces) {
  EXPECT_EQ(Verify(V2Params("AK", "secret", "t1", "2024-05-01T11:44:00Z")), "InvalidTimeStamp.Expired");
  EXPECT_EQ(Verify(V2Params("AK", "secret", "t2", "2024-05-01T12:16:00Z")), "InvalidTimeStamp.Expired");
  EXPECT_EQ(Verify(V2Params("AK", "secret", "t3", "2024-05-01T11:46:00Z")), "OK");
  EXPECT_EQ(Verify(V2Params("AK", "secret", "t4", "yesterday")), "InvalidTimeStamp.Format");

  EXPECT_EQ(Verify(V2Params("AK", "secret", "same")), "OK");
  EXPECT_EQ(Verify(V2Params("AK", "secret", "same")), "SignatureNonceUsed");
  // A forged request must not burn the nonce of a later genuine one.
  EXPECT_EQ(Verify(V2Params("AK", "wrong", "fresh")), "SignatureDoesNotMatch");
  EXPECT_EQ(Verify(V2Params("AK", "secret", "fresh")), "OK");
}

TEST_F(AuthTest, TemporaryKeysNeedTheirToken) {
  EXPECT_EQ(Verify(V2Params("STS.AK", "stssecret", "s1", "2024-05-01T12:00:00Z", "token-1")), "OK");
  EXPECT_EQ(Verify(V2Params("STS.AK", "stssecret", "s2")), "MissingSecurityToken");
  EXPECT_EQ(Verify(V2Params("STS.AK", "stssecret", "s3", "2024-05-01T12:00:00Z", "token-2")),
            "InvalidSecurityToken.MismatchWithAccessKey");
}

TEST_F(AuthTest, V3ChecksHeadersBodyHashAndSignature) {
  api::Params query;
  query.AddQuery("RegionId", "cn-hangzhou");
  const std::string body = "";
  auto sign = [&](sig::HeaderMap headers, const std::string& secret, std::vector<std::string> names = {}) {
    if (names.empty())
      for (auto& [k, v] : headers) names.push_back(k);
    std::string canonical =
        sig::V3CanonicalRequest("POST", "/", query.Query(), headers, names, headers.find("x-acs-content-sha256")->second);
    std::string list;
    for (auto& n : names) list += (list.empty() ? "" : ";") + n;
    headers.emplace("authorization", "ACS3-HMAC-SHA256 Credential=AK,SignedHeaders=" + list +
                                         ",Signature=" + sig::V3Sign(secret, sig::V3StringToSign(canonical)));
    return headers;
  };
  auto base = [&](const std::string& nonce) {
    return sig::HeaderMap{{"host", "127.0.0.1:1"},
                          {"x-acs-action", "DescribeRegions"},
                          {"x-acs-version", "2014-05-26"},
                          {"x-acs-date", "2024-05-01T12:00:00Z"},
                          {"x-acs-signature-nonce", nonce},
                          {"x-acs-content-sha256", crypto::Hex(crypto::Sha256(body))}};
  };
  EXPECT_EQ(Verify(query, sign(base("v1"), "secret"), body, "POST"), "OK");
  EXPECT_EQ(Verify(query, sign(base("v1"), "secret"), body, "POST"), "SignatureNonceUsed");
  EXPECT_EQ(Verify(query, sign(base("v2"), "wrong"), body, "POST"), "SignatureDoesNotMatch");
  // A body that does not match its declared hash.
  EXPECT_EQ(Verify(query, sign(base("v3"), "secret"), "RegionId=x", "POST"), "ContentSHA256NotMatched");
  // Leaving the nonce out of the signed headers would let anyone replay the request.
  EXPECT_EQ(Verify(query, sign(base("v4"), "secret", {"host", "x-acs-action", "x-acs-content-sha256", "x-acs-date",
                                                       "x-acs-version"}),
                   body, "POST"),
            "IncompleteSignature");
  // A query parameter changed after signing.
  auto good = sign(base("v5"), "secret");
  api::Params changed;
  changed.AddQuery("RegionId", "cn-shanghai");
  EXPECT_EQ(Verify(changed, good, body, "POST"), "SignatureDoesNotMatch");
}

}  // namespace
}  // namespace hxsim
