// Throughput of hxagent's data mover against the usual command-line tools, on one sparse
// file that looks like a lightly used disk: stretches of random data, stretches of written
// zeros (allocated but empty, as a freshly formatted file system leaves them) and holes.
//
// Every variant is timed the same way: a steady clock around the operation alone, the
// output's fsync included (the mover fsyncs its image, so cp and dd get an fsync of their
// output before the clock stops). Removing the previous output and evicting the source
// from the page cache happen outside the timed region.
//
// Environment:
//   HX_BENCH_DIR       folder for the temporary files (default $TMPDIR or /tmp)
//   HX_BENCH_FILE_MIB  size of the source file in MiB (default 384, rounded to 32 MiB)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
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
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "DataMover.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1ull << 20;
// One stripe of the source: random data, then written zeros, then a hole.
constexpr std::uint64_t kStripe = 32 * kMiB;
constexpr std::uint64_t kRandomPerStripe = 12 * kMiB;
constexpr std::uint64_t kZerosPerStripe = 4 * kMiB;

std::string EnvOr(const char* name, const std::string& fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : fallback;
}

// Full write or throw: the fixture must be exactly what it claims to be.
void WriteAll(int fd, const char* data, std::size_t n, off_t at) {
    while (n > 0) {
        ssize_t w = ::pwrite(fd, data, n, at);
        if (w < 0) throw std::runtime_error(std::string("pwrite: ") + std::strerror(errno));
        data += w;
        n -= static_cast<std::size_t>(w);
        at += w;
    }
}

void FsyncPath(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("open " + path + ": " + std::strerror(errno));
    int rc = ::fsync(fd);
    ::close(fd);
    if (rc != 0) throw std::runtime_error("fsync " + path + ": " + std::strerror(errno));
}

// Clean pages only: the file has been fsynced, so this empties the page cache of it.
void Evict(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
}

// Brings a file into the page cache.
void Warm(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    std::vector<char> buf(4 * kMiB);
    while (::read(fd, buf.data(), buf.size()) > 0) {
    }
    ::close(fd);
}

std::uint64_t AllocatedBytes(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return static_cast<std::uint64_t>(st.st_blocks) * 512;
}

// Runs argv without a shell and waits; true on exit status 0.
bool Run(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct Fixture {
    fs::path dir;
    std::string source;
    std::string image;  // a reference image made by the mover, input of the restore and hash variants
    std::uint64_t size = 0;
    std::uint64_t nonZero = 0;    // bytes of random data
    std::uint64_t allocated = 0;  // blocks the file system holds for the source

    Fixture() {
        const std::uint64_t mib = std::strtoull(EnvOr("HX_BENCH_FILE_MIB", "384").c_str(), nullptr, 10);
        const std::uint64_t stripes = std::max<std::uint64_t>(1, mib * kMiB / kStripe);
        size = stripes * kStripe;
        fs::path base = EnvOr("HX_BENCH_DIR", EnvOr("TMPDIR", "/tmp"));
        std::string tmpl = (base / "hx-bench-mover-XXXXXX").string();
        if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp in " + base.string() + " failed");
        dir = tmpl;
        source = (dir / "source.img").string();
        image = (dir / "reference.img").string();

        int fd = ::open(source.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) throw std::runtime_error("create " + source);
        std::mt19937_64 rng(20240531);
        std::vector<std::uint64_t> words(kRandomPerStripe / sizeof(std::uint64_t));
        const std::vector<char> zeros(kZerosPerStripe, 0);
        for (std::uint64_t s = 0; s < stripes; ++s) {
            for (auto& w : words) w = rng();
            const off_t at = static_cast<off_t>(s * kStripe);
            WriteAll(fd, reinterpret_cast<const char*>(words.data()), kRandomPerStripe, at);
            WriteAll(fd, zeros.data(), zeros.size(), at + static_cast<off_t>(kRandomPerStripe));
            nonZero += kRandomPerStripe;
        }
        if (::ftruncate(fd, static_cast<off_t>(size)) != 0 || ::fsync(fd) != 0) {
            ::close(fd);
            throw std::runtime_error("size " + source);
        }
        ::close(fd);
        allocated = AllocatedBytes(source);

        auto made = hxagent::ReadToImage(source, size, image, {});
        if (!made.ok) throw std::runtime_error("reference image: " + made.error);
    }
    ~Fixture() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

Fixture& Shared() {
    static Fixture fixture;
    return fixture;
}

enum Cache : int64_t { kCold = 0, kWarm = 1 };

// Prepares one iteration outside the timed region: no previous output, the input in the
// requested cache state.
void Prepare(const std::string& input, const std::string& output, int64_t cache) {
    std::error_code ec;
    fs::remove(output, ec);
    if (cache == kWarm)
        Warm(input);
    else
        Evict(input);
}

void Report(benchmark::State& state, const Fixture& f, std::uint64_t written) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.size));
    state.counters["logical_MiB"] = static_cast<double>(f.size) / kMiB;
    state.counters["written_MiB"] = static_cast<double>(written) / kMiB;
    state.counters["nonzero_B/s"] = benchmark::Counter(static_cast<double>(f.nonZero),
                                                       benchmark::Counter::kIsIterationInvariantRate,
                                                       benchmark::Counter::kIs1024);
    state.SetLabel(state.range(0) == kWarm ? "input in page cache" : "input evicted");
}

template <typename Op>
void Timed(benchmark::State& state, Op op) {
    const auto start = std::chrono::steady_clock::now();
    op();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

// Backup side: a disk (here the sparse source) into an image, SHA-256 computed on the way.
void BM_MoverReadToImage(benchmark::State& state) {
    Fixture& f = Shared();
    const std::string out = (f.dir / "mover.img").string();
    std::uint64_t written = 0;
    for (auto _ : state) {
        Prepare(f.source, out, state.range(0));
        Timed(state, [&] {
            auto r = hxagent::ReadToImage(f.source, f.size, out, {});
            if (!r.ok) state.SkipWithError(r.error.c_str());
            written = AllocatedBytes(out);
        });
    }
    Report(state, f, written);
}

// Restore side: the image onto a fresh, zeroed target of the same size (what a new cloud
// disk is); the target is created outside the timed region.
void BM_MoverWriteImageToDevice(benchmark::State& state) {
    Fixture& f = Shared();
    const std::string out = (f.dir / "target.img").string();
    std::uint64_t written = 0;
    for (auto _ : state) {
        Prepare(f.image, out, state.range(0));
        int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(f.size)) != 0) {
            state.SkipWithError("cannot create the target");
            if (fd >= 0) ::close(fd);
            break;
        }
        ::close(fd);
        Timed(state, [&] {
            auto r = hxagent::WriteImageToDevice(f.image, out, {});
            if (!r.ok) state.SkipWithError(r.error.c_str());
            written = AllocatedBytes(out);
        });
    }
    Report(state, f, written);
}

// The SHA-256 part of the backup cost, alone: the mover's sparse-aware hash of the image.
void BM_MoverHashFile(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        Prepare(f.image, "", state.range(0));
        Timed(state, [&] {
            auto r = hxagent::HashFile(f.image, {});
            if (!r.ok) state.SkipWithError(r.error.c_str());
        });
    }
    Report(state, f, 0);
}

void BM_CpSparseAlways(benchmark::State& state) {
    Fixture& f = Shared();
    const std::string out = (f.dir / "cp.img").string();
    std::uint64_t written = 0;
    for (auto _ : state) {
        Prepare(f.source, out, state.range(0));
        Timed(state, [&] {
            if (!Run({"cp", "--sparse=always", f.source, out})) state.SkipWithError("cp failed");
            FsyncPath(out);
            written = AllocatedBytes(out);
        });
    }
    Report(state, f, written);
}

void BM_DdConvSparse(benchmark::State& state) {
    Fixture& f = Shared();
    const std::string out = (f.dir / "dd.img").string();
    std::uint64_t written = 0;
    for (auto _ : state) {
        Prepare(f.source, out, state.range(0));
        Timed(state, [&] {
            if (!Run({"dd", "if=" + f.source, "of=" + out, "bs=4M", "conv=sparse", "status=none"}))
                state.SkipWithError("dd failed");
            FsyncPath(out);
            written = AllocatedBytes(out);
        });
    }
    Report(state, f, written);
}

// coreutils' SHA-256 of the same image, next to the mover's own hash.
void BM_Sha256sum(benchmark::State& state) {
    Fixture& f = Shared();
    const std::string devnull = "/dev/null";
    for (auto _ : state) {
        Prepare(f.image, "", state.range(0));
        Timed(state, [&] {
            posix_spawn_file_actions_t actions;
            ::posix_spawn_file_actions_init(&actions);
            ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, devnull.c_str(), O_WRONLY, 0);
            std::string prog = "sha256sum";
            std::vector<char*> argv{prog.data(), f.image.data(), nullptr};
            pid_t pid = 0;
            int status = 1;
            if (::posix_spawnp(&pid, "sha256sum", &actions, nullptr, argv.data(), environ) == 0)
                ::waitpid(pid, &status, 0);
            ::posix_spawn_file_actions_destroy(&actions);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("sha256sum failed");
        });
    }
    Report(state, f, 0);
}

// The copies must be the source, or their speed means nothing: checked once, untimed.
void BM_VerifyCopies(benchmark::State& state) {
    Fixture& f = Shared();
    for (auto _ : state) {
        for (const char* name : {"mover.img", "target.img", "cp.img", "dd.img"}) {
            const std::string path = (f.dir / name).string();
            if (!fs::exists(path)) continue;
            std::string error;
            if (!hxagent::SameContent(f.source, path, f.size, error) || fs::file_size(path) != f.size) {
                state.SkipWithError((std::string(name) + " differs from the source " + error).c_str());
                return;
            }
        }
    }
    state.SetLabel("mover, restore, cp and dd outputs equal the source");
}

void Args(benchmark::internal::Benchmark* b) {
    b->ArgName("warm")->Arg(kCold)->Arg(kWarm)->Iterations(4)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_MoverReadToImage)->Apply(Args);
BENCHMARK(BM_MoverWriteImageToDevice)->Apply(Args);
BENCHMARK(BM_CpSparseAlways)->Apply(Args);
BENCHMARK(BM_DdConvSparse)->Apply(Args);
BENCHMARK(BM_MoverHashFile)->Apply(Args);
BENCHMARK(BM_Sha256sum)->Apply(Args);
BENCHMARK(BM_VerifyCopies)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
