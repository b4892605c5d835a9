// Repository data path against restic run directly, as ratios measured in the same run:
//
//   backup   hxagent's streaming backup of a disk image into a local repository (read,
//            SHA-256, pipe into `restic backup --stdin`) against `restic backup --stdin`
//            reading the same file itself;
//   second   bytes the second backup of the unchanged disk adds, against the first's;
//   restore  hxagent's restore stream (`restic dump` into a fresh sparse target, SHA-256,
//            zero granules skipped, fsync) against `restic dump` of the same file to /dev/null.
//
// Every timed backup goes into a fresh repository (created untimed), so neither side
// profits from deduplication against an earlier iteration. Each variant runs
// HX_BENCH_REPS times (default 3), alternating, and the median counts.
// Environment: HX_BENCH_FILE_MIB (default 512), HX_BENCH_DIR (default /tmp).
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <vector>

#include "storage/RepositoryStore.h"
#include "storage/Restic.h"

namespace {

namespace fs = std::filesystem;
using namespace hxagent;
using Clock = std::chrono::steady_clock;

std::uint64_t EnvNumber(const char* name, std::uint64_t fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::strtoull(v, nullptr, 10) : fallback;
}

// 32 MiB stripes: 20 MiB random, 4 MiB written zeros, 8 MiB hole; like a used disk.
void MakeImage(const std::string& path, std::uint64_t mib) {
    std::ofstream(path).close();
    fs::resize_file(path, mib << 20);
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    std::mt19937_64 rng(42);
    std::vector<std::uint64_t> buf((1 << 20) / 8);
    const std::vector<char> zeros(1 << 20, 0);
    for (std::uint64_t off = 0; off < mib; off += 32) {
        f.seekp(static_cast<std::streamoff>(off << 20));
        for (std::uint64_t i = 0; i < 20 && off + i < mib; ++i) {
            for (auto& x : buf) x = rng();
            f.write(reinterpret_cast<const char*>(buf.data()), 1 << 20);
        }
        for (std::uint64_t i = 20; i < 24 && off + i < mib; ++i) f.write(zeros.data(), 1 << 20);
    }
}

// Runs `argv` with stdin from `in` and stdout to `out`; the exit status.
int Spawn(const std::vector<std::string>& argv, const std::string& in, const std::string& out) {
    pid_t pid = ::fork();
    if (pid == 0) {
        int i = ::open(in.c_str(), O_RDONLY), o = ::open(out.c_str(), O_WRONLY);
        ::dup2(i, 0);
        ::dup2(o, 1);
        int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, 2);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double Seconds(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

[[noreturn]] void Die(const std::string& what) {
    std::cerr << "bench_repository: " << what << "\n";
    std::exit(1);
}

Restic FreshRepository(const std::string& path) {
    fs::remove_all(path);
    Restic restic;
    std::string error;
    if (!Restic::Locate({path, ""}, restic, error) || !OpenRepository(restic, true, error)) Die(error);
    return restic;
}

struct Run {
    std::string dir, image, config;
    std::uint64_t size = 0;
    int reps = 3;
    std::vector<double> ours, direct, restoreOurs, restoreDirect;
    std::uint64_t firstAdded = 0, secondAdded = 0;
};

// Runs a and b in turn, alternating which goes first: evens out cache and load effects.
template <class A, class B>
void Alternate(int rep, A a, B b) {
    if (rep % 2 == 0) {
        a();
        b();
    } else {
        b();
        a();
    }
}

// The restore side, from the backup `snapshot` of repository `restic`.
void MeasureRestores(Run& run, const Restic& restic, RepositoryWriter& writer, const std::string& snapshot,
                     const std::string& digest) {
    Manifest m;
    m.instanceId = "i-bench";
    m.configFile = "config.json";
    ManifestDisk d;
    d.id = "d-bench";
    d.image = "d-bench.img";
    d.size = run.size;
    d.diskSize = static_cast<std::int64_t>((run.size + (1ull << 30) - 1) >> 30);
    d.blockSha256 = digest;
    d.snapshot = snapshot;
    d.isOSDisk = true;
    m.disks.push_back(d);
    std::string error, backupId;
    if (!writer.PutConfig(run.config, m.configFile, m.configSnapshot, error) || !writer.Commit(m, backupId, error))
        Die(error);
    StoredBackup stored;
    if (!StoredBackup::Load(restic, backupId, stored, error)) Die(error);
    const std::string target = run.dir + "/target";
    for (int rep = 0; rep < run.reps; ++rep) {
        Alternate(
            rep,
            [&] {
                fs::remove(target);
                std::ofstream(target).close();
                fs::resize_file(target, run.size);  // a fresh, zeroed disk (untimed)
                auto t = Clock::now();
                MoveResult back = stored.ReadDisk(stored.manifest().disks.front(), target, {});
                run.restoreOurs.push_back(Seconds(t));
                if (!back.ok) Die(back.error);
            },
            [&] {
                auto t = Clock::now();
                if (Spawn({"restic", "--repo", restic.repository(), "dump", "--no-lock", snapshot,
                           "/i-bench/d-bench.img"},
                          "/dev/null", "/dev/null") != 0)
                    Die("restic dump failed");
                run.restoreDirect.push_back(Seconds(t));
            });
    }
}

// The backup side; the last repetition goes on with a second backup and the restores.
void MeasureBackups(Run& run) {
    for (int rep = 0; rep < run.reps; ++rep) {
        Restic a = FreshRepository(run.dir + "/repo-a");
        Restic b = FreshRepository(run.dir + "/repo-b");
        RepositoryWriter writer(a, "i-bench", "bench", "bench", NewBackupKey("bench"));
        std::string snapshot;
        MoveResult moved;
        Alternate(
            rep,
            [&] {
                auto t = Clock::now();
                moved = writer.PutDisk(run.image, run.size, "d-bench.img", {}, snapshot, run.firstAdded);
                run.ours.push_back(Seconds(t));
                if (!moved.ok) Die(moved.error);
            },
            [&] {
                auto t = Clock::now();
                if (Spawn({"restic", "--repo", b.repository(), "backup", "--stdin", "--stdin-filename",
                           "d-bench.img", "-q"},
                          run.image, "/dev/null") != 0)
                    Die("restic backup --stdin failed");
                run.direct.push_back(Seconds(t));
            });
        if (rep + 1 < run.reps) continue;
        std::string again;
        if (!writer.PutDisk(run.image, run.size, "d-bench.img", {}, again, run.secondAdded).ok)
            Die("second backup failed");
        MeasureRestores(run, a, writer, snapshot, moved.digest);
    }
}

}  // namespace

int main() {
    const std::uint64_t mib = EnvNumber("HX_BENCH_FILE_MIB", 512);
    const char* base = std::getenv("HX_BENCH_DIR");
    const fs::path dir = fs::path(base ? base : "/tmp") / ("hx-bench-repo-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    ::setenv("RESTIC_PASSWORD", "bench-only-password", 0);
    ::setenv("RESTIC_CACHE_DIR", (dir / "cache").c_str(), 1);
    Run run;
    run.dir = dir.string();
    run.image = run.dir + "/disk.img";
    run.config = run.dir + "/config.json";
    run.size = mib << 20;
    run.reps = std::max(1, static_cast<int>(EnvNumber("HX_BENCH_REPS", 3)));
    MakeImage(run.image, mib);
    std::ofstream(run.config) << "{}";
    MeasureBackups(run);

    const double mb = static_cast<double>(run.size) / 1e6;
    std::printf("disk image: %llu MiB (62.5%% random data, 12.5%% written zeros, 25%% hole), %d repetitions, medians\n",
                static_cast<unsigned long long>(mib), run.reps);
    std::printf("%-44s %9.1f MB/s\n", "backup: hxagent stream into restic", mb / Median(run.ours));
    std::printf("%-44s %9.1f MB/s\n", "backup: restic backup --stdin < image", mb / Median(run.direct));
    std::printf("%-44s %9.1f MB/s\n", "restore: hxagent from restic dump to a disk", mb / Median(run.restoreOurs));
    std::printf("%-44s %9.1f MB/s\n", "restore: restic dump > /dev/null", mb / Median(run.restoreDirect));
    std::printf("first backup added %llu bytes, second %llu bytes\n", static_cast<unsigned long long>(run.firstAdded),
                static_cast<unsigned long long>(run.secondAdded));
    std::printf("RATIO backup throughput (hxagent / restic direct): %.3f (target >= 0.8)\n",
                Median(run.direct) / Median(run.ours));
    std::printf("RATIO second backup adds (second / first):         %.5f (target < 0.01)\n",
                static_cast<double>(run.secondAdded) / static_cast<double>(run.firstAdded));
    std::printf("RATIO restore throughput (hxagent / restic dump):  %.3f\n",
                Median(run.restoreDirect) / Median(run.restoreOurs));
    fs::remove_all(dir);
    return 0;
}
