// An existing instance of the restore's name, and waiting for an instance's state.
#include <gtest/gtest.h>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;

namespace {

class WaitForInstanceStateTest : public RestoreFixture {};

TEST_F(WaitForInstanceStateTest, PollsEveryTenSecondsAtMostSixTimes) {
    struct Case {
        const char* name;
        std::vector<std::string> script;  // status answers, in order
        int failedRequests;               // status requests that fail first
        bool reached;
        int requests;
        int waitingLines;
    };
    const std::vector<std::string> sixRunning(6, "Running");
    std::vector<std::string> sixRunningThenStopped = sixRunning;
    sixRunningThenStopped.push_back("Stopped");
    const Case cases[] = {
        {"at once, other case", {"stopped"}, 0, true, 1, 0},
        {"third look", {"Pending", "Starting", "STOPPED"}, 0, true, 3, 2},
        {"sixth look", {"Running", "Running", "Running", "Running", "Running", "Stopped"}, 0, true, 6, 5},
        {"seventh look is never taken", sixRunningThenStopped, 0, false, 6, 6},
        {"failed requests count as polls", {"Stopped"}, 2, true, 3, 0},
        {"every request fails", {}, 6, false, 6, 0},
    };
    for (const Case& c : cases) {
        fakefw::Reset();
        cloud().calls.clear();
        cloud().AddInstance("i-new", "web-restored", restoreworld::kRegion, restoreworld::kZone, "Running").statusScript =
            c.script;
        if (c.failedRequests) cloud().FailNext("GetInstanceStatus", "Throttling: slow down", c.failedRequests);

        EXPECT_EQ(c.reached, plugin.WaitForInstanceState("i-new", "Stopped")) << c.name;
        EXPECT_EQ(c.requests, cloud().Count("GetInstanceStatus")) << c.name;
        const auto waiting =
            fakefw::LinesWithText("Waiting for [10] seconds for instance [i-new] to reach state [Stopped].");
        EXPECT_EQ(static_cast<size_t>(c.waitingLines), waiting.size()) << c.name;
        EXPECT_EQ(static_cast<size_t>(std::min(c.failedRequests, 6)),
                  fakefw::LinesWithText("Failed to get instance status for instance [i-new].").size())
            << c.name;
        // Every unsuccessful poll, the last one included, is followed by a 10-second sleep.
        const size_t unsuccessful = static_cast<size_t>(c.reached ? c.requests - 1 : c.requests);
        ASSERT_EQ(unsuccessful, fakefw::Sleeps().size()) << c.name;
        for (const auto& sleep : fakefw::Sleeps()) {
            EXPECT_EQ(10000u, sleep.milliseconds);
            EXPECT_FALSE(sleep.withSourcePosition);
        }
        EXPECT_TRUE(fakefw::ErrorTexts().empty()) << c.name;
    }
}

class HandleOverwriteOptionTest : public RestoreFixture {
protected:
    fakecloud::Instance& Existing(const std::string& id, const std::string& status) {
        return cloud().AddInstance(id, "web-restored", restoreworld::kRegion, "cn-hangzhou-b", status);
    }
    std::vector<std::string> CallsAfterLookup() {
        auto names = cloud().CallNames();
        if (names.empty() || names.front() != "GetVMInfoListForRegion") {
            ADD_FAILURE() << "the lookup is not the first call";
            return names;
        }
        names.erase(names.begin());
        return names;
    }
};

TEST_F(HandleOverwriteOptionTest, NoInstanceOfTheNameGoesOnAfterTheLookupAlone) {
    cloud().AddInstance("i-other-region", "web-restored", "cn-shanghai", "cn-shanghai-b");
    RestoreCtx ctx = restoreworld::Request();
    EXPECT_TRUE(plugin.HandleOverwriteOption(ctx));
    auto lookups = cloud().CallsTo("GetVMInfoListForRegion");
    ASSERT_EQ(1u, lookups.size());
    EXPECT_EQ(restoreworld::kRegion, lookups[0].Arg(0));
    EXPECT_EQ("web-restored", lookups[0].Arg(1));
    EXPECT_TRUE(CallsAfterLookup().empty());
    EXPECT_EQ(1u, cloud().instances.count("i-other-region"));
}

TEST_F(HandleOverwriteOptionTest, AFailedLookupDoesNotStopTheRestore) {
    Existing("i-old", "Running");
    cloud().FailNext("GetVMInfoListForRegion", "Forbidden.RAM: not allowed");
    RestoreCtx ctx = restoreworld::Request();
    ctx.overwriteExisting = true;
    EXPECT_TRUE(plugin.HandleOverwriteOption(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(CallsAfterLookup().empty());
    EXPECT_EQ(1u, cloud().instances.count("i-old"));
}

TEST_F(HandleOverwriteOptionTest, RefusalsLeaveTheExistingInstancesAlone) {
    struct Case {
        const char* name;
        int instances;
        bool overwrite;
        EVMInfoError code;
        std::string line;
    };
    const std::string twoLine =
        "More than one VM with name [web-restored] exists in region [cn-hangzhou]. Can't decide which VM to delete. "
        "Please use a non existing VM name to continue restore.";
    const std::string keepLine =
        "As per task option not overwriting existing VM. Please use a non-existing VM name to continue restore";
    const Case cases[] = {
        {"two, overwrite allowed", 2, true, VMINFO_ERR_DUPLICATE_VM_NAME, twoLine},
        {"two, overwrite refused", 2, false, VMINFO_ERR_DUPLICATE_VM_NAME, twoLine},
        {"one, overwrite refused", 1, false, VMINFO_ERR_VM_ALREADY_EXISTS, keepLine},
    };
    for (const Case& c : cases) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        for (int i = 0; i < c.instances; ++i) Existing("i-old" + std::to_string(i), "Running");
        RestoreCtx ctx = restoreworld::Request();
        ctx.overwriteExisting = c.overwrite;
        EXPECT_FALSE(plugin.HandleOverwriteOption(ctx)) << c.name;
        EXPECT_EQ(c.code, plugin.GetLastVMError()) << c.name;
        auto lines = fakefw::LinesWithText(c.line);
        ASSERT_EQ(1u, lines.size()) << c.name;
        EXPECT_FALSE(lines[0].isError()) << c.name;
        EXPECT_EQ(kHandleOverwriteOption, lines[0].tag);
        EXPECT_TRUE(CallsAfterLookup().empty()) << c.name;
        EXPECT_EQ(static_cast<size_t>(c.instances) + 1, cloud().instances.size()) << c.name;
    }
}

TEST_F(HandleOverwriteOptionTest, ARunningInstanceIsPoweredOffWaitedForAndDeleted) {
    Existing("i-old", "Running");
    RestoreCtx ctx = restoreworld::Request();
    ctx.overwriteExisting = true;
    EXPECT_TRUE(plugin.HandleOverwriteOption(ctx));
    EXPECT_EQ((std::vector<std::string>{"PowerOffInstance", "GetInstanceStatus", "DeleteInstance"}), CallsAfterLookup());
    auto powerOff = cloud().CallsTo("PowerOffInstance");
    EXPECT_EQ((std::vector<std::string>{"i-old", "true", "true", "false"}), powerOff[0].args);
    EXPECT_EQ("i-old", cloud().CallsTo("DeleteInstance")[0].Arg(0));
    EXPECT_EQ(0u, cloud().instances.count("i-old"));
    EXPECT_EQ((std::vector<std::string>{"Overwriting existing VM with name [web-restored] as per task options.",
                                        "Powering off instance [i-old].",
                                        "Successfully deleted the Instance [i-old] in region [cn-hangzhou]."}),
              fakefw::TextsWithTag(kHandleOverwriteOption));
}

TEST_F(HandleOverwriteOptionTest, AStoppedInstanceIsDeletedAtOnce) {
    Existing("i-old", "Stopped");
    RestoreCtx ctx = restoreworld::Request();
    ctx.overwriteExisting = true;
    EXPECT_TRUE(plugin.HandleOverwriteOption(ctx));
    EXPECT_EQ(std::vector<std::string>{"DeleteInstance"}, CallsAfterLookup());
    EXPECT_EQ(0u, cloud().instances.count("i-old"));
    EXPECT_FALSE(fakefw::HasLine("Powering off instance [i-old]."));
}

TEST_F(HandleOverwriteOptionTest, FailuresToRemoveTheInstanceReportCode61WithTheCloudsText) {
    struct Case {
        const char* name;
        std::string failingOp;  // empty: the instance never reports Stopped
        std::string line;       // empty: no line of its own
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {"power-off refused", "PowerOffInstance", "Failed to power off instance [i-old].", {"PowerOffInstance"}},
        {"never stops", "", "Failed waiting instance [i-old] to power off.",
         {"PowerOffInstance", "GetInstanceStatus", "GetInstanceStatus", "GetInstanceStatus", "GetInstanceStatus",
          "GetInstanceStatus", "GetInstanceStatus"}},
        {"deletion refused", "DeleteInstance", "",
         {"PowerOffInstance", "GetInstanceStatus", "DeleteInstance"}},
    };
    for (const Case& c : cases) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        auto& old = Existing("i-old", "Running");
        if (c.failingOp.empty()) {
            old.statusScript = std::vector<std::string>(6, "Stopping");
        } else {
            cloud().FailNext(c.failingOp, "OperationDenied: " + std::string(c.name));
        }
        RestoreCtx ctx = restoreworld::Request();
        ctx.overwriteExisting = true;
        TestPlugin fresh;  // a bridge without an earlier case's last error
        EXPECT_FALSE(fresh.HandleOverwriteOption(ctx)) << c.name;
        EXPECT_EQ(VMINFO_ERR_VM_DELETE, fresh.GetLastVMError()) << c.name;
        EXPECT_EQ(c.failingOp.empty() ? "" : "OperationDenied: " + std::string(c.name), fresh.GetLastVMErrorDetails())
            << c.name;
        EXPECT_EQ(c.calls, CallsAfterLookup()) << c.name;
        EXPECT_EQ(1u, cloud().instances.count("i-old")) << c.name;
        EXPECT_FALSE(fakefw::HasLine("Successfully deleted the Instance [i-old] in region [cn-hangzhou]."));
        if (!c.line.empty()) {
            EXPECT_TRUE(fakefw::HasLine(kHandleOverwriteOption, c.line)) << c.name;
        }
        EXPECT_TRUE(fakefw::ErrorTexts().empty()) << c.name;
    }
}

}  // namespace
