// The data path of hxagent's plain-folder backups and restores against the command-line
// tools doing the same copy, on a set of disk files that looks like an instance: several
// disks, each half random data and half holes. Prints throughput and CPU per variant and
// the RATIOS of the medians, all measured in the same run.
//
//   backup:  every disk file -> a new image (hxagent: block digest on the way, images
//            fsynced) against `cp --sparse=always`, `dd bs=4M conv=sparse` and `cat >`,
//            each followed by an fsync of its outputs (the mover's images are durable when
//            it returns; a tool's copy timed up to the page cache would not be).
//   restore: every image -> a fresh empty target of the disk's size (hxagent: digest
//            checked on the way, targets fsynced) against `cp` followed by an fsync.
//
// CPU is user + system of the whole process for hxagent (every thread of it) and of the
// children for the tools (getrusage RUSAGE_CHILDREN), the bench's own fsync calls added.
// The inputs are in the page cache (read once before every timed run), as they are when a
// backup reads a disk the proxy has just attached and the emulator serves from its files.
//
// Environment:
//   HX_BENCH_DIR        folder for the temporary files (default $TMPDIR or /tmp)
//   HX_BENCH_DISKS      number of disk files (default 4)
//   HX_BENCH_DISK_MIB   size of each in MiB (default 768, rounded to 32 MiB)
//   HX_BENCH_REPS       repetitions, the variants taking turns (default 5), after one
//                       round that is not counted
//   HX_BENCH_ONLY       run only the variants whose name holds this text (for a profiler)
//   HX_BENCH_VERBOSE    non-empty: every run's time and CPU on stderr
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "DataMover.h"
#include "io/BackgroundSync.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1ull << 20;
// One stripe of a disk: random data, then a hole of the same length.
constexpr std::uint64_t kStripe = 32 * kMiB;
constexpr std::uint64_t kRandomPerStripe = 16 * kMiB;

std::string EnvOr(const char* name, const std::string& fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : fallback;
}
std::uint64_t EnvNumber(const char* name, std::uint64_t fallback) {
    const std::uint64_t v = std::strtoull(EnvOr(name, std::to_string(fallback)).c_str(), nullptr, 10);
    return v > 0 ? v : fallback;
}

[[noreturn]] void Die(const std::string& what) {
    std::fprintf(stderr, "bench_data_mover: %s\n", what.c_str());
    std::exit(1);
}

void WriteAll(int fd, const char* data, std::size_t n, off_t at) {
    while (n > 0) {
        ssize_t w = ::pwrite(fd, data, n, at);
        if (w < 0) Die(std::string("pwrite: ") + std::strerror(errno));
        data += w;
        n -= static_cast<std::size_t>(w);
        at += w;
    }
}

void FsyncPath(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) Die("fsync " + path + ": " + std::strerror(errno));
    ::close(fd);
}

// Brings a file into the page cache (holes cost nothing to read).
void Warm(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    std::vector<char> buf(4 * kMiB);
    while (::read(fd, buf.data(), buf.size()) > 0) {
    }
    ::close(fd);
}

// Runs argv without a shell, stdout to `out` when given; dies unless it exits 0.
void Run(const std::vector<std::string>& args, const std::string& out = {}) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!out.empty())
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    const int rc = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) Die("cannot start " + args[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) Die("waitpid");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Die(args[0] + " failed");
}

double Cpu(const rusage& u) {
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}
double CpuNow() {
    rusage self{}, children{};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    return Cpu(self) + Cpu(children);
}

struct DiskSet {
    fs::path dir;
    std::vector<std::string> sources, images;  // images: the mover's, input of the restores
    std::uint64_t diskSize = 0;

    DiskSet() {
        const std::uint64_t disks = EnvNumber("HX_BENCH_DISKS", 4);
        diskSize = std::max<std::uint64_t>(1, EnvNumber("HX_BENCH_DISK_MIB", 768) * kMiB / kStripe) * kStripe;
        fs::path base = EnvOr("HX_BENCH_DIR", EnvOr("TMPDIR", "/tmp"));
        std::string tmpl = (base / "hx-bench-mover-XXXXXX").string();
        if (!::mkdtemp(tmpl.data())) Die("mkdtemp in " + base.string() + " failed");
        dir = tmpl;
        std::mt19937_64 rng(20240531);
        std::vector<std::uint64_t> words(kRandomPerStripe / sizeof(std::uint64_t));
        for (std::uint64_t d = 0; d < disks; ++d) {
            const std::string path = (dir / ("disk" + std::to_string(d) + ".src")).string();
            int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0) Die("create " + path);
            for (std::uint64_t at = 0; at < diskSize; at += kStripe) {
                for (auto& w : words) w = rng();
                WriteAll(fd, reinterpret_cast<const char*>(words.data()), kRandomPerStripe, static_cast<off_t>(at));
            }
            if (::ftruncate(fd, static_cast<off_t>(diskSize)) != 0 || ::fsync(fd) != 0) Die("size " + path);
            ::close(fd);
            sources.push_back(path);
            images.push_back((dir / ("disk" + std::to_string(d) + ".ref")).string());
            auto made = hxagent::ReadToImage(path, diskSize, images.back(), {});
            if (!made.ok) Die("reference image: " + made.error);
        }
    }
    ~DiskSet() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    std::uint64_t Logical() const { return diskSize * sources.size(); }
    std::string Out(size_t i) const { return (dir / ("out" + std::to_string(i))).string(); }
};

struct Variant {
    std::string name;
    bool restore = false;  // input: the images, outputs: fresh targets of the disk's size
    std::function<void(const DiskSet&)> run;  // writes set.Out(i) for every disk
};

std::vector<Variant> Variants() {
    auto each = [](auto copy) {
        return [copy](const DiskSet& s) {
            for (size_t i = 0; i < s.sources.size(); ++i) copy(s, i);
            for (size_t i = 0; i < s.sources.size(); ++i) FsyncPath(s.Out(i));
        };
    };
    // hxagent's side, as the jobs do it: each output flushed while the next disk is moved,
    // all of them flushed before the job goes on.
    auto mover = [](std::string what, auto move) {
        return [what, move](const DiskSet& s) {
            hxagent::io::BackgroundSync sync;
            hxagent::MoveOptions o;
            o.sync = &sync;
            for (size_t i = 0; i < s.sources.size(); ++i) {
                auto r = move(s, i, o);
                if (!r.ok) Die(what + ": " + r.error);
            }
            std::string error;
            if (!sync.Wait(error)) Die(error);
        };
    };
    return {
        {"backup: hxagent", false,
         mover("ReadToImage",
               [](const DiskSet& s, size_t i, const hxagent::MoveOptions& o) {
                   return hxagent::ReadToImage(s.sources[i], s.diskSize, s.Out(i), o);
               })},
        {"backup: cp --sparse=always", false,
         each([](const DiskSet& s, size_t i) { Run({"cp", "--sparse=always", s.sources[i], s.Out(i)}); })},
        {"backup: dd bs=4M conv=sparse", false, each([](const DiskSet& s, size_t i) {
             Run({"dd", "if=" + s.sources[i], "of=" + s.Out(i), "bs=4M", "conv=sparse", "status=none"});
         })},
        {"backup: cat", false, each([](const DiskSet& s, size_t i) { Run({"cat", s.sources[i]}, s.Out(i)); })},
        {"restore: hxagent", true,
         mover("WriteImageToDevice",
               [](const DiskSet& s, size_t i, const hxagent::MoveOptions& o) {
                   return hxagent::WriteImageToDevice(s.images[i], s.Out(i), o);
               })},
        {"restore: cp + sync", true, each([](const DiskSet& s, size_t i) { Run({"cp", s.images[i], s.Out(i)}); })},
    };
}

// Untimed: no previous output (a restore target is a fresh empty file of the disk's size),
// the inputs in the page cache and the previous run's writes on disk.
void Prepare(const DiskSet& s, const Variant& v) {
    for (size_t i = 0; i < s.sources.size(); ++i) {
        std::error_code ec;
        fs::remove(s.Out(i), ec);
        if (v.restore) {
            int fd = ::open(s.Out(i).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(s.diskSize)) != 0) Die("target " + s.Out(i));
            ::close(fd);
        }
        Warm(v.restore ? s.images[i] : s.sources[i]);
    }
    ::sync();
}

void Check(const DiskSet& s, const Variant& v) {
    for (size_t i = 0; i < s.sources.size(); ++i) {
        std::string why;
        if (!hxagent::SameContent(s.sources[i], s.Out(i), s.diskSize, why) || fs::file_size(s.Out(i)) != s.diskSize)
            Die(v.name + " produced a wrong copy of " + s.sources[i] + " " + why);
    }
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main() {
    const DiskSet set;
    const int reps = static_cast<int>(EnvNumber("HX_BENCH_REPS", 5));
    std::vector<Variant> variants = Variants();
    const std::string only = EnvOr("HX_BENCH_ONLY", "");
    const bool verbose = !EnvOr("HX_BENCH_VERBOSE", "").empty();
    std::erase_if(variants, [&](const Variant& v) { return v.name.find(only) == std::string::npos; });
    std::map<std::string, std::vector<double>> wall, cpu;
    // Round 0 is not counted: the first runs after the set was written took up to four times
    // their later time and CPU (the set's own write-back, a page cache still filling), which
    // fell on whichever variant came first.
    for (int rep = 0; rep <= reps; ++rep) {
        // The order turns each repetition, so a drift of the machine's speed spreads over all.
        for (size_t k = 0; k < variants.size(); ++k) {
            const Variant& v = variants[(k + static_cast<size_t>(rep)) % variants.size()];
            Prepare(set, v);
            const double cpu0 = CpuNow();
            const auto t0 = std::chrono::steady_clock::now();
            v.run(set);
            const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            const double used = CpuNow() - cpu0;
            Check(set, v);
            if (verbose)
                std::fprintf(stderr, "round %d  %-30s %7.3f s  CPU %6.3f s%s\n", rep, v.name.c_str(), seconds, used,
                             rep == 0 ? "  (not counted)" : "");
            if (rep == 0) continue;
            wall[v.name].push_back(seconds);
            cpu[v.name].push_back(used);
        }
    }
    const double gib = static_cast<double>(set.Logical()) / (1u << 30);
    std::printf("%zu disks of %llu MiB (half random data, half holes), %.2f GiB logical, %d repetitions, medians\n",
                set.sources.size(), static_cast<unsigned long long>(set.diskSize / kMiB), gib, reps);
    for (const auto& v : variants)
        std::printf("%-30s %7.3f s  %7.1f MiB/s  CPU %6.3f s\n", v.name.c_str(), Median(wall[v.name]),
                    gib * 1024 / Median(wall[v.name]), Median(cpu[v.name]));
    auto ratio = [&](const char* label, const std::string& a, const std::string& b, const char* target) {
        std::printf("RATIO %-44s %6.3f  CPU %6.3f%s\n", label, Median(wall[b]) / Median(wall[a]),
                    Median(cpu[a]) / Median(cpu[b]), target);
    };
    if (!only.empty()) return 0;
    std::printf("(throughput ratio = baseline time / hxagent time; CPU ratio = hxagent CPU / baseline CPU)\n");
    ratio("backup  hxagent / cp --sparse=always + sync", "backup: hxagent", "backup: cp --sparse=always",
          "  (target >= 1.0)");
    ratio("backup  hxagent / dd bs=4M conv=sparse + sync", "backup: hxagent", "backup: dd bs=4M conv=sparse", "");
    ratio("backup  hxagent / cat + sync", "backup: hxagent", "backup: cat", "");
    ratio("restore hxagent / cp + sync", "restore: hxagent", "restore: cp + sync", "  (target >= 1.0)");
    return 0;
}
