// What hxagent refuses before it changes anything, and what `cleanup` never deletes.
#include <set>

#include "AgentFixture.h"

#include "AliCloudSDKCppBridge.h"

namespace {

using namespace hxe2e;

class SafetyE2E : public AgentE2E {
protected:
    void SetUp() override {
        AgentE2E::SetUp();
        hxagent::Manifest m;
        folder_ = Backup("db-01", m);
        ASSERT_FALSE(folder_.empty());
        ClearCalls();
    }
    void ClearCalls() {
        json ignored;
        std::string error;
        ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "DELETE", "/_sim/calls", "", ignored, error)) << error;
    }
    // The actions called since ClearCalls that change something (anything but Describe*).
    std::vector<std::string> ChangingCalls() {
        std::vector<std::string> out;
        const json calls = Calls();
        for (const auto& [action, counts] : calls["actions"].items())
            if (action.rfind("Describe", 0) != 0) out.push_back(action);
        return out;
    }
    // A copy of the backup folder with `change` applied to its manifest and files.
    std::string AlteredBackup(const std::function<void(hxagent::Manifest&, const std::string&)>& change) {
        const std::string copy = dir_ + "/altered";
        fs::remove_all(copy);
        fs::copy(folder_, copy, fs::copy_options::recursive);
        hxagent::Manifest m;
        std::string error;
        EXPECT_TRUE(hxagent::ReadManifest(copy, m, error)) << error;
        change(m, copy);
        EXPECT_TRUE(hxagent::WriteManifest(copy, m, error)) << error;
        return copy;
    }
    std::string folder_;
};

// Each bad input is refused with exit 2 and one line naming it; the emulator saw no call
// that creates, stops or deletes anything, so no disk was made and nothing was written.
TEST_F(SafetyE2E, RestoreRefusesBadInputBeforeAnyChange) {
    struct Case {
        const char* what;
        std::vector<std::string> extra;  // after "restore FOLDER"
        const char* named;               // the refusal line must contain this
        std::function<void(hxagent::Manifest&, const std::string&)> alter;
    };
    const std::vector<Case> cases = {
        {"empty name with --overwrite", {"--name", "", "--overwrite"}, "--name ''", {}},
        {"name beginning with a digit", {"--name", "1db"}, "'1db'", {}},
        {"name that is a URL", {"--name", "http://db"}, "http://", {}},
        {"name with a blank", {"--name", "db copy"}, "'db copy'", {}},
        {"unknown region", {"--name", "db-copy", "--region", "xx-nowhere-1"}, "'xx-nowhere-1'", {}},
        {"zone of another region", {"--name", "db-copy", "--zone", "cn-shanghai-l"}, "'cn-shanghai-l'", {}},
        {"zone that is not the proxy's", {"--name", "db-copy", "--zone", "cn-hangzhou-i"}, "'cn-hangzhou-i'", {}},
        {"instance type not offered", {"--name", "db-copy", "--instance-type", "ecs.nope.large"}, "'ecs.nope.large'", {}},
        {"existing name without --overwrite", {"--name", "web-01"}, "'web-01'", {}},
        {"--overwrite of the proxy itself", {"--name", "backup-proxy", "--overwrite"}, "is this proxy", {}},
        {"two system disks", {"--name", "db-copy"}, "2 system disks",
         [](hxagent::Manifest& m, const std::string&) { m.disks.back().isOSDisk = true; }},
        {"configuration document that does not parse", {"--name", "db-copy"}, "configuration document",
         [](hxagent::Manifest& m, const std::string& dir) { std::ofstream(dir + "/" + m.configFile) << "{not json"; }},
    };
    const json before = State();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string folder = c.alter ? AlteredBackup(c.alter) : folder_;
        std::vector<std::string> args{"restore", folder};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        ClearCalls();
        RunResult r = Run(args);
        EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
        const std::string message = r.doc.is_object() ? r.doc["error"].value("message", "") : r.out;
        EXPECT_NE(message.find(c.named), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        EXPECT_TRUE(ChangingCalls().empty()) << "changing calls: " << Calls().dump();
        EXPECT_EQ(State()["instances"].size(), before["instances"].size());
        EXPECT_EQ(State()["disks"].size(), before["disks"].size());
    }
}

TEST_F(SafetyE2E, RestoreDryRunPrintsThePlanAndChangesNothing) {
    RunResult r = Run({"restore", folder_, "--name", "web-01", "--overwrite", "--dry-run"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(r.doc.value("dryRun", false));
    EXPECT_EQ(r.doc["plan"].value("replaces", ""), Instances(before_, "web-01")[0]["InstanceId"]);
    EXPECT_EQ(r.doc["plan"].value("instanceType", ""), "ecs.g7.xlarge");
    EXPECT_GE(r.doc["plan"]["steps"].size(), 4u);
    EXPECT_TRUE(ChangingCalls().empty()) << Calls().dump();
    EXPECT_EQ(Instances(State(), "web-01").size(), 1u);
}

// A row added to the cleaner store by hand, naming a snapshot this proxy did not make:
// cleanup drops the row, says so, and the snapshot stays.
TEST_F(SafetyE2E, CleanupLeavesAloneWhatTheRegistryNamesButThisProxyDidNotMake) {
    // The user's own snapshot of web-01's system disk, made by a bridge that is not on this
    // proxy (no metadata service), so it carries no tag of this proxy.
    ::setenv("ALIBABA_CLOUD_ECS_ENDPOINT", sim_->Endpoint().c_str(), 1);
    ::setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", "http://127.0.0.1:1", 1);
    ::setenv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", "0.01", 1);
    auto keys = sim_->DemoCredentials();
    AliCloudSDKCppBridge::CAliCloudSDKCppBridge bridge;
    ASSERT_TRUE(bridge.Connect(keys.accessKeyId, keys.accessKeySecret)) << bridge.GetLastError();
    VMInfoStructs::SChildDisk snapshot;
    ASSERT_TRUE(bridge.CreateSnapshot("d-hxsim0disk0000000001", snapshot, "users-own", "")) << bridge.GetLastError();

    // The forged row: a backup job of a process that is gone, naming that snapshot.
    const pid_t writer = ::fork();
    if (writer == 0) {
        hxruntime::SetCleanerDatabasePath(dir_ + "/state/cleaner.db");
        VMCleaner store;
        bool ok = store.Init(sim_->ProxyInstanceId(), 0) &&
                  store.RegisterEntity(VM_CLEANER_MODE_BACKUP, VM_CLEANER_ENTITY_VM, "i-hxsim0vm000000000001", "");
        std::string handle, path;
        ok = ok &&
             store.LookupEntity(VM_CLEANER_MODE_BACKUP, VM_CLEANER_ENTITY_VM, "i-hxsim0vm000000000001", handle) &&
             store.RegisterEntity(VM_CLEANER_MODE_BACKUP, VM_CLEANER_ENTITY_SNAPSHOT, snapshot.snapshotId, handle);
        store.DeInit();
        ::_exit(ok ? 0 : 1);
    }
    int status = 0;
    ::waitpid(writer, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    RunResult c = Run({"cleanup"});
    EXPECT_EQ(c.exitCode, 0) << c.out << c.err;
    ASSERT_EQ(c.doc["leftAlone"].size(), 1u) << c.out;
    EXPECT_EQ(c.doc["leftAlone"][0].value("id", ""), snapshot.snapshotId);
    bool exists = false;
    const json after = State();
    for (const auto& s : after["snapshots"]) exists |= s.value("SnapshotId", "") == snapshot.snapshotId;
    EXPECT_TRUE(exists) << "cleanup deleted a snapshot this proxy never made";
    EXPECT_TRUE(ChangingCalls() == std::vector<std::string>{"CreateSnapshot"}) << Calls().dump();
}

// A connection that fails names its cause: the cloud's code and RequestId, or the
// transport's error; never "error 0 (No error)".
TEST_F(SafetyE2E, ConnectionFailuresNameTheirCause) {
    struct Case {
        const char* what;
        std::string variable, value;
        std::vector<std::string> named;
    };
    const std::vector<Case> cases = {
        {"a wrong secret", "ALIBABA_CLOUD_ACCESS_KEY_SECRET", "WrongSecret0000000000", {"SignatureDoesNotMatch", "RequestId"}},
        {"a refused port", "ALIBABA_CLOUD_ECS_ENDPOINT", "http://127.0.0.1:1", {"127.0.0.1"}},
    };
    const auto saved = env_;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        env_ = saved;
        for (auto& e : env_)
            if (e.rfind(c.variable + "=", 0) == 0) e = c.variable + "=" + c.value;
        RunResult r = Run({"list"});
        EXPECT_NE(r.exitCode, 0);
        const std::string message = r.doc.is_object() ? r.doc["error"].value("message", "") : r.out + r.err;
        for (const auto& n : c.named) EXPECT_NE(message.find(n), std::string::npos) << message;
        EXPECT_EQ(message.find("error 0"), std::string::npos) << message;
        if (c.variable == "ALIBABA_CLOUD_ACCESS_KEY_SECRET") {
            EXPECT_EQ(message.find(c.value), std::string::npos) << "the secret is in the message";
        }
    }
    env_ = saved;
}

// ECS throttles per action per minute, and a throttled caller waits into the next minute:
// a backup under such limits on every action still succeeds and leaves nothing.
TEST_F(SafetyE2E, ABackupUnderPerMinuteThrottlingOnEveryActionSucceeds) {
    json ignored;
    std::string error;
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "POST", "/_sim/throttle", json{{"perMinute", 4}}.dump(), ignored,
                                    error))
        << error;
    hxagent::Manifest m;
    EXPECT_FALSE(Backup("db-01", m).empty());
    const json calls = Calls();
    int throttled = 0;
    for (const auto& [action, counts] : calls["actions"].items()) throttled += counts.value("errors", 0);
    EXPECT_GT(throttled, 0) << "the throttle never bit: " << calls.dump();
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "POST", "/_sim/throttle", json{{"perMinute", 0}}.dump(), ignored,
                                    error));
    ExpectNothingLeft();
}

// The state folder is private whatever the umask, and two jobs asking for one id (as two
// jobs of one second do) get two ids and two log files.
TEST_F(SafetyE2E, StateIsPrivateAndJobIdsAreUnique) {
    const mode_t old = ::umask(0);
    auto a = Start({"--job-id", "777", "list"});
    auto b = Start({"--job-id", "777", "list"});
    ::umask(old);
    EXPECT_EQ(a->Wait().exitCode, 0);
    EXPECT_EQ(b->Wait().exitCode, 0);
    const auto closed = fs::perms::group_all | fs::perms::others_all;
    EXPECT_EQ(fs::status(dir_ + "/state").permissions() & closed, fs::perms::none);
    std::set<std::string> logs;
    for (auto& e : fs::recursive_directory_iterator(dir_ + "/state")) {
        EXPECT_EQ(e.status().permissions() & closed, fs::perms::none) << e.path();
        const std::string name = e.path().filename().string();
        if (name.find("-job-77") != std::string::npos) logs.insert(name);
    }
    EXPECT_EQ(logs, (std::set<std::string>{"hxagent-job-777.log", "hxagent-job-778.log"}));
}

}  // namespace
