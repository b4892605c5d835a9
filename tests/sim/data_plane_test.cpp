// The data plane: disk files are the disk's full size yet sparse, copies keep content and
// holes, patterns are recognisable, device links come and go.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "data/DataPlane.h"

namespace fs = std::filesystem;

namespace hxsim {
namespace {

class DataPlaneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "hxsim-dp-XXXXXX").string();
    ASSERT_TRUE(mkdtemp(pattern.data()));
    dir = pattern;
    plane = std::make_unique<data::DataPlane>(dir, dir / "root");
    plane->Prepare();
  }
  void TearDown() override { fs::remove_all(dir); }

  static uint64_t Allocated(const fs::path& p) {
    struct stat st {};
    EXPECT_EQ(::stat(p.c_str(), &st), 0);
    return static_cast<uint64_t>(st.st_blocks) * 512;
  }
  static std::string Read(const fs::path& p, uint64_t offset, size_t size) {
    std::ifstream in(p, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::string out(size, '\0');
    in.read(out.data(), static_cast<std::streamsize>(size));
    return out;
  }

  fs::path dir;
  std::unique_ptr<data::DataPlane> plane;
};

TEST_F(DataPlaneTest, DiskFilesAreFullSizeAndSparse) {
  fs::path disk = plane->DiskPath("d-1");
  data::DataPlane::CreateSparse(disk, 2 * data::kGiB);
  EXPECT_EQ(fs::file_size(disk), 2 * data::kGiB);
  EXPECT_LT(Allocated(disk), data::kMiB);
}

TEST_F(DataPlaneTest, PatternsAreRecognisableAndSpread) {
  fs::path disk = plane->DiskPath("d-marker");
  data::DataPlane::CreateSparse(disk, data::kGiB);
  data::DataPlane::Fill(disk, data::kGiB, {"marker", 4, "d-marker", 0});
  EXPECT_EQ(fs::file_size(disk), data::kGiB);
  EXPECT_GE(Allocated(disk), 4 * data::kMiB);
  EXPECT_LT(Allocated(disk), 8 * data::kMiB);
  // Chunks at 0, 256, 512, 768 MiB; each line names the disk and its own offset.
  std::string line = Read(disk, 512 * data::kMiB + 64, 64);
  EXPECT_EQ(line.substr(0, 14), "hxsim d-marker");
  EXPECT_NE(line.find("off=0000000020000040"), std::string::npos) << line;
  EXPECT_EQ(Read(disk, 100 * data::kMiB, 16), std::string(16, '\0'));

  fs::path random = plane->DiskPath("d-random");
  data::DataPlane::CreateSparse(random, data::kGiB);
  data::DataPlane::Fill(random, data::kGiB, {"random", 2, "d-random", 7});
  EXPECT_NE(Read(random, 0, 64), std::string(64, '\0'));
  EXPECT_THROW(data::DataPlane::Fill(random, data::kGiB, {"stripes", 1, "x", 0}), std::runtime_error);
}

TEST_F(DataPlaneTest, CopyKeepsContentAndHolesAndGrowsToTheTargetSize) {
  fs::path src = plane->DiskPath("d-src");
  data::DataPlane::CreateSparse(src, data::kGiB);
  data::DataPlane::Fill(src, data::kGiB, {"marker", 3, "d-src", 0});
  fs::path dst = plane->SnapshotPath("s-1");
  data::DataPlane::Copy(src, dst, 2 * data::kGiB);
  EXPECT_EQ(fs::file_size(dst), 2 * data::kGiB);
  EXPECT_LT(Allocated(dst), 2 * Allocated(src) + data::kMiB) << "copy must stay sparse";
  for (uint64_t offset : {uint64_t{0}, 341 * data::kMiB, 682 * data::kMiB + 4096}) {
    EXPECT_EQ(Read(dst, offset, 4096), Read(src, offset, 4096)) << offset;
  }
  EXPECT_EQ(Read(dst, data::kGiB + 5, 32), std::string(32, '\0'));

  // The copy is independent of later writes to the source.
  {
    std::fstream out(src, std::ios::in | std::ios::out | std::ios::binary);
    out.write("CHANGED", 7);
  }
  EXPECT_EQ(Read(dst, 0, 5), "hxsim");
  EXPECT_THROW(data::DataPlane::Copy(dst, plane->DiskPath("d-small"), data::kGiB), std::runtime_error);
}

TEST_F(DataPlaneTest, DeviceLinksPointAtTheDiskFile) {
  fs::path disk = plane->DiskPath("d-abc");
  data::DataPlane::CreateSparse(disk, data::kGiB);
  plane->LinkDevice("abc", disk);
  fs::path link = dir / "root/dev/disk/by-id/virtio-abc";
  ASSERT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::canonical(link), fs::canonical(disk));
  EXPECT_EQ(plane->DeviceLinks(), std::vector<std::string>{"virtio-abc"});
  plane->UnlinkDevice("abc");
  EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
  EXPECT_TRUE(plane->DeviceLinks().empty());
}

TEST_F(DataPlaneTest, PrepareWipesOnlyItsOwnFolders) {
  data::DataPlane::CreateSparse(plane->DiskPath("d-old"), data::kMiB);
  std::ofstream(dir / "keep.txt") << "user file";
  plane->Prepare();
  EXPECT_FALSE(fs::exists(plane->DiskPath("d-old")));
  EXPECT_TRUE(fs::exists(dir / "keep.txt"));
  EXPECT_TRUE(fs::is_directory(plane->ByIdDir()));
}

}  // namespace
}  // namespace hxsim
