#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Progress.h"

namespace hxagent {
namespace {

TEST(Progress, Units) {
    struct Case {
        std::uint64_t bytes;
        const char* text;
    } cases[] = {{0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KiB"}, {1536, "1.5 KiB"},
                 {5ull << 20, "5.0 MiB"}, {(3ull << 30) / 2, "1.5 GiB"}, {2ull << 40, "2.0 TiB"}};
    for (const auto& c : cases) EXPECT_EQ(FormatBytes(c.bytes), c.text) << c.bytes;
    EXPECT_EQ(FormatDuration(0), "0:00");
    EXPECT_EQ(FormatDuration(7.4), "0:07");
    EXPECT_EQ(FormatDuration(723), "12:03");
    EXPECT_EQ(FormatDuration(3723), "1:02:03");
    EXPECT_EQ(FormatDuration(-5), "0:00");
}

TEST(Progress, LineShowsBarRateAndEta) {
    // Half of 2 GiB in 4 s: 256 MiB/s, 4 s to go.
    std::string line = FormatProgressLine("d-1", 1ull << 30, 2ull << 30, 4.0, 10);
    EXPECT_EQ(line, "d-1 [#####     ]  50%  1.0 GiB/2.0 GiB  256.0 MiB/s  ETA 0:04");
    // Too early for a rate: no rate, no ETA.
    EXPECT_EQ(FormatProgressLine("x", 10, 100, 0.01, 4), "x [    ]  10%  10 B/100 B");
    // Done, and an empty copy, are both 100%.
    EXPECT_NE(FormatProgressLine("x", 100, 100, 1, 4).find("[####] 100%"), std::string::npos);
    EXPECT_NE(FormatProgressLine("x", 0, 0, 1, 4).find("100%"), std::string::npos);
    // More reported than the total never draws past the bar.
    EXPECT_NE(FormatProgressLine("x", 150, 100, 1, 4).find("[####] 100%"), std::string::npos);
}

TEST(Progress, JsonModeWritesOneObjectPerEvent) {
    testing::internal::CaptureStderr();
    Progress p(OutputStyle::Json);
    p.Step("step \"one\"");
    p.Begin("copy", 100);
    p.Update(50);  // within a second of Begin: not reported
    p.End(false);
    p.Note("note");
    std::istringstream lines(testing::internal::GetCapturedStderr());
    std::vector<nlohmann::json> events;
    for (std::string line; std::getline(lines, line);) events.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0]["event"], "step");
    EXPECT_EQ(events[0]["message"], "step \"one\"");
    EXPECT_EQ(events[1]["event"], "begin");
    EXPECT_EQ(events[1]["total"], 100);
    EXPECT_EQ(events[2]["event"], "end");
    EXPECT_EQ(events[2]["done"], 50);
    EXPECT_EQ(events[2]["ok"], false);
    EXPECT_EQ(events[3]["event"], "note");
    for (const auto& e : events) {
        const std::string time = e.value("time", "");
        EXPECT_EQ(time.size(), 24u) << time;  // 2026-11-22T18:40:05.123Z
        EXPECT_EQ(time.back(), 'Z') << time;
    }
    testing::internal::CaptureStderr();
    Progress plain(OutputStyle::Plain);
    plain.Step("step one");
    plain.Begin("copy", 100);
    plain.End(true);
    std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("step one\n"), std::string::npos);
    EXPECT_EQ(text.find('\r'), std::string::npos);  // no redrawing in plain mode
}

}  // namespace
}  // namespace hxagent
