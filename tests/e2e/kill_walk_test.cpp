// Kill hxagent right after each cloud call of a job in turn, then clean up, and check that
// the cloud holds nothing the killed job created and that the next job succeeds. Also the
// same walk with the next job's own start-of-job sweep instead of `cleanup`, and jobs whose
// every create-wait meets one failed status poll.
#include <set>

#include "AgentFixture.h"

namespace {

using namespace hxe2e;

// The instance walked: app-01 cut to three 1 GiB disks (system + two data disks), so that
// each of the hundreds of jobs moves little data.
constexpr const char* kInstance = "app-01";
constexpr const char* kRestoreName = "app-01-walk";

std::set<std::string> Ids(const json& state, const char* list, const char* key) {
    std::set<std::string> ids;
    for (const auto& x : state[list]) ids.insert(x.value(key, ""));
    return ids;
}

// What exists now and did not before, and disks that moved onto the proxy: what a killed
// job could have leaked. Objects that went away (an --overwrite target) are no leak.
bool MarkedIncomplete(const json& instance) {
    for (const auto& t : instance["Tags"]["Tag"])
        if (t.value("TagKey", "") == "hx:restore-state") return true;
    return false;
}

std::vector<std::string> Leaks(const json& before, const json& after) {
    std::vector<std::string> leaks;
    // A restore killed after it finished its instance (the instance no longer marked
    // incomplete) has done its work: that instance and the disks on it are the user's.
    std::set<std::string> finished;
    for (const auto& i : after["instances"])
        if (i.value("InstanceName", "") == kRestoreName && !MarkedIncomplete(i)) finished.insert(i.value("InstanceId", ""));
    const std::pair<const char*, const char*> kinds[] = {
        {"instances", "InstanceId"}, {"disks", "DiskId"}, {"snapshots", "SnapshotId"}, {"images", "ImageId"}};
    for (const auto& [list, key] : kinds) {
        const auto old = Ids(before, list, key);
        for (const auto& item : after[list]) {
            const std::string id = item.value(key, "");
            if (old.count(id) || finished.count(id) || finished.count(item.value("InstanceId", ""))) continue;
            leaks.push_back(std::string(list) + " " + id);
        }
    }
    const std::string proxy = after.value("proxyInstanceId", "");
    std::set<std::string> onProxy;
    for (const auto& d : before["disks"])
        if (d.value("InstanceId", "") == proxy) onProxy.insert(d.value("DiskId", ""));
    for (const auto& d : after["disks"])
        if (d.value("InstanceId", "") == proxy && !onProxy.count(d.value("DiskId", "")))
            leaks.push_back("disk on the proxy " + d.value("DiskId", ""));
    return leaks;
}

std::string Join(const std::vector<std::string>& v) {
    std::string out;
    for (const auto& s : v) out += (out.empty() ? "" : ", ") + s;
    return out;
}

class KillWalkE2E : public AgentE2E {
protected:
    // Hundreds of jobs: every cloud transition and poll interval shortened further.
    double TimeScale() override { return 0.003; }
    std::string Scenario() override {
        json s = json::parse(hxsim::Emulator::DefaultScenarioJson());
        for (auto& i : s["instances"]) {
            if (i["instanceName"] != kInstance) continue;
            i["disks"].erase(i["disks"].size() - 1);
        }
        return s.dump();
    }

    std::vector<std::string> BackupArgs() { return {"backup", kInstance, "--to", dir_ + "/backups"}; }
    std::vector<std::string> RestoreArgs(const std::string& folder) {
        return {"restore", folder, "--name", kRestoreName, "--overwrite"};
    }

    // The number of cloud calls of one whole run of `args` (which must succeed).
    int CallsOf(const std::vector<std::string>& args) {
        RunResult r = RunKilledAfter(0, args);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        return CallsOfLastRun();
    }

    // For k = 1.. until the job outlives its k-th call: kill after call k, run `recover`
    // (cleanup, or the next job), and count the points where the cloud kept something.
    // `next` is the job that must succeed afterwards (may be empty).
    struct WalkResult {
        int points = 0, leaks = 0;
    };
    WalkResult Walk(const std::vector<std::string>& job, const std::vector<std::string>& recover,
                    const std::vector<std::string>& next) {
        WalkResult w;
        for (int k = 1; k < 400; ++k) {
            const json before = State();
            RunResult killed = RunKilledAfter(k, job);
            if (killed.signal != SIGKILL) {
                EXPECT_EQ(killed.exitCode, 0) << "the unkilled run failed: " << killed.out << killed.err;
                break;  // the job made fewer than k calls: every point was walked
            }
            ++w.points;
            RunResult r = Run(recover);
            EXPECT_EQ(r.exitCode, 0) << "after a kill at call " << k << ": " << r.out << r.err;
            const auto leaks = Leaks(before, State());
            if (!leaks.empty()) {
                ++w.leaks;
                ADD_FAILURE() << "kill after call " << k << " of '" << job[0] << "' leaked: " << Join(leaks);
            }
            if (!next.empty()) {
                RunResult n = Run(next);
                EXPECT_EQ(n.exitCode, 0) << "the job after a kill at call " << k << " failed: " << n.out << n.err;
            }
        }
        std::cout << "[ walk ] " << job[0] << " then " << recover[0] << ": " << w.points << " kill points, "
                  << w.leaks << " leaking" << std::endl;
        return w;
    }

};

// The next job after each cleanup is the other walk's business: there the next backup is
// what recovers.
TEST_F(KillWalkE2E, BackupKilledAtEveryCallThenCleanupLeavesNothing) {
    const int calls = CallsOf(BackupArgs());
    ASSERT_GT(calls, 20);
    WalkResult w = Walk(BackupArgs(), {"cleanup"}, {});
    EXPECT_GE(w.points, calls * 3 / 4);  // status polls vary in number from run to run
    EXPECT_EQ(w.leaks, 0);
    ExpectNothingLeft();
}

TEST_F(KillWalkE2E, BackupKilledAtEveryCallThenTheNextBackupSweepsFirst) {
    const int calls = CallsOf(BackupArgs());
    // The recovering job is itself a backup: its start-of-job sweep removes the leftovers,
    // and it must succeed.
    WalkResult w = Walk(BackupArgs(), BackupArgs(), {});
    EXPECT_GE(w.points, calls * 3 / 4);
    EXPECT_EQ(w.leaks, 0);
}

TEST_F(KillWalkE2E, RestoreKilledAtEveryCallThenCleanupLeavesNothing) {
    hxagent::Manifest m;
    const std::string folder = Backup(kInstance, m);
    ASSERT_FALSE(folder.empty());
    const int calls = CallsOf(RestoreArgs(folder));
    ASSERT_GT(calls, 20);
    // From the second run on, --overwrite replaces the instance of the run before: more calls.
    WalkResult w = Walk(RestoreArgs(folder), {"cleanup"}, RestoreArgs(folder));
    EXPECT_GE(w.points, calls * 3 / 4);
    EXPECT_EQ(w.leaks, 0);
    // Only the last restore's instance remains of all the walk created.
    json after = State();
    EXPECT_EQ(Instances(after, kRestoreName).size(), 1u);
}

// Every wait for a new disk, snapshot or image meets one failed status poll (a code no
// retry mends): the job fails, and its own end-of-job sweep leaves nothing behind.
TEST_F(KillWalkE2E, AFailedPollInEachCreateWaitLeavesNothing) {
    hxagent::Manifest m;
    const std::string folder = Backup(kInstance, m);
    ASSERT_FALSE(folder.empty());
    const json before = State();
    json ignored;
    std::string error;
    const json rules = {{"rules",
                         {{{"action", "DescribeDisks"}, {"failAfter", "CreateDisk"}, {"code", "Forbidden.RAM"}},
                          {{"action", "DescribeImages"}, {"failAfter", "CreateImage"}, {"code", "Forbidden.RAM"}},
                          {{"action", "DescribeSnapshots"}, {"failAfter", "CreateSnapshot"}, {"code", "Forbidden.RAM"}}}}};
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "POST", "/_sim/faults", rules.dump(), ignored, error)) << error;
    for (const auto& args : {BackupArgs(), RestoreArgs(folder)}) {
        RunResult r = Run(args);
        EXPECT_EQ(r.out.find("error 0 (No error)"), std::string::npos) << r.out;
        // A restore that got through despite the failed polls keeps its instance and disks.
        if (r.exitCode == 0 && args[0] == "restore") continue;
        EXPECT_TRUE(Leaks(before, State()).empty()) << args[0] << " left " << Join(Leaks(before, State()));
        RunResult c = Run({"cleanup"});
        EXPECT_EQ(c.exitCode, 0) << c.out << c.err;
        EXPECT_TRUE(Leaks(before, State()).empty()) << "after cleanup: " << Join(Leaks(before, State()));
    }
}

}  // namespace
