// The shared helpers: the exact text of each time form, the shape of random ids, and
// Base64 against RFC 4648's test vectors.
#include <gtest/gtest.h>

#include <cctype>
#include <set>

#include "hxutil/Codec.h"
#include "hxutil/IsoTime.h"
#include "hxutil/Random.h"

namespace hxutil {
namespace {

using std::chrono::system_clock;

system_clock::time_point At(long long unixMillis) {
    return system_clock::time_point(std::chrono::milliseconds(unixMillis));
}

TEST(IsoTime, EveryFormOfOneInstant) {
    const auto t = At(1795804805123);  // 2026-11-27T18:40:05.123Z
    EXPECT_EQ(IsoUtc(t), "2026-11-27T18:40:05Z");
    EXPECT_EQ(IsoUtc(t, IsoPrecision::Minutes), "2026-11-27T18:40Z");
    EXPECT_EQ(IsoUtc(t, IsoPrecision::Millis), "2026-11-27T18:40:05.123Z");
    EXPECT_EQ(CompactUtc(t), "20261127T184005Z");
    // Milliseconds stay in 000..999 before 1970 too.
    EXPECT_EQ(IsoUtc(At(-1), IsoPrecision::Millis), "1969-12-31T23:59:59.999Z");
}

TEST(IsoTime, LocalFormCarriesTheOffset) {
    ::setenv("TZ", "Asia/Shanghai", 1);
    ::tzset();
    EXPECT_EQ(IsoLocalMillis(At(1795804805007)), "2026-11-28T02:40:05.007+0800");
    ::unsetenv("TZ");
    ::tzset();
}

TEST(Random, UuidsAreVersion4AndDistinct) {
    // xxxxxxxx-xxxx-4xxx-[89ab]xxx-xxxxxxxxxxxx, lowercase hex.
    auto wellFormed = [](const std::string& id) {
        if (id.size() != 36 || id[14] != '4' || std::string("89ab").find(id[19]) == std::string::npos) return false;
        for (size_t i = 0; i < id.size(); ++i) {
            const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            if (dash ? id[i] != '-' : !(std::isdigit(static_cast<unsigned char>(id[i])) || (id[i] >= 'a' && id[i] <= 'f')))
                return false;
        }
        return true;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::string id = RandomUuid();
        EXPECT_TRUE(wellFormed(id)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 200u);
    const std::string hex = RandomHex(20);
    EXPECT_EQ(hex.size(), 40u);
    EXPECT_EQ(hex.find_first_not_of("0123456789abcdef"), std::string::npos) << hex;
    EXPECT_EQ(RandomHex(0), "");
}

TEST(Codec, Base64MatchesTheRfcVectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, encoded] : vectors) EXPECT_EQ(Base64Encode(plain), encoded) << plain;
    EXPECT_EQ(Base64Encode(std::string("\xff\x00\xfe", 3)), "/wD+");
}

TEST(Codec, ConstantTimeEqualsComparesWholeContents) {
    EXPECT_TRUE(ConstantTimeEquals("signature", "signature"));
    EXPECT_FALSE(ConstantTimeEquals("signature", "signaturE"));
    EXPECT_FALSE(ConstantTimeEquals("sig", "signature"));
    EXPECT_TRUE(ConstantTimeEquals("", ""));
    EXPECT_FALSE(ConstantTimeEquals(std::string("a\0b", 3), std::string("a\0c", 3)));
}

}  // namespace
}  // namespace hxutil
