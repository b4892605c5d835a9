#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "DataMover.h"

namespace hxagent {
namespace {

namespace fs = std::filesystem;

class DataMoverTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("hxagent-mover-" + std::to_string(::getpid()) + "-" +
                                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string Path(const std::string& name) { return (dir_ / name).string(); }

    // A sparse file of `size` bytes with `pieces` of random data at the given offsets.
    void MakeSparse(const std::string& path, std::uint64_t size,
                    const std::vector<std::pair<std::uint64_t, std::uint64_t>>& pieces) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
        std::mt19937 rng(42);
        for (auto [off, len] : pieces) {
            std::vector<unsigned char> data(len);
            for (auto& b : data) b = static_cast<unsigned char>(rng() | 1);  // never zero
            ASSERT_EQ(::pwrite(fd, data.data(), len, static_cast<off_t>(off)), static_cast<ssize_t>(len));
        }
        ::close(fd);
    }

    static std::string ReadAll(const std::string& path) {
        std::ifstream in(path, std::ios::binary | std::ios::ate);
        std::string data(static_cast<size_t>(in.tellg()), '\0');
        in.seekg(0);
        in.read(data.data(), static_cast<std::streamsize>(data.size()));
        return data;
    }

    // Reference digest: plain read of the whole file, one-shot EVP.
    static std::string Sha256Of(const std::string& content) {
        unsigned char md[32];
        unsigned int len = 0;
        EVP_Digest(content.data(), content.size(), md, &len, EVP_sha256(), nullptr);
        char hex[65];
        for (int i = 0; i < 32; ++i) std::snprintf(hex + 2 * i, 3, "%02x", md[i]);
        return hex;
    }

    static std::uint64_t Allocated(const std::string& path) {
        struct stat st{};
        ::stat(path.c_str(), &st);
        return static_cast<std::uint64_t>(st.st_blocks) * 512;
    }

    fs::path dir_;
};

TEST_F(DataMoverTest, ImageIsIdenticalSparseAndChecksummed) {
    // Not a multiple of the chunk or granule size; data at the start, straddling a chunk
    // boundary, and in the last partial granule.
    const std::uint64_t size = 9 * kChunkBytes + 12345;
    MakeSparse(Path("src"), size,
               {{0, 4096}, {kChunkBytes - 100, 300}, {5 * kChunkBytes + 70000, 200000}, {size - 1000, 1000}});
    std::uint64_t lastDone = 0, calls = 0;
    MoveOptions o;
    o.progress = [&](std::uint64_t done, std::uint64_t total) {
        EXPECT_EQ(total, size);
        EXPECT_GE(done, lastDone);
        lastDone = done;
        ++calls;
    };
    MoveResult r = ReadToImage(Path("src"), size, Path("img"), o);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(lastDone, size);
    EXPECT_GT(calls, 1u);

    const std::string src = ReadAll(Path("src")), img = ReadAll(Path("img"));
    ASSERT_EQ(img.size(), size);
    EXPECT_TRUE(src == img);
    EXPECT_EQ(r.sha256, Sha256Of(src));
    EXPECT_EQ(r.bytes, size);
    // Only the granules holding data were written, and the image stays sparse.
    EXPECT_GE(r.dataBytes, 4096u + 300 + 200000 + 1000);
    EXPECT_LE(r.dataBytes, 8 * kGranuleBytes);
    EXPECT_LT(Allocated(Path("img")), 2 * kChunkBytes);
}

TEST_F(DataMoverTest, WrittenZerosBecomeHoles) {
    // A dense file (every block allocated) that is all zeros but one granule.
    const std::uint64_t size = 3 * kChunkBytes;
    {
        std::ofstream out(Path("dense"), std::ios::binary);
        std::string zeros(size, '\0');
        zeros[2 * kChunkBytes + 5] = 'x';
        out << zeros;
    }
    ASSERT_GE(Allocated(Path("dense")), size);
    MoveResult r = ReadToImage(Path("dense"), size, Path("img"), {});
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.dataBytes, kGranuleBytes);
    EXPECT_LE(Allocated(Path("img")), 2 * kGranuleBytes);
    EXPECT_EQ(ReadAll(Path("img")), ReadAll(Path("dense")));
}

TEST_F(DataMoverTest, RestoreWritesOntoALargerZeroedTarget) {
    const std::uint64_t size = 2 * kChunkBytes + 999;
    MakeSparse(Path("img"), size, {{10, 5000}, {kChunkBytes + 3, 77}});
    MakeSparse(Path("disk"), 4 * kChunkBytes, {});
    MoveResult r = WriteImageToDevice(Path("img"), Path("disk"), {});
    ASSERT_TRUE(r.ok) << r.error;
    const std::string disk = ReadAll(Path("disk")), img = ReadAll(Path("img"));
    ASSERT_EQ(disk.size(), 4 * kChunkBytes);  // a device is never resized
    EXPECT_TRUE(disk.compare(0, size, img) == 0);
    EXPECT_EQ(disk.find_first_not_of('\0', size), std::string::npos);
    EXPECT_EQ(r.sha256, Sha256Of(img));
    std::string why;
    EXPECT_TRUE(SameContent(Path("img"), Path("disk"), size, why)) << why;
}

TEST_F(DataMoverTest, RefusesATargetSmallerThanTheImage) {
    MakeSparse(Path("img"), 2 * kChunkBytes, {{0, 10}});
    MakeSparse(Path("disk"), kChunkBytes, {});
    MoveResult r = WriteImageToDevice(Path("img"), Path("disk"), {});
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("needs"), std::string::npos) << r.error;
    EXPECT_EQ(ReadAll(Path("disk")).find_first_not_of('\0'), std::string::npos);  // untouched
}

TEST_F(DataMoverTest, CancelStopsTheCopy) {
    MakeSparse(Path("src"), 8 * kChunkBytes, {{0, 8 * kChunkBytes}});
    int polls = 0;
    MoveOptions o;
    o.cancelled = [&] { return ++polls > 2; };
    MoveResult r = ReadToImage(Path("src"), 8 * kChunkBytes, Path("img"), o);
    EXPECT_FALSE(r.ok);
    EXPECT_TRUE(r.cancelled);
    EXPECT_TRUE(r.sha256.empty());
}

TEST_F(DataMoverTest, HashAndCompare) {
    { std::ofstream(Path("abc")) << "abc"; }
    MoveResult h = HashFile(Path("abc"), {});
    ASSERT_TRUE(h.ok) << h.error;
    EXPECT_EQ(h.sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    const std::uint64_t size = kChunkBytes + 17;
    MakeSparse(Path("a"), size, {{100, 50}});
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
