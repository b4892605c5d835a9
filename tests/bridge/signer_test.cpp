// The V2 signer against the documented DescribeRegions example, and percent-encoding.
#include <gtest/gtest.h>

#include "percent_encode.h"
#include "signer.h"

using namespace hxbridge;

namespace {

const Params kDocumentedParams = {
    {"AccessKeyId", "testid"},
    {"Action", "DescribeRegions"},
    {"Format", "XML"},
    {"SignatureMethod", "HMAC-SHA1"},
    {"SignatureNonce", "3ee8c1b8-83d3-44af-a94f-4e0ad82fd6cf"},
    {"SignatureVersion", "1.0"},
    {"Timestamp", "2016-02-23T12:46:24Z"},
    {"Version", "2014-05-26"},
};

TEST(Signer, ReproducesDocumentedStringToSignAndSignature) {
    EXPECT_EQ(StringToSign("GET", kDocumentedParams),
              "GET&%2F&AccessKeyId%3Dtestid%26Action%3DDescribeRegions%26Format%3DXML%26SignatureMethod%3DHMAC-SHA1"
              "%26SignatureNonce%3D3ee8c1b8-83d3-44af-a94f-4e0ad82fd6cf%26SignatureVersion%3D1.0%26Timestamp%3D2016-"
              "02-23T12%253A46%253A24Z%26Version%3D2014-05-26");
    const std::string sig = HmacSha1Base64("testsecret", StringToSign("GET", kDocumentedParams));
    EXPECT_EQ(sig, "OLeaidS1JvxuMvnyHOwuJ+uX5qY=");
    EXPECT_EQ(PercentEncode(sig), "OLeaidS1JvxuMvnyHOwuJ%2BuX5qY%3D");
}

TEST(Signer, SignatureParameterIsLeftOutOfTheStringToSign) {
    Params withSig = kDocumentedParams;
    withSig["Signature"] = "anything";
    EXPECT_EQ(StringToSign("GET", withSig), StringToSign("GET", kDocumentedParams));
}

TEST(Signer, RequestSignerWithInjectedClockAndNonceMatchesTheExample) {
    // 2016-02-23T12:46:24Z
    const auto fixed = std::chrono::system_clock::from_time_t(1456231584);
    RequestSigner signer([&] { return fixed; }, [] { return std::string("3ee8c1b8-83d3-44af-a94f-4e0ad82fd6cf"); });
    Params out = signer.Sign("GET", "DescribeRegions", "2014-05-26", {}, {"testid", "testsecret", ""});
    EXPECT_EQ(out["Timestamp"], "2016-02-23T12:46:24Z");
    EXPECT_EQ(out["Format"], "JSON");  // the bridge always asks for JSON
    EXPECT_EQ(out.count("SecurityToken"), 0u);
    // With Format=XML the documented signature must come out of the same signer.
    Params again = out;
    again["Format"] = "XML";
    again.erase("Signature");
    EXPECT_EQ(HmacSha1Base64("testsecret", StringToSign("GET", again)), "OLeaidS1JvxuMvnyHOwuJ+uX5qY=");
    EXPECT_EQ(out["Signature"], HmacSha1Base64("testsecret", StringToSign("GET", out)));
}

TEST(Signer, StsTokenIsSignedAndNoncesDiffer) {
    RequestSigner signer;
    Params a = signer.Sign("POST", "DescribeDisks", "2014-05-26", {{"RegionId", "cn-beijing"}},
                           {"id", "secret", "STS.token/with+chars"});
    Params b = signer.Sign("POST", "DescribeDisks", "2014-05-26", {{"RegionId", "cn-beijing"}}, {"id", "secret", ""});
    EXPECT_EQ(a["SecurityToken"], "STS.token/with+chars");
    EXPECT_EQ(a["Signature"], HmacSha1Base64("secret", StringToSign("POST", a)));
    EXPECT_NE(a["SignatureNonce"], b["SignatureNonce"]);
    EXPECT_EQ(a["SignatureNonce"].size(), 36u);
}

TEST(PercentEncoding, FollowsTheRpcRules) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"AZaz09-_.~", "AZaz09-_.~"},
        {"a b", "a%20b"},
        {"*", "%2A"},
        {"+/=", "%2B%2F%3D"},
        {"2016-02-23T12:46:24Z", "2016-02-23T12%3A46%3A24Z"},
        {"[\"d-1\"]", "%5B%22d-1%22%5D"},
        {"\xE4\xB8\xAD", "%E4%B8%AD"},  // UTF-8 bytes, upper-case hex
        {"!'()", "%21%27%28%29"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PercentEncode(c.in), c.out) << c.in;
        EXPECT_EQ(PercentDecode(c.out), c.in) << c.out;
    }
    EXPECT_EQ(PercentDecode("%zz%4"), "%zz%4");  // malformed escapes are kept
}

}  // namespace
