// The per-job log: line format, level filter, file naming, rotation and concurrent writers.
#include <unistd.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <thread>

#include "EvDebug.h"
#include "RuntimeTestSupport.h"

namespace {

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> out;
    std::istringstream in(ReadText(path));
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

bool Digits(const std::string& s) { return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos; }

// Whether `s` fits `shape`: 'd' a digit, 's' a sign, anything else itself.
bool Shaped(const std::string& s, const std::string& shape) {
    if (s.size() != shape.size()) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool ok = shape[i] == 'd' ? (s[i] >= '0' && s[i] <= '9') : shape[i] == 's' ? (s[i] == '+' || s[i] == '-') : s[i] == shape[i];
        if (!ok) return false;
    }
    return true;
}

struct Parsed {
    bool ok = false;
    std::string pid, tid, job, level, tag, text;
};

// <timestamp> <pid> <tid> <job> <level> [<tag>] <text>; the tag ends at the first "] ".
Parsed Parse(const std::string& line) {
    Parsed p;
    std::istringstream in(line);
    std::string stamp;
    in >> stamp >> p.pid >> p.tid >> p.job >> p.level;
    size_t open = line.find(" [");
    size_t close = open == std::string::npos ? open : line.find("] ", open);
    if (close == std::string::npos) return p;
    p.tag = line.substr(open + 2, close - open - 2);
    p.text = line.substr(close + 2);
    p.ok = Shaped(stamp, "dddd-dd-ddTdd:dd:dd.ddds" "dddd") && Digits(p.pid) && Digits(p.tid) &&
           (p.job == "-" || Digits(p.job)) && (p.level == "ERROR" || Shaped(p.level, "DEBUGd")) &&
           line.compare(0, open, stamp + " " + p.pid + " " + p.tid + " " + p.job + " " + p.level) == 0;
    return p;
}

class LogTest : public RuntimeTest {
protected:
    EvDebug log;
};

TEST_F(LogTest, LinesCarryTheDocumentedFieldsAndLevelsAreFiltered) {
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs"));
    ASSERT_TRUE(hxruntime::SetJobId(42));
    EXPECT_EQ(log.getJobId(), 42);
    const std::string file = hxruntime::GetLogFilePath();
    EXPECT_EQ(file, dir / "logs/hxtest-job-42.log");

    log.Debug("int F::A()", "Value [%d] of [%s].", 7, "x");
    log.DebugLvl("int F::B()", 2, "level two");
    log.DebugLvl("int F::C()", 3, "level three is above the default verbosity");
    log.DebugLvl("int F::P()", 5, "poll line");
    log.Error("int F::D()", "failed [%s]", "why");
    log.Debug("int F::E()", "two\nlines\n");
    hxruntime::SetLogVerbosity(0);
    log.Debug("int F::G()", "debug is level 1, off at verbosity 0");
    log.Error("int F::H()", "errors pass at any verbosity");
    hxruntime::SetLogVerbosity(5);
    log.DebugLvl("int F::P()", 5, "poll line when asked for");

    auto lines = Lines(file);
    ASSERT_EQ(lines.size(), 6u) << ReadText(file);
    struct Want {
        const char* level;
        const char* tag;
        const char* text;
    };
    const Want want[] = {
        {"DEBUG1", "int F::A()", "Value [7] of [x]."},
        {"DEBUG2", "int F::B()", "level two"},
        {"ERROR", "int F::D()", "failed [why]"},
        {"DEBUG1", "int F::E()", "two\\nlines"},
        {"ERROR", "int F::H()", "errors pass at any verbosity"},
        {"DEBUG5", "int F::P()", "poll line when asked for"},
    };
    for (size_t i = 0; i < lines.size(); ++i) {
        Parsed p = Parse(lines[i]);
        EXPECT_TRUE(p.ok) << lines[i];
        EXPECT_EQ(p.pid, std::to_string(::getpid())) << lines[i];
        EXPECT_EQ(p.job, "42") << lines[i];
        EXPECT_EQ(p.level, want[i].level) << lines[i];
        EXPECT_EQ(p.tag, want[i].tag) << lines[i];
        EXPECT_EQ(p.text, want[i].text) << lines[i];
    }
    EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(LogTest, EachJobGetsItsOwnFile) {
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs"));
    log.Debug("t", "before any job");
    ASSERT_TRUE(hxruntime::SetJobId(7));
    log.Debug("t", "job seven");
    hxruntime::ClearJobId();
    EXPECT_EQ(log.getJobId(), -123456);
    EXPECT_FALSE(hxruntime::SetJobId(-5));

    auto plain = Lines(dir / "logs/hxtest.log");
    auto job = Lines(dir / "logs/hxtest-job-7.log");
    ASSERT_EQ(plain.size(), 1u);
    ASSERT_EQ(job.size(), 1u);
    EXPECT_EQ(Parse(plain[0]).job, "-");
    EXPECT_EQ(Parse(job[0]).text, "job seven");
}

TEST_F(LogTest, ErrorsReachStderrWhenThereIsNoFile) {
    auto captured = [&](auto write) {
        ::testing::internal::CaptureStderr();
        write();
        return ::testing::internal::GetCapturedStderr();
    };
    // No folder: errors only.
    EXPECT_EQ(captured([&] { log.Debug("t", "quiet"); }), "");
    EXPECT_EQ(Parse(captured([&] { log.Error("t", "loud"); })).text, "loud\n");

    // A folder that cannot take the file: errors still get out.
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs"));
    std::filesystem::remove_all(dir / "logs");
    std::ofstream(dir / "logs") << "not a folder";
    EXPECT_NE(captured([&] { log.Error("t", "still loud"); }).find("] still loud\n"), std::string::npos);

    // Echo copies every written line.
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs2"));
    hxruntime::SetLogEcho(true);
    EXPECT_NE(captured([&] { log.Debug("t", "echoed"); }).find("DEBUG1 [t] echoed\n"), std::string::npos);
    EXPECT_EQ(Lines(hxruntime::GetLogFilePath()).size(), 1u);
}

TEST_F(LogTest, RotationBoundsTheFilesAndKeepsTheNewestLines) {
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs"));
    ASSERT_TRUE(hxruntime::SetLogRotation(4096, 2));
    EXPECT_FALSE(hxruntime::SetLogRotation(100, 2)) << "too small a bound is refused";
    const std::string file = hxruntime::GetLogFilePath();
    const int kLines = 300;
    for (int i = 0; i < kLines; ++i) log.Debug("t", "line %04d padding padding padding padding", i);

    namespace fs = std::filesystem;
    EXPECT_TRUE(fs::exists(file + ".1"));
    EXPECT_TRUE(fs::exists(file + ".2"));
    EXPECT_FALSE(fs::exists(file + ".3"));
    // Oldest to newest, the kept lines are the last ones written, without a gap.
    std::vector<std::string> kept;
    for (const auto& f : {file + ".2", file + ".1", file}) {
        EXPECT_LE(fs::file_size(f), 4096u) << f;
        for (auto& l : Lines(f)) kept.push_back(Parse(l).text.substr(5, 4));
    }
    ASSERT_FALSE(kept.empty());
    for (size_t i = 0; i < kept.size(); ++i) {
        char expect[8];
        std::snprintf(expect, sizeof expect, "%04d", kLines - static_cast<int>(kept.size()) + static_cast<int>(i));
        EXPECT_EQ(kept[i], expect);
    }
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveLines) {
    ASSERT_TRUE(hxruntime::SetLogDirectory(dir / "logs"));
    constexpr int kThreads = 4, kEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([this, t] {
            for (int i = 0; i < kEach; ++i) log.Debug("worker", "thread %d line %d %s", t, i, std::string(100, 'x'));
        });
    for (auto& t : threads) t.join();
    auto lines = Lines(hxruntime::GetLogFilePath());
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kEach));
    std::set<std::string> tids;
    for (const auto& l : lines) {
        Parsed p = Parse(l);
        ASSERT_TRUE(p.ok) << l;
        EXPECT_TRUE(p.text.starts_with("thread ") && p.text.ends_with(" " + std::string(100, 'x'))) << l;
        tids.insert(p.tid);
    }
    EXPECT_EQ(tids.size(), static_cast<size_t>(kThreads)) << "each line names its writer thread";
}

}  // namespace
