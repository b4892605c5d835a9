// Cloud calls, CPU and memory of one `hxagent backup` and of the restore of that backup, as
// the instance's disk count grows (1, 4, 16).
//
// For each disk count N the benchmark starts the ECS emulator in this process with a world
// of its own (the proxy and one instance with N disks: a system disk and N-1 data disks),
// then runs the built hxagent binary against it exactly as an operator would on a proxy:
// endpoint, metadata endpoint and AccessKey in the environment, everything else learnt from
// the emulator. One iteration is one backup process and one restore process of that backup,
// each start to exit; resetting the emulator and removing the previous backup are not timed.
// The emulator counts every API call per action; GET /_sim/calls after each process gives
// that process's calls.
//
// CPU: hxagent's user + system time from wait4 (its waited-for children included), and the
// emulator's (this process's getrusage while it only waits for the child, so nearly all of
// it is the emulator's server threads), each per cloud call. Memory: hxagent's peak RSS
// (VmHWM, read while it runs; see HighWaterMiB).
//
// With HX_BENCH_BASELINE_HXAGENT set, every disk count also runs that binary on an identical
// world in the same process, and the summary printed at the end gives the ratios of the
// built binary's figures to the baseline's, besides the fitted calls = a*N + b of each.
//
// Environment:
//   HX_BENCH_HXAGENT           the hxagent binary (default: the one built with this benchmark)
//   HX_BENCH_BASELINE_HXAGENT  another hxagent to compare with (default: none)
//   HX_BENCH_TIME_SCALE        the emulator's and the bridge's time scale (default 0.01: at
//                              0.001 the bridge's poll intervals fall to the 1 ms floor, so
//                              waits would be polled at a rate no real run has)
//   HX_BENCH_ITERATIONS        backup and restore pairs per disk count (default 3)
//   HX_BENCH_DIR               folder for the temporary files (default $TMPDIR or /tmp)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "SimControl.h"
#include "hxbridge/HostBridge.h"
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
    double cpuSeconds = 0;  // user + system, waited-for children included
    double maxRssMiB = 0;
};

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; }

// The peak resident set of a running process (VmHWM), 0 once it has exited. Decision: read
// while hxagent runs, not ru_maxrss from wait4: a spawned child's ru_maxrss starts at its
// parent's peak resident set (the kernel keeps the high-water mark of the address space that
// exec replaces, here the parent's), and this parent holds the emulator, whose state grows
// with the disk count; that made hxagent look 2 to 10 MiB larger, more for more disks. Read
// every 20 ms: what grows in a run's last 20 ms can be missed.
double HighWaterMiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::strtod(line.c_str() + 6, nullptr) / 1024.0;  // kB
    return 0;
}

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
        rusage usage{};
        for (;;) {
            const pid_t done = ::wait4(pid, &status, WNOHANG, &usage);
            if (done == pid || (done < 0 && errno != EINTR)) break;
            child.maxRssMiB = std::max(child.maxRssMiB, HighWaterMiB(pid));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (WIFEXITED(status)) child.exitCode = WEXITSTATUS(status);
        child.cpuSeconds = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
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

// What one hxagent process cost, summed over iterations.
struct Cost {
    double calls = 0, errors = 0, cpuSeconds = 0, simCpuSeconds = 0, maxRssMiB = 0, wallSeconds = 0;
    std::map<std::string, double> actions;
};

// Results of every (binary, disk count), averaged per iteration, for the closing summary.
struct Figures {
    double backupCalls = 0, restoreCalls = 0, cpuMsPerCall = 0, simCpuMsPerCall = 0, maxRssMiB = 0;
};
std::mutex figuresMutex;
std::map<std::string, std::map<int, Figures>> figures;  // label -> disks -> figures

double ProcessCpuSeconds() {
    rusage self{};
    ::getrusage(RUSAGE_SELF, &self);
    return Seconds(self.ru_utime) + Seconds(self.ru_stime);
}

// Runs one hxagent process and adds what it cost (calls from the emulator's counters, which
// are cleared afterwards). Empty on success, else why the run is not usable.
std::string RunCounted(const std::vector<std::string>& args, const std::vector<std::string>& env,
                       const fs::path& work, const std::string& endpoint, Cost& cost, json& outcome) {
    const double simBefore = ProcessCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    Child child = RunAgent(args, env, work);
    cost.wallSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    cost.simCpuSeconds += ProcessCpuSeconds() - simBefore;
    if (child.exitCode != 0) return args[4] + " exited with " + std::to_string(child.exitCode) + ": " + child.out;
    outcome = json::parse(child.out, nullptr, false);
    if (outcome.is_discarded() || !outcome.value("ok", false)) return "unexpected hxagent output: " + child.out;
    cost.cpuSeconds += child.cpuSeconds;
    cost.maxRssMiB = std::max(cost.maxRssMiB, child.maxRssMiB);
    json counts, ignored;
    std::string error;
    if (!hxagent::SimRequest(endpoint, "GET", "/_sim/calls", "", counts, error) ||
        !hxagent::SimRequest(endpoint, "DELETE", "/_sim/calls", "", ignored, error)) {
        return "/_sim/calls: " + error;
    }
    cost.calls += counts.value("total", 0.0);
    for (const auto& [action, c] : counts["actions"].items()) {
        cost.actions[action] += c.value("calls", 0.0);
        cost.errors += c.value("errors", 0.0);
    }
    return "";
}

void BM_BackupRestore(benchmark::State& state, const std::string& label, const std::string& agent) {
    const int disks = static_cast<int>(state.range(0));
    const double timeScale = std::strtod(EnvOr("HX_BENCH_TIME_SCALE", "0.01").c_str(), nullptr);

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
    const std::vector<std::string> common = {agent, "--json", "--state-dir", (work / "agent").string()};
    std::vector<std::string> backupArgs = common;
    backupArgs.insert(backupArgs.end(), {"backup", kInstanceId, "--to", backups.string()});

    Cost backup, restore;
    for (auto _ : state) {
        // A fresh world (disks, counters) and an empty backup folder for every run.
        if (std::string error = emulator.Reset(); !error.empty()) {
            state.SkipWithError(("reset: " + error).c_str());
            break;
        }
        std::error_code ec;
        fs::remove_all(backups, ec);
        json outcome;
        std::string error = RunCounted(backupArgs, env, work, emulator.Endpoint(), backup, outcome);
        if (error.empty() && outcome["manifest"]["disks"].size() != static_cast<std::size_t>(disks)) {
            error = "the backup holds another number of disks: " + outcome.dump();
        }
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
        std::vector<std::string> restoreArgs = common;
        restoreArgs.insert(restoreArgs.end(),
                           {"restore", outcome.value("folder", ""), "--name", "bench-restored-" + std::to_string(disks)});
        error = RunCounted(restoreArgs, env, work, emulator.Endpoint(), restore, outcome);
        if (!error.empty()) {
            state.SkipWithError(error.c_str());
            break;
        }
        state.SetIterationTime(backup.wallSeconds + restore.wallSeconds);
        backup.wallSeconds = restore.wallSeconds = 0;
    }

    using benchmark::Counter;
    const auto avg = [](double v) { return Counter(v, Counter::kAvgIterations); };
    const double n = std::max<double>(1, static_cast<double>(state.iterations()));
    const double calls = backup.calls + restore.calls;
    Figures f;
    f.backupCalls = backup.calls / n;
    f.restoreCalls = restore.calls / n;
    f.cpuMsPerCall = calls > 0 ? 1000 * (backup.cpuSeconds + restore.cpuSeconds) / calls : 0;
    f.simCpuMsPerCall = calls > 0 ? 1000 * (backup.simCpuSeconds + restore.simCpuSeconds) / calls : 0;
    f.maxRssMiB = std::max(backup.maxRssMiB, restore.maxRssMiB);
    state.counters["disks"] = disks;
    state.counters["backup_calls"] = avg(backup.calls);
    state.counters["restore_calls"] = avg(restore.calls);
    state.counters["errors"] = avg(backup.errors + restore.errors);
    state.counters["agent_ms/call"] = f.cpuMsPerCall;
    state.counters["sim_ms/call"] = f.simCpuMsPerCall;
    state.counters["peak_RSS_MiB"] = f.maxRssMiB;
    state.counters["DescribeDisks"] = avg(backup.actions["DescribeDisks"] + restore.actions["DescribeDisks"]);
    state.counters["CreateInstance"] = avg(restore.actions["CreateInstance"]);
    state.SetLabel(label + ", time scale " + EnvOr("HX_BENCH_TIME_SCALE", "0.01"));
    if (state.iterations() > 0 && !state.error_occurred()) {
        std::lock_guard lock(figuresMutex);
        figures[label][disks] = f;
    }

    emulator.Stop();
    std::error_code ec;
    fs::remove_all(work, ec);
}

// The bridge's own CPU per call, apart from everything else hxagent does (the data path
// above all): this thread's CPU time (RUSAGE_THREAD; the emulator answers on its own threads)
// over repeated ownership listings, each four Describe calls that no kept answer can serve
// (lists are always asked), signed, sent over keep-alive HTTP and parsed as in a job.
void BM_BridgeCpuPerCall(benchmark::State& state) {
    hxsim::Options options;
    options.scenarioJson = Scenario(4);
    options.timeScale = 0.01;
    hxsim::Emulator emulator(options);
    if (auto started = emulator.Start(); !started.ok()) {
        state.SkipWithError(("emulator: " + started.error).c_str());
        return;
    }
    setenv("ALIBABA_CLOUD_ECS_ENDPOINT", emulator.Endpoint().c_str(), 1);
    setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", emulator.MetadataEndpoint().c_str(), 1);
    hxbridge::HostBridge bridge;
    const auto keys = emulator.DemoCredentials();
    std::string proxy;
    if (!bridge.Connect(keys.accessKeyId, keys.accessKeySecret) || !bridge.ProxyInstanceId(proxy)) {
        state.SkipWithError(("connect: " + bridge.LastError()).c_str());
        return;
    }
    json counts;
    std::string error;
    hxagent::SimRequest(emulator.Endpoint(), "DELETE", "/_sim/calls", "", counts, error);
    double cpu = 0;
    for (auto _ : state) {
        rusage before{}, after{};
        ::getrusage(RUSAGE_THREAD, &before);
        std::vector<hxbridge::OwnedObject> owned;
        const bool ok = bridge.ListOwned("cn-hangzhou", owned);
        ::getrusage(RUSAGE_THREAD, &after);
        if (!ok) {
            state.SkipWithError(("ListOwned: " + bridge.LastError()).c_str());
            break;
        }
        cpu += Seconds(after.ru_utime) + Seconds(after.ru_stime) - Seconds(before.ru_utime) - Seconds(before.ru_stime);
    }
    if (!hxagent::SimRequest(emulator.Endpoint(), "GET", "/_sim/calls", "", counts, error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    const double calls = counts.value("total", 0.0);
    state.counters["calls"] = calls;
    state.counters["bridge_ms/call"] = calls > 0 ? 1000 * cpu / calls : 0;
    unsetenv("ALIBABA_CLOUD_ECS_ENDPOINT");
    unsetenv("ALIBABA_CLOUD_METADATA_ENDPOINT");
}
BENCHMARK(BM_BridgeCpuPerCall)->Iterations(200)->Unit(benchmark::kMillisecond);

// Least squares of y = a*N + b over the disk counts measured.
std::pair<double, double> Fit(const std::map<int, Figures>& byDisks, double Figures::*field) {
    double sx = 0, sy = 0, sxx = 0, sxy = 0, k = 0;
    for (const auto& [n, f] : byDisks) {
        sx += n;
        sy += f.*field;
        sxx += static_cast<double>(n) * n;
        sxy += n * (f.*field);
        ++k;
    }
    const double d = k * sxx - sx * sx;
    if (k < 2 || d == 0) return {0, k ? sy / k : 0};
    const double a = (k * sxy - sx * sy) / d;
    return {a, (sy - a * sx) / k};
}

void PrintSummary() {
    std::lock_guard lock(figuresMutex);
    for (const auto& [label, byDisks] : figures) {
        const auto [ba, bb] = Fit(byDisks, &Figures::backupCalls);
        const auto [ra, rb] = Fit(byDisks, &Figures::restoreCalls);
        std::printf("%-8s backup calls ~ %.2f*N + %.2f, restore calls ~ %.2f*N + %.2f\n", label.c_str(), ba, bb, ra, rb);
        for (const auto& [n, f] : byDisks) {
            std::printf("%-8s N=%-3d backup %5.0f  restore %5.0f  hxagent CPU %.3f ms/call  emulator CPU %.3f ms/call"
                        "  peak RSS %.1f MiB\n",
                        label.c_str(), n, f.backupCalls, f.restoreCalls, f.cpuMsPerCall, f.simCpuMsPerCall, f.maxRssMiB);
        }
    }
    auto after = figures.find("built"), before = figures.find("baseline");
    if (after == figures.end() || before == figures.end()) return;
    for (const auto& [n, f] : after->second) {
        auto b = before->second.find(n);
        if (b == before->second.end()) continue;
        const auto& g = b->second;
        auto ratio = [](double x, double y) { return y > 0 ? x / y : 0.0; };
        std::printf("built/baseline N=%-3d backup calls %.2f  restore calls %.2f  hxagent CPU/call %.2f  emulator "
                    "CPU/call %.2f  peak RSS %.2f\n",
                    n, ratio(f.backupCalls, g.backupCalls), ratio(f.restoreCalls, g.restoreCalls),
                    ratio(f.cpuMsPerCall, g.cpuMsPerCall), ratio(f.simCpuMsPerCall, g.simCpuMsPerCall),
                    ratio(f.maxRssMiB, g.maxRssMiB));
    }
}

void Register(const std::string& label, const std::string& agent) {
    benchmark::RegisterBenchmark(("BM_BackupRestore/" + label).c_str(),
                                 [label, agent](benchmark::State& s) { BM_BackupRestore(s, label, agent); })
        ->ArgName("disks")
        ->Arg(1)
        ->Arg(4)
        ->Arg(16)
        ->Iterations(std::max(1, std::atoi(EnvOr("HX_BENCH_ITERATIONS", "3").c_str())))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
    Register("built", EnvOr("HX_BENCH_HXAGENT", HX_BENCH_DEFAULT_HXAGENT));
    if (const std::string baseline = EnvOr("HX_BENCH_BASELINE_HXAGENT", ""); !baseline.empty()) {
        Register("baseline", baseline);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    PrintSummary();
    return 0;
}
