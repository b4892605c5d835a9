#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "DataMover.h"
#include "Manifest.h"
#include "RestoreJob.h"
#include "io/BackgroundSync.h"
#include "io/BlockPipeline.h"
#include "io/FileIo.h"

namespace hxagent {
namespace {

namespace fs = std::filesystem;
using io::DigestKind;

std::string HexOf(const unsigned char* md, unsigned len) {
    std::string hex;
    char two[3];
    for (unsigned i = 0; i < len; ++i) {
        std::snprintf(two, sizeof two, "%02x", md[i]);
        hex += two;
    }
    return hex;
}

// The reference digests, written from their definitions: a plain pread of every 4 MiB block
// (holes read as zeros) and one-shot EVP calls, nothing of the mover's.
std::string ReferenceDigest(const std::string& path, std::uint64_t size, DigestKind kind) {
    EVP_MD_CTX* whole = EVP_MD_CTX_new();
    EVP_DigestInit_ex(whole, EVP_sha256(), nullptr);
    std::vector<unsigned char> block(kChunkBytes);
    const int fd = ::open(path.c_str(), O_RDONLY);
    for (std::uint64_t off = 0; off < size; off += kChunkBytes) {
        const size_t n = static_cast<size_t>(std::min<std::uint64_t>(kChunkBytes, size - off));
        if (::pread(fd, block.data(), n, static_cast<off_t>(off)) != static_cast<ssize_t>(n)) ADD_FAILURE() << path;
        if (kind == DigestKind::kSha256) {
            EVP_DigestUpdate(whole, block.data(), n);
            continue;
        }
        unsigned char md[32];
        unsigned len = 0;
        EVP_Digest(block.data(), n, md, &len, EVP_sha256(), nullptr);
        EVP_DigestUpdate(whole, md, len);
    }
    ::close(fd);
    unsigned char md[32];
    unsigned len = 0;
    EVP_DigestFinal_ex(whole, md, &len);
    EVP_MD_CTX_free(whole);
    return HexOf(md, len);
}

class DataMoverTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("hxagent-mover-" + std::to_string(::getpid()) + "-" +
                                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string Path(const std::string& name) { return (dir_ / name).string(); }

    // A file of `size` bytes with `pieces` of random non-zero data at the given offsets; the
    // rest is holes, or written zeros when `dense`.
    static void MakeFile(const std::string& path, std::uint64_t size,
                         const std::vector<std::pair<std::uint64_t, std::uint64_t>>& pieces, bool dense = false) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
        if (dense) {
            const std::vector<unsigned char> zeros(size);
            ASSERT_EQ(::pwrite(fd, zeros.data(), size, 0), static_cast<ssize_t>(size));
        }
        std::mt19937 rng(42);
        for (auto [off, len] : pieces) {
            std::vector<unsigned char> data(len);
            for (auto& b : data) b = static_cast<unsigned char>(rng() | 1);  // never zero
            ASSERT_EQ(::pwrite(fd, data.data(), len, static_cast<off_t>(off)), static_cast<ssize_t>(len));
        }
        ::close(fd);
    }

    static std::uint64_t Allocated(const std::string& path) {
        struct stat st{};
        ::stat(path.c_str(), &st);
        return static_cast<std::uint64_t>(st.st_blocks) * 512;
    }

    fs::path dir_;
};

// Backup then restore of disks of every shape, with both digests: the image and the
// restored disk equal the source, the digest equals the reference computed from its
// definition, and only data is stored.
TEST_F(DataMoverTest, RoundTripsEveryShapeWithEitherDigest) {
    const std::uint64_t B = kChunkBytes;
    struct Case {
        const char* name;
        std::uint64_t size;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> pieces;
        bool dense;  // the zeros are written, not holes: found by reading
    };
    const Case cases[] = {
        {"holes and data, odd size",
         9 * B + 12345,
         {{0, 4096}, {B - 100, 300}, {5 * B + 70000, 200000}, {9 * B, 12345}},
         false},
        {"written zeros", 3 * B, {{2 * B + 5, 1}}, true},
        {"only a hole, odd size", 3 * B + 7, {}, false},
        {"shorter than a block", 1000, {{0, 1000}}, false},
        {"whole blocks of data", 2 * B, {{0, 2 * B}}, false},
        // A hole longer than the pipeline passes as one item, then data in the last block.
        {"long hole", 300 * B + 5, {{300 * B, 5}}, false},
    };
    for (const auto& c : cases) {
        for (DigestKind kind : {DigestKind::kBlockSha256, DigestKind::kSha256}) {
            if (c.size > 100 * B && kind == DigestKind::kSha256) continue;  // hashes every zero: slow, nothing new
            SCOPED_TRACE(std::string(c.name) + (kind == DigestKind::kSha256 ? ", SHA-256" : ", block SHA-256"));
            MakeFile(Path("src"), c.size, c.pieces, c.dense);
            std::uint64_t data = 0;
            for (auto [off, len] : c.pieces) data += len;
            const std::string expected = ReferenceDigest(Path("src"), c.size, kind);

            std::uint64_t lastDone = 0;
            MoveOptions o;
            o.digest = kind;
            o.progress = [&](std::uint64_t done, std::uint64_t total) {
                EXPECT_EQ(total, c.size);
                EXPECT_GE(done, lastDone);
                lastDone = done;
            };
            MoveResult r = ReadToImage(Path("src"), c.size, Path("img"), o);
            ASSERT_TRUE(r.ok) << r.error;
            EXPECT_EQ(lastDone, c.size);
            EXPECT_EQ(r.bytes, c.size);
            EXPECT_EQ(r.digestKind, kind);
            EXPECT_EQ(r.digest, expected);
            std::string why;
            EXPECT_EQ(fs::file_size(Path("img")), c.size);
            EXPECT_TRUE(SameContent(Path("src"), Path("img"), c.size, why)) << why;
            // Whole granules around the data were written, nothing else.
            EXPECT_GE(r.dataBytes, data);
            EXPECT_LE(r.dataBytes, data + 2 * io::kGranule * std::max<size_t>(1, c.pieces.size()));
            EXPECT_LE(Allocated(Path("img")), r.dataBytes + 2 * io::kGranule);

            MoveOptions plain;
            plain.digest = kind;
            EXPECT_EQ(HashFile(Path("img"), plain).digest, expected);

            MakeFile(Path("disk"), c.size + 3 * B, {});  // a fresh disk, larger than the image
            MoveResult w = WriteImageToDevice(Path("img"), Path("disk"), plain);
            ASSERT_TRUE(w.ok) << w.error;
            EXPECT_EQ(w.digest, expected);
            EXPECT_EQ(fs::file_size(Path("disk")), c.size + 3 * B);  // a device is never resized
            EXPECT_TRUE(SameContent(Path("src"), Path("disk"), c.size, why)) << why;
            EXPECT_LE(Allocated(Path("disk")), r.dataBytes + 2 * io::kGranule);
        }
    }
}

// The block digest is a stored format: these values must never change.
TEST_F(DataMoverTest, DigestsOfKnownContent) {
    { std::ofstream(Path("abc")) << "abc"; }
    MakeFile(Path("zeros-x"), kChunkBytes + 1, {});
    {
        std::fstream f(Path("zeros-x"), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(static_cast<std::streamoff>(kChunkBytes));
        f.put('x');
    }
    struct Case {
        std::string path;
        DigestKind kind;
        const char* digest;
    } cases[] = {
        {Path("abc"), DigestKind::kSha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        // SHA-256 of SHA-256("abc").
        {Path("abc"), DigestKind::kBlockSha256, "4f8b42c22dd3729b519ba6f68d2da7cc5b2d606d05daed5ad5128cc03e6c6358"},
        // A hole block, then one byte.
        {Path("zeros-x"), DigestKind::kBlockSha256, "5d090738d3950a5454a2f643223c44136d6c42662ef3cf8c62511faae3a059b5"},
    };
    for (const auto& c : cases) {
        MoveOptions o;
        o.digest = c.kind;
        MoveResult r = HashFile(c.path, o);
        ASSERT_TRUE(r.ok) << r.error;
        EXPECT_EQ(r.digest, c.digest) << c.path;
    }
}

// A source and sink that fail at a given block, for the pipeline's failure paths. Both are
// called from the pipeline's workers at once.
struct ScriptedSource : io::BlockSource {
    int failAt = -1;
    bool ordered() const override { return false; }
    std::uint64_t HoleBytes(std::uint64_t, std::uint64_t) override { return 0; }
    bool Read(std::uint64_t off, std::size_t n, unsigned char* buf, std::string& error) override {
        if (static_cast<int>(off / kChunkBytes) == failAt) {
            error = "cannot read /dev/fake: Input/output error";
            return false;
        }
        std::memset(buf, static_cast<int>(off / kChunkBytes) + 1, n);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a disk, not memory
        return true;
    }
};
struct RecordingSink : io::BlockSink {
    int failAt = -1;
    std::mutex mu;
    std::set<std::uint64_t> blocks;  // blocks of which a piece was written
    std::size_t pieces = 0;
    bool ordered() const override { return false; }
    bool Write(std::uint64_t off, const unsigned char*, std::size_t, std::uint64_t, std::uint64_t&,
               std::string& error) override {
        std::lock_guard<std::mutex> lock(mu);
        blocks.insert(off / kChunkBytes);
        ++pieces;
        if (static_cast<int>(off / kChunkBytes) != failAt) return true;
        error = "cannot write /dev/fake: No space left on device";
        return false;
    }
};

TEST_F(DataMoverTest, AFailureStopsEveryWorkerWithItsError) {
    struct Case {
        const char* name;
        int readFailsAt, writeFailsAt, cancelAfterPolls;
        const char* error;
    } cases[] = {
        {"read error mid-disk", 5, -1, -1, "cannot read /dev/fake: Input/output error"},
        {"write error mid-disk", -1, 3, -1, "cannot write /dev/fake: No space left on device"},
        {"cancelled", -1, -1, 2, "cancelled"},
    };
    const std::uint64_t size = 40 * kChunkBytes;
    const std::size_t allPieces = size / io::kPieceBytes;
    for (const auto& c : cases) {
        for (DigestKind kind : {DigestKind::kBlockSha256, DigestKind::kSha256}) {
            SCOPED_TRACE(std::string(c.name) + (kind == DigestKind::kSha256 ? ", SHA-256" : ", block SHA-256"));
            ScriptedSource source;
            source.failAt = c.readFailsAt;
            RecordingSink sink;
            sink.failAt = c.writeFailsAt;
            int polls = 0;
            MoveOptions o;
            o.digest = kind;
            if (c.cancelAfterPolls >= 0) o.cancelled = [&] { return ++polls > c.cancelAfterPolls; };
            MoveResult r = io::RunPipeline(source, &sink, size, o);
            EXPECT_FALSE(r.ok);
            EXPECT_EQ(r.error, c.error);
            EXPECT_EQ(r.cancelled, c.cancelAfterPolls >= 0);
            EXPECT_TRUE(r.digest.empty());
            EXPECT_LT(sink.pieces, allPieces) << "the move ran to the end";
            if (c.readFailsAt >= 0) {
                EXPECT_EQ(sink.blocks.count(static_cast<std::uint64_t>(c.readFailsAt)), 0u);
            }
        }
    }
}

// A device that shrinks under the backup (detached, say) ends in a read error, not in zeros:
// past its end nothing is a hole, whether it ends in data or in a hole.
TEST_F(DataMoverTest, ASourceEndingEarlyIsAReadErrorNamingIt) {
    MakeFile(Path("short"), 2 * kChunkBytes + 10, {{0, 100}});
    MakeFile(Path("short-in-data"), 2 * kChunkBytes + 10, {{2 * kChunkBytes, 10}});
    for (const char* name : {"short", "short-in-data"}) {
        MoveResult r = ReadToImage(Path(name), 6 * kChunkBytes, Path("img"), {});
        EXPECT_FALSE(r.ok) << name;
        EXPECT_NE(r.error.find("cannot read " + Path(name)), std::string::npos) << r.error;
    }
}

TEST_F(DataMoverTest, RefusesATargetSmallerThanTheImage) {
    MakeFile(Path("img"), 2 * kChunkBytes, {{0, 10}});
    MakeFile(Path("disk"), kChunkBytes, {});
    MoveResult r = WriteImageToDevice(Path("img"), Path("disk"), {});
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("needs"), std::string::npos) << r.error;
    EXPECT_EQ(Allocated(Path("disk")), 0u);  // untouched
}

// Deferred flushing: the output is complete once Wait() says so, and a flush that fails is
// reported once, with its path.
TEST_F(DataMoverTest, BackgroundSyncReportsTheOutputItCouldNotFlush) {
    MakeFile(Path("src"), 3 * kChunkBytes, {{kChunkBytes, 5000}});
    io::BackgroundSync sync;
    MoveOptions o;
    o.sync = &sync;
    ASSERT_TRUE(ReadToImage(Path("src"), 3 * kChunkBytes, Path("img"), o).ok);
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    sync.Add(pipe[0], "the pipe");  // fsync of a pipe fails (EINVAL)
    std::string error;
    EXPECT_FALSE(sync.Wait(error));
    EXPECT_NE(error.find("cannot flush the pipe"), std::string::npos) << error;
    ::close(pipe[1]);
    EXPECT_TRUE(sync.Wait(error));  // reported once
    std::string why;
    EXPECT_TRUE(SameContent(Path("src"), Path("img"), 3 * kChunkBytes, why)) << why;
}

// verify checks whichever digest the manifest carries: the block digest of this version,
// the whole image's SHA-256 of version 1.
TEST_F(DataMoverTest, VerifyBackupChecksTheManifestsDigest) {
    const std::uint64_t size = 2 * kChunkBytes + 3;
    MakeFile(Path("d-1.img"), size, {{100, 5000}, {kChunkBytes + 7, 9}});
    { std::ofstream(Path("config.json")) << "{}"; }
    Manifest m;
    m.configFile = "config.json";
    ManifestDisk d;
    d.id = "d-1";
    d.isOSDisk = true;
    d.size = size;
    d.image = "d-1.img";
    m.disks.push_back(d);
    Progress progress(OutputStyle::Json);
    auto flip = [&] {
        std::fstream f(Path("d-1.img"), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(kChunkBytes + 8);
        f.put('\0');
    };
    for (DigestKind kind : {DigestKind::kBlockSha256, DigestKind::kSha256}) {
        ManifestDisk& disk = m.disks[0];
        disk.blockSha256 = disk.sha256 = "";
        (kind == DigestKind::kSha256 ? disk.sha256 : disk.blockSha256) = ReferenceDigest(Path("d-1.img"), size, kind);
        std::string error;
        EXPECT_TRUE(VerifyBackup(dir_.string(), m, progress, error)) << error;
        EXPECT_TRUE(CheckBackupFiles(dir_.string(), m, error)) << error;
    }
    flip();
    for (DigestKind kind : {DigestKind::kBlockSha256, DigestKind::kSha256}) {
        ManifestDisk& disk = m.disks[0];
        disk.blockSha256 = disk.sha256 = "";
        (kind == DigestKind::kSha256 ? disk.sha256 : disk.blockSha256) = std::string(64, 'a');
        std::string error;
        EXPECT_FALSE(VerifyBackup(dir_.string(), m, progress, error));
        const std::string says = std::string("does not match its checksum (") + io::DigestName(kind) + " ";
        EXPECT_NE(error.find(says), std::string::npos) << error;
        EXPECT_TRUE(CheckBackupFiles(dir_.string(), m, error)) << "reads no data";
    }
}

TEST_F(DataMoverTest, SameContentComparesHolesAsZeros) {
    const std::uint64_t size = kChunkBytes + 17;
    MakeFile(Path("a"), size, {{100, 50}});
    fs::copy_file(Path("a"), Path("b"));
    std::string why;
    EXPECT_TRUE(SameContent(Path("a"), Path("b"), size, why));
    // One byte different at the very end, inside an otherwise-hole region.
    {
        int fd = ::open(Path("b").c_str(), O_WRONLY);
        ASSERT_EQ(::pwrite(fd, "z", 1, static_cast<off_t>(size - 1)), 1);
        ::close(fd);
    }
    EXPECT_FALSE(SameContent(Path("a"), Path("b"), size, why));
    EXPECT_TRUE(why.empty());
    EXPECT_FALSE(SameContent(Path("a"), Path("missing"), size, why));
    EXPECT_NE(why.find("missing"), std::string::npos);
}

TEST_F(DataMoverTest, ErrorsNameThePath) {
    MoveResult r = ReadToImage(Path("nope"), 10, Path("img"), {});
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find(Path("nope")), std::string::npos);
    std::string why;
    EXPECT_EQ(DeviceOrFileSize(Path("nope"), why), -1);
    EXPECT_EQ(DeviceOrFileSize(dir_.string(), why), -1);  // a folder is neither
}

}  // namespace
}  // namespace hxagent
