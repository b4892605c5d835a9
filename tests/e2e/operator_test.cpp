// What an operator sees before and around a job: an instance's disks (`describe`, `list
// --json`), the refusal of an --exclude-disk that names nothing, the NDJSON progress of a
// --json job, and a cleanup dry run that names every object it would remove.
#include <map>
#include <set>
#include <sstream>

#include "AgentFixture.h"

namespace {

using namespace hxe2e;

constexpr const char* kDb = "i-hxsim0vm000000000002";
constexpr const char* kDbSystem = "d-hxsim0disk0000000002";
constexpr const char* kDbData = "d-hxsim0disk0000000003";

class OperatorE2E : public AgentE2E {};

TEST_F(OperatorE2E, DescribeAndListShowTheDisksOfAnInstance) {
    RunResult byName = Run({"describe", "db-01"});
    ASSERT_EQ(byName.exitCode, 0) << byName.out << byName.err;
    EXPECT_EQ(byName.doc["cloud"]["kind"], "emulator");
    const json& inst = byName.doc["instance"];
    EXPECT_EQ(inst["id"], kDb);
    ASSERT_EQ(inst["disks"].size(), 2u) << byName.out;
    const json& system = inst["disks"][0]["id"] == kDbSystem ? inst["disks"][0] : inst["disks"][1];
    const json& data = inst["disks"][0]["id"] == kDbData ? inst["disks"][0] : inst["disks"][1];
    EXPECT_TRUE(system["isOSDisk"].get<bool>());
    EXPECT_FALSE(data["isOSDisk"].get<bool>());
    EXPECT_EQ(data["diskSize"], 2);
    EXPECT_EQ(data["category"], "cloud_auto");
    EXPECT_EQ(data["name"], "db-data");
    EXPECT_EQ(data["zoneId"], "cn-hangzhou-h");
    EXPECT_EQ(system["device"], "/dev/xvda");
    EXPECT_EQ(data["device"].get<std::string>().rfind("/dev/xvd", 0), 0u) << data.dump();

    // The same as a table, looked up by id.
    Child text({"--state-dir", dir_ + "/state", "describe", kDb}, env_, dir_);
    RunResult table = text.Wait();
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_NE(table.out.find("Instance " + std::string(kDb) + " (db-01)"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("DEVICE"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find(kDbData), std::string::npos) << table.out;

    RunResult list = Run({"list", "--name", "db-*"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    ASSERT_EQ(list.doc["instances"].size(), 1u) << list.out;
    EXPECT_EQ(list.doc["instances"][0]["disks"].size(), 2u) << list.out;

    RunResult missing = Run({"describe", "no-such-instance"});
    EXPECT_EQ(missing.exitCode, 2) << missing.out;
}

TEST_F(OperatorE2E, AnExcludeDiskThatMatchesNothingIsRefusedBeforeAnyChange) {
    RunResult r = Run({"backup", "db-01", "--to", dir_ + "/backups", "--exclude-disk", "d-typo*"});
    EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
    const std::string message = r.doc["error"].value("message", "");
    EXPECT_NE(message.find("--exclude-disk 'd-typo*' matches no disk of " + std::string(kDb)), std::string::npos)
        << message;
    EXPECT_NE(message.find(kDbData + std::string(" (db-data)")), std::string::npos) << message;
    const json calls = Calls();
    for (const auto& [action, counts] : calls["actions"].items())
        EXPECT_EQ(action.rfind("Describe", 0), 0u) << action << " was called by a refused backup";
    EXPECT_FALSE(fs::exists(dir_ + "/backups/" + kDb)) << "a refused backup leaves no folder";

    // A pattern that does match (by name, any case) is taken.
    RunResult ok = Run({"backup", "db-01", "--to", dir_ + "/backups", "--exclude-disk", "DB-DATA"});
    ASSERT_EQ(ok.exitCode, 0) << ok.out << ok.err;
    ASSERT_EQ(ok.doc["manifest"]["disks"].size(), 1u) << ok.out;
    EXPECT_EQ(ok.doc["manifest"]["disks"][0]["id"], kDbSystem);
    ExpectNothingLeft();
}

TEST_F(OperatorE2E, JsonModeReportsProgressAsOneJsonObjectPerLineOnStderr) {
    RunResult r = Run({"backup", "db-01", "--to", dir_ + "/backups"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(r.doc.value("ok", false)) << "stdout keeps the single result document";
    std::istringstream lines(r.err);
    std::string line;
    std::map<std::string, int> events;
    while (std::getline(lines, line)) {
        const json event = json::parse(line, nullptr, false);
        ASSERT_FALSE(event.is_discarded()) << "not JSON: " << line;
        ASSERT_TRUE(event.contains("time")) << line;
        ++events[event.value("event", "")];
        if (event["event"] == "end") {
            EXPECT_TRUE(event["ok"].get<bool>()) << line;
            EXPECT_EQ(event["done"], event["total"]) << line;
        }
    }
    EXPECT_GE(events["step"], 2) << r.err;
    EXPECT_EQ(events["begin"], 2) << r.err;  // one copy per disk
    EXPECT_EQ(events["end"], 2) << r.err;
}

TEST_F(OperatorE2E, CleanupDryRunNamesEveryObjectItWouldRemove) {
    // Killed in the middle of making the disk copies: snapshots and disks are left.
    RunResult killed = RunKilledAfter(25, {"backup", "db-01", "--to", dir_ + "/backups"});
    ASSERT_EQ(killed.signal, SIGKILL) << killed.out << killed.err;
    const json before = State();

    RunResult dry = Run({"cleanup", "--dry-run"});
    ASSERT_EQ(dry.exitCode, 0) << dry.out << dry.err;
    std::set<std::string> named;
    for (const char* list : {"tagged", "registered"})
        for (const auto& item : dry.doc[list]) {
            EXPECT_FALSE(item.value("kind", "").empty()) << item.dump();
            named.insert(item.value("id", ""));
        }
    // The leftovers' ids (FindLeftovers may add a remark after the id).
    auto ids = [](const hxagent::SimLeftovers& l) {
        std::set<std::string> out;
        for (const auto* list : {&l.snapshots, &l.disks, &l.images})
            for (const auto& entry : *list) out.insert(entry.substr(0, entry.find(' ')));
        return out;
    };
    const std::set<std::string> left = ids(hxagent::FindLeftovers(before_, before));
    ASSERT_FALSE(left.empty()) << "the killed backup left nothing to name";
    for (const auto& id : left) EXPECT_TRUE(named.count(id)) << id << " is not named by the dry run";
    EXPECT_EQ(ids(hxagent::FindLeftovers(before_, State())), left) << "a dry run removes nothing";

    RunResult clean = Run({"cleanup"});
    EXPECT_EQ(clean.exitCode, 0) << clean.out << clean.err;
    ExpectNothingLeft();
}

}  // namespace
