// What hxagent's command line answers before any command runs: --version, a bad --job-id,
// and in a build without the emulator the refusal of everything that needs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

#include "BuiltInEmulator.h"
#include "Cli.h"
#include "hx_build_info.h"

namespace hxagent {
namespace {

struct CliRun {
    int status = -1;
    std::string out, err;
};

CliRun RunHxagent(std::vector<std::string> args) {
    args.insert(args.begin(), "hxagent");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    CliRun run;
    run.status = RunCli(static_cast<int>(argv.size()), argv.data());
    std::cout.flush();
    std::cerr.flush();
    run.out = testing::internal::GetCapturedStdout();
    run.err = testing::internal::GetCapturedStderr();
    return run;
}

TEST(Cli, VersionPrintsTheProjectVersionAlone) {
    EXPECT_THAT(HX_VERSION, testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
    for (const char* where : {"", "list"}) {  // also after a command, as help2man asks it
        std::vector<std::string> args = {"--version"};
        if (*where) args.insert(args.begin(), where);
        CliRun run = RunHxagent(args);
        EXPECT_EQ(run.status, 0) << where;
        EXPECT_EQ(run.out, "hxagent " HX_VERSION "\n") << where;
        EXPECT_EQ(run.err, "") << where;
    }
}

TEST(Cli, AJobIdThatIsNotAPositiveWholeNumberIsRefusedInOneShortLine) {
    for (const char* bad : {"0", "-3", "1.5", "12abc", "99999999999999999999"}) {
        CliRun run = RunHxagent({"--job-id", bad, "list"});
        EXPECT_EQ(run.status, 2) << bad;
        EXPECT_THAT(run.err, testing::HasSubstr("must be a whole number from 1 up, not '" + std::string(bad) + "'"))
            << bad;
        EXPECT_LT(run.err.size(), 200u) << run.err;
    }
}

TEST(Cli, WithoutTheEmulatorDemoSimAndEmbeddedAreRefusedInOneLine) {
    if (HasBuiltInEmulator()) GTEST_SKIP() << "this build carries the emulator";
    const std::vector<std::vector<std::string>> refused = {
        {"demo"}, {"sim"}, {"sim", "--port", "0"}, {"--embedded", "list"}, {"backup", "i-1", "--to", "x", "--embedded"}};
    for (const auto& args : refused) {
        CliRun run = RunHxagent(args);
        EXPECT_EQ(run.status, 2) << args[0];
        EXPECT_EQ(run.out, "") << args[0];
        EXPECT_EQ(run.err, std::string("hxagent: error: ") + kNoEmulatorMessage + "\n") << args[0];
    }
    CliRun json = RunHxagent({"--json", "demo"});
    EXPECT_EQ(json.status, 2);
    EXPECT_THAT(json.out, testing::HasSubstr(kNoEmulatorMessage));
    EXPECT_THAT(json.out, testing::HasSubstr("\"ok\": false"));
    EXPECT_THAT(RunHxagent({"--help"}).out, testing::HasSubstr("this build has no ECS emulator"));
}

}  // namespace
}  // namespace hxagent
