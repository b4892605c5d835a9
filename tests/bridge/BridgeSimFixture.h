// The bridge library against an in-process emulator: one emulator per test suite, reset and
// connected before each test, with helpers to read its state and inject faults.
#pragma once

#include <gtest/gtest.h>

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "AliCloudSDKCppBridge.h"
#include "hxsim/Emulator.h"

namespace bridgesim {

using AliCloudSDKCppBridge::CAliCloudSDKCppBridge;
using nlohmann::json;
using namespace VMInfoStructs;

inline constexpr UINT64 kInstances = 0x20000000ULL;
inline constexpr UINT64 kZones = 0x0020000000000000ULL;
inline constexpr const char* kRegion = "cn-hangzhou";
inline constexpr const char* kProxyZone = "cn-hangzhou-h";
inline constexpr const char* kProxy = "i-hxsim0proxy000000001";
inline constexpr const char* kDb = "i-hxsim0vm000000000002";       // ecs.g7.xlarge, system + data disk
inline constexpr const char* kApp = "i-hxsim0vm000000000003";      // ecs.t6 (5 disks at most), 4 disks
inline constexpr const char* kDbSystemDisk = "d-hxsim0disk0000000002";
inline constexpr const char* kDbDataDisk = "d-hxsim0disk0000000003";
inline constexpr const char* kDbAddress = "172.16.0.13";                       // db-01's, in vsw-hxsimcn-hangzhou-h
inline constexpr const char* kDefaultGroup = "sg-hxsimcn-hangzhou";            // every demo instance's group
inline constexpr const char* kWebGroup = "sg-hxsim0web00000000001";            // same VPC, joinable
inline constexpr const char* kIsolatedGroup = "sg-hxsim0iso00000000001";       // another VPC

class BridgeOnEmulator : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        hxsim::Options o;
        o.timeScale = 0.01;  // a 20 s snapshot takes 0.2 s
        // Each line starts with the action; the emulator writes it before it answers.
        o.requestLog = [](const std::string& line) {
            std::lock_guard lock(logMutex_);
            log_.push_back(line.substr(0, line.find(' ')));
        };
        emulator_ = new hxsim::Emulator(o);
        auto started = emulator_->Start();
        ASSERT_TRUE(started.ok()) << started.error;
        setenv("ALIBABA_CLOUD_ECS_ENDPOINT", emulator_->Endpoint().c_str(), 1);
        setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", emulator_->MetadataEndpoint().c_str(), 1);
        setenv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", "0.01", 1);
        unsetenv("ALIBABA_CLOUD_REGION_ID");
        unsetenv("ALIBABA_CLOUD_SECURITY_TOKEN");
    }
    static void TearDownTestSuite() {
        delete emulator_;
        emulator_ = nullptr;
    }

    void SetUp() override {
        ASSERT_NE(emulator_, nullptr);
        ResetWorld();
    }

    // A fresh world and a fresh connection: the emulator hands out the same ids again after a
    // reset, which the answers a bridge keeps (and shares in this process) must not meet.
    void ResetWorld() {
        ASSERT_EQ(emulator_->Reset(), "");
        const auto creds = emulator_->DemoCredentials();
        ASSERT_TRUE(bridge_.Disconnect());
        ASSERT_TRUE(bridge_.Connect(creds.accessKeyId, creds.accessKeySecret)) << bridge_.GetLastError();
    }

    httplib::Client Control() { return httplib::Client("127.0.0.1", emulator_->Port()); }

    json State() {
        auto res = Control().Get("/_sim/state");
        EXPECT_TRUE(res && res->status == 200);
        return res ? json::parse(res->body) : json();
    }
    json Find(const char* list, const char* idKey, const std::string& id) {
        const json state = State();
        for (const json& o : state[list]) {
            if (o.value(idKey, "") == id) return o;
        }
        return json();
    }
    int Calls(const std::string& action) { return CallCount(action, "calls"); }
    // Calls of `action` the emulator refused (injected faults included).
    int Refusals(const std::string& action) { return CallCount(action, "errors"); }
    int CallCount(const std::string& action, const char* field) {
        auto res = Control().Get("/_sim/calls");
        if (!res) return -1;
        json j = json::parse(res->body);
        return j["actions"].contains(action) ? j["actions"][action].value(field, 0) : 0;
    }
    // The actions the emulator answered since the last ClearRequests, in order.
    static std::vector<std::string> Requests() {
        std::lock_guard lock(logMutex_);
        return log_;
    }
    static void ClearRequests() {
        std::lock_guard lock(logMutex_);
        log_.clear();
    }
    static int Count(const std::vector<std::string>& actions, const std::string& action) {
        return static_cast<int>(std::count(actions.begin(), actions.end(), action));
    }
    void Fault(const json& rule) {
        const json body = {{"rules", json::array({rule})}};
        auto res = Control().Post("/_sim/faults", body.dump(), "application/json");
        ASSERT_TRUE(res && res->status == 200) << (res ? res->body : "no answer");
    }
    static std::string Tag(const json& object, const std::string& key) {
        for (const json& t : object["Tags"]["Tag"]) {
            if (t.value("TagKey", "") == key) return t.value("TagValue", "");
        }
        return "<missing>";
    }
    // Polls the bridge (not the emulator) until `done`, within a few seconds.
    static bool Eventually(const std::function<bool()>& done) {
        for (int i = 0; i < 200; ++i) {
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    std::string Snapshot(const std::string& diskId) {
        SChildDisk snap;
        EXPECT_TRUE(bridge_.CreateSnapshot(diskId, snap, "", "")) << bridge_.GetLastError();
        bool completed = false;
        EXPECT_TRUE(Eventually([&] { return bridge_.IsSnapshotCompleted(kRegion, snap.snapshotId, completed) && completed; }))
            << bridge_.GetLastError();
        return snap.snapshotId;
    }

    inline static hxsim::Emulator* emulator_ = nullptr;
    inline static std::mutex logMutex_;
    inline static std::vector<std::string> log_;
    CAliCloudSDKCppBridge bridge_;
};


}  // namespace bridgesim
