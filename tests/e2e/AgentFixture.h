// The end-to-end fixture: an emulator run by the test process, hxagent started as a child
// process for every command, and what a user or the cloud can see of the results.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <thread>

#include "DataMover.h"
#include "Manifest.h"
#include "SimControl.h"
#include "VMCleaner.h"
#include "hxruntime/HostApi.h"
#include "hxsim/Emulator.h"

extern char** environ;

namespace hxe2e {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr double kTimeScale = 0.01;

inline std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct RunResult {
    int exitCode = -1;   // -1 when killed by a signal
    int signal = 0;
    std::string out, err;
    json doc;            // stdout parsed (hxagent runs with --json)
};


// One hxagent child process, stdout and stderr to files.
class Child {
public:
    // `started` runs in this process with the child's pid before the child execs hxagent, so
    // that the test knows the pid before the child's first cloud call.
    Child(const std::vector<std::string>& args, const std::vector<std::string>& env, const std::string& dir,
          const std::function<void(pid_t)>& started = {}) {
        static int seq = 0;
        out_ = dir + "/out-" + std::to_string(++seq);
        err_ = out_ + ".err";
        int gate[2];
        if (::pipe(gate) != 0) ADD_FAILURE() << "pipe failed";
        pid_ = ::fork();
        if (pid_ > 0) {
            ::close(gate[0]);
            if (started) started(pid_);
            ::close(gate[1]);  // lets the child go on
        }
        if (pid_ == 0) {
            ::close(gate[1]);
            char ignored;
            while (::read(gate[0], &ignored, 1) > 0) {
            }
            ::close(gate[0]);
            int o = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(o, 1);
            ::dup2(e, 2);
            std::vector<char*> argv{const_cast<char*>(HXAGENT_PATH)}, envp;
            for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            for (auto& v : env) envp.push_back(const_cast<char*>(v.c_str()));
            envp.push_back(nullptr);
            ::execve(HXAGENT_PATH, argv.data(), envp.data());
            ::_exit(127);
        }
    }
    void Signal(int sig) { ::kill(pid_, sig); }
    bool Running() {
        int status = 0;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            done_ = true;
            status_ = status;
        }
        return !done_;
    }
    RunResult Wait(std::chrono::seconds limit = 240s) {
        auto until = std::chrono::steady_clock::now() + limit;
        while (Running() && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(20ms);
        if (!done_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status_, 0);
            done_ = true;
            ADD_FAILURE() << "hxagent did not finish in time";
        }
        RunResult r;
        if (WIFEXITED(status_)) r.exitCode = WEXITSTATUS(status_);
        if (WIFSIGNALED(status_)) r.signal = WTERMSIG(status_);
        r.out = Slurp(out_);
        r.err = Slurp(err_);
        r.doc = json::parse(r.out, nullptr, false);
        return r;
    }

private:
    pid_t pid_ = -1;
    bool done_ = false;
    int status_ = 0;
    std::string out_, err_;
};

class AgentE2E : public ::testing::Test {
protected:
    virtual std::string Scenario() { return {}; }
    virtual double TimeScale() { return kTimeScale; }

    void SetUp() override {
        dir_ = (fs::temp_directory_path() /
                ("hxagent-e2e-" + std::to_string(::getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name()))
                   .string();
        fs::remove_all(dir_);
        fs::create_directories(dir_ + "/home");
        hxsim::Options o;
        o.stateDir = dir_ + "/sim";
        o.timeScale = TimeScale();
        // Runs on the emulator's threads after a call was performed and before its answer is
        // sent: a kill here is a crash "right after call k", with the answer lost.
        o.requestLog = [this](const std::string&) {
            const int n = ++calls_;
            const pid_t victim = victim_.load();
            if (victim > 0 && n == killAt_.load()) ::kill(victim, SIGKILL);
        };
        o.scenarioJson = Scenario();
        sim_ = std::make_unique<hxsim::Emulator>(o);
        auto started = sim_->Start();
        ASSERT_TRUE(started.ok()) << started.error;
        auto keys = sim_->DemoCredentials();
        // Only what the test sets: no inherited cloud settings, no aliyun profile.
        for (char** e = environ; *e; ++e)
            if (std::string(*e).rfind("ALIBABA_CLOUD_", 0) != 0 && std::string(*e).rfind("HOME=", 0) != 0)
                env_.push_back(*e);
        env_.push_back("HOME=" + dir_ + "/home");
        env_.push_back("ALIBABA_CLOUD_ECS_ENDPOINT=" + started.endpoint);
        env_.push_back("ALIBABA_CLOUD_METADATA_ENDPOINT=" + sim_->MetadataEndpoint());
        env_.push_back("ALIBABA_CLOUD_ACCESS_KEY_ID=" + keys.accessKeyId);
        env_.push_back("ALIBABA_CLOUD_ACCESS_KEY_SECRET=" + keys.accessKeySecret);
        before_ = State();
    }

    void TearDown() override {
        if (sim_) sim_->Stop();
        if (!HasFailure()) fs::remove_all(dir_);
    }

    std::vector<std::string> Args(std::vector<std::string> extra) {
        std::vector<std::string> a{"--state-dir", dir_ + "/state", "--json"};
        a.insert(a.end(), extra.begin(), extra.end());
        return a;
    }
    RunResult Run(std::vector<std::string> extra) { return Child(Args(extra), env_, dir_).Wait(); }
    std::unique_ptr<Child> Start(std::vector<std::string> extra) {
        return std::make_unique<Child>(Args(extra), env_, dir_);
    }
    // Runs a command that is SIGKILLed right after its `k`-th cloud call (0: never), and
    // counts its calls.
    RunResult RunKilledAfter(int k, std::vector<std::string> extra) {
        Child child(Args(extra), env_, dir_, [&](pid_t pid) {
            calls_ = 0;
            killAt_ = k;
            victim_ = pid;
        });
        RunResult r = child.Wait();
        victim_ = 0;
        killAt_ = 0;
        return r;
    }
    int CallsOfLastRun() const { return calls_.load(); }

    json State() {
        json s;
        std::string error;
        EXPECT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "GET", "/_sim/state", "", s, error)) << error;
        return s;
    }
    json Calls() {
        json s;
        std::string error;
        EXPECT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "GET", "/_sim/calls", "", s, error)) << error;
        return s;
    }

    static const json* Find(const json& state, const char* list, const std::function<bool(const json&)>& pred) {
        for (const auto& x : state[list])
            if (pred(x)) return &x;
        return nullptr;
    }
    static std::vector<json> Instances(const json& state, const std::string& name) {
        std::vector<json> out;
        for (const auto& i : state["instances"])
            if (i.value("InstanceName", "") == name) out.push_back(i);
        return out;
    }

    // Neither the cloud nor the cleaner store holds anything a job made for itself.
    void ExpectNothingLeft() {
        hxagent::SimLeftovers left = hxagent::FindLeftovers(before_, State());
        EXPECT_TRUE(left.empty()) << left.Describe();
        hxruntime::SetCleanerDatabasePath(dir_ + "/state/cleaner.db");
        VMCleaner store;
        ASSERT_TRUE(store.Init(sim_->ProxyInstanceId(), 0));
        for (auto mode : {VM_CLEANER_MODE_BACKUP, VM_CLEANER_MODE_RESTORE})
            for (auto kind : {VM_CLEANER_ENTITY_VM, VM_CLEANER_ENTITY_SNAPSHOT, VM_CLEANER_ENTITY_DISK,
                              VM_CLEANER_ENTITY_TEMPLATE}) {
                std::vector<CleanerEntity> rest;
                ASSERT_TRUE(store.GetOrphanedRootEntityListByType(mode, kind, "", rest));
                for (const auto& e : rest) ADD_FAILURE() << "cleaner store still holds " << e.cleanerPath;
            }
        store.DeInit();
    }

    // Backs up `instance`; returns the backup folder.
    std::string Backup(const std::string& instance, hxagent::Manifest& m) {
        RunResult r = Run({"backup", instance, "--to", dir_ + "/backups"});
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        if (r.exitCode != 0 || r.doc.is_discarded()) return {};
        const std::string folder = r.doc.value("folder", "");
        std::string error;
        EXPECT_TRUE(hxagent::ReadManifest(folder, m, error)) << error;
        return folder;
    }

    std::atomic<int> calls_{0};
    std::atomic<int> killAt_{0};
    std::atomic<pid_t> victim_{0};
    std::string dir_;
    std::unique_ptr<hxsim::Emulator> sim_;
    std::vector<std::string> env_;
    json before_;
};

}  // namespace hxe2e
