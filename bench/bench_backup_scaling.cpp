// Wall time and cloud calls of one `hxagent backup` as the instance's disk count grows.
//
// For each disk count N the benchmark starts the ECS emulator in this process with a world
// of its own (the proxy and one instance with N disks: a system disk and N-1 data disks),
// then runs the built hxagent binary against it exactly as an operator would on a proxy:
// endpoint, metadata endpoint and AccessKey in the environment, everything else learnt from
// the emulator. One iteration is one backup process, start to exit; resetting the emulator
// and removing the previous backup are not timed. The emulator counts every API call per
// action; those counts, per backup, become the counters.
//
// Environment:
//   HX_BENCH_HXAGENT     the hxagent binary (default: the one built with this benchmark)
//   HX_BENCH_TIME_SCALE  the emulator's and the bridge's time scale (default 0.001)
//   HX_BENCH_DIR         folder for the temporary files (default $TMPDIR or /tmp)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "SimControl.h"
#include "hxsim/Emulator.h"

extern char** environ;

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kInstanceId = "i-hxsim0bench000000001";

std::string EnvOr(const char* name, const std::string& fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : fallback;
}

// The built-in world's keys, types, regions and images, with only the proxy and one
// instance of `disks` disks (1 GiB each, a few MiB of data) on ecs.g7.large, whose
// DiskQuantity (17) holds the instance's disks and, during the backup, the proxy's own
// system disk plus a copy of every one of them.
std::string Scenario(int disks) {
    json world = json::parse(hxsim::Emulator::DefaultScenarioJson());
    json proxy;
    for (const auto& instance : world["instances"])
        if (instance["instanceId"] == world["proxyInstanceId"]) proxy = instance;
    json instance = {{"instanceId", kInstanceId},
                     {"instanceName", "bench-" + std::to_string(disks)},
                     {"regionId", proxy["regionId"]},
                     {"zoneId", proxy["zoneId"]},
                     {"instanceType", "ecs.g7.large"},
                     {"imageId", proxy["imageId"]},
                     {"disks", json::array()}};
    for (int i = 0; i < disks; ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "d-hxsim0bdsk%08d", i + 1);
        instance["disks"].push_back({{"diskId", id},
                                     {"type", i == 0 ? "system" : "data"},
                                     {"sizeGiB", 1},
                                     {"category", "cloud_auto"},
                                     {"content", {{"pattern", i % 2 ? "random" : "marker"}, {"dataMiB", 4}}}});
    }
    world["instances"] = json::array({proxy, instance});
    return world.dump();
}

struct Child {
    int exitCode = -1;
    std::string out;
};

// Runs hxagent with the given environment, stdout into a file (read back), stderr kept in
// a file for the error message.
Child RunAgent(const std::vector<std::string>& args, const std::vector<std::string>& env, const fs::path& work) {
    const std::string outPath = (work / "stdout.json").string();
    const std::string errPath = (work / "stderr.txt").string();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<char*> argv, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    Child child;
    pid_t pid = 0;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status)) child.exitCode = WEXITSTATUS(status);
    }
    ::posix_spawn_file_actions_destroy(&actions);
    std::ifstream o(outPath), e(errPath);
    std::stringstream text;
    text << o.rdbuf();
    child.out = text.str();
    if (child.exitCode != 0) {
        std::stringstream err;
        err << e.rdbuf();
        child.out += err.str();
    }
    return child;
}

// This process's environment without any Alibaba Cloud setting, plus the emulator's.
std::vector<std::string> AgentEnvironment(const hxsim::Emulator& emulator) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        if (entry.rfind("ALIBABA_CLOUD_", 0) == 0) continue;
        env.push_back(entry);
    }
    const auto keys = emulator.DemoCredentials();
    env.push_back("ALIBABA_CLOUD_ECS_ENDPOINT=" + emulator.Endpoint());
    env.push_back("ALIBABA_CLOUD_METADATA_ENDPOINT=" + emulator.MetadataEndpoint());
    env.push_back("ALIBABA_CLOUD_ACCESS_KEY_ID=" + keys.accessKeyId);
    env.push_back("ALIBABA_CLOUD_ACCESS_KEY_SECRET=" + keys.accessKeySecret);
    return env;
}

void BM_Backup(benchmark::State& state) {
    const int disks = static_cast<int>(state.range(0));
    const double timeScale = std::strtod(EnvOr("HX_BENCH_TIME_SCALE", "0.001").c_str(), nullptr);
    const std::string agent = EnvOr("HX_BENCH_HXAGENT", HX_BENCH_DEFAULT_HXAGENT);

    fs::path base = EnvOr("HX_BENCH_DIR", EnvOr("TMPDIR", "/tmp"));
    std::string tmpl = (base / "hx-bench-backup-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    const fs::path work = tmpl;

    hxsim::Options options;
    options.scenarioJson = Scenario(disks);
    options.timeScale = timeScale;
    options.stateDir = work / "sim";
    hxsim::Emulator emulator(options);
    auto started = emulator.Start();
    if (!started.ok()) {
        state.SkipWithError(("emulator: " + started.error).c_str());
        fs::remove_all(work);
        return;
    }
    const auto env = AgentEnvironment(emulator);
    const fs::path backups = work / "backups";
    const std::vector<std::string> args = {agent, "--json", "--state-dir", (work / "agent").string(), "backup",
                                           kInstanceId, "--to", backups.string()};

    std::map<std::string, double> calls;  // summed over iterations
    double total = 0, errors = 0, mount = 0, copy = 0, unmount = 0, dataMiB = 0;
    for (auto _ : state) {
        // A fresh world (disks, counters) and an empty backup folder for every run.
        if (std::string error = emulator.Reset(); !error.empty()) {
            state.SkipWithError(("reset: " + error).c_str());
            break;
        }
        std::error_code ec;
        fs::remove_all(backups, ec);

        const auto start = std::chrono::steady_clock::now();
        Child child = RunAgent(args, env, work);
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (child.exitCode != 0) {
            state.SkipWithError(("hxagent backup exited with " + std::to_string(child.exitCode) + ": " + child.out).c_str());
            break;
        }
        json outcome = json::parse(child.out, nullptr, false);
        if (outcome.is_discarded() || !outcome.value("ok", false) ||
            outcome["manifest"]["disks"].size() != static_cast<std::size_t>(disks)) {
            state.SkipWithError(("unexpected hxagent output: " + child.out).c_str());
            break;
        }
        const json& manifest = outcome["manifest"];
        const json timings = manifest.value("timings", json::object());
        mount += timings.value("mountSeconds", 0.0);
        copy += timings.value("copySeconds", 0.0);
        unmount += timings.value("unmountSeconds", 0.0);
        for (const auto& d : manifest["disks"]) dataMiB += d.value("dataBytes", 0.0) / (1 << 20);

        json counts;
        std::string error;
        if (!hxagent::SimRequest(emulator.Endpoint(), "GET", "/_sim/calls", "", counts, error)) {
            state.SkipWithError(("GET /_sim/calls: " + error).c_str());
            break;
        }
        total += counts.value("total", 0.0);
        for (const auto& [action, c] : counts["actions"].items()) {
            calls[action] += c.value("calls", 0.0);
            errors += c.value("errors", 0.0);
        }
    }

    using benchmark::Counter;
    const auto avg = [](double v) { return Counter(v, Counter::kAvgIterations); };
    state.counters["disks"] = disks;
    state.counters["calls"] = avg(total);
    state.counters["calls/disk"] = avg(total / disks);
    state.counters["errors"] = avg(errors);
    state.counters["mount_s"] = avg(mount);
    state.counters["copy_s"] = avg(copy);
    state.counters["unmount_s"] = avg(unmount);
    state.counters["data_MiB"] = avg(dataMiB);
    for (const auto& [action, n] : calls) state.counters[action] = avg(n);
    state.SetLabel("time scale " + EnvOr("HX_BENCH_TIME_SCALE", "0.001"));

    emulator.Stop();
    std::error_code ec;
    fs::remove_all(work, ec);
}

BENCHMARK(BM_Backup)
    ->ArgName("disks")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
