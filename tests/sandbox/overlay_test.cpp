// Overlay mounts laid over directories of a sandboxed root. Each test runs in
// its own sandboxed process, so its mounts vanish with it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "mend_repair.h"
#include "test_files.h"

namespace android {
namespace init {
namespace {

namespace fs = std::filesystem;

MendRepairModule Module(const std::string& package, int64_t task, const std::string& path) {
  MendRepairModule m;
  m.parent_package.update_package_name = package;
  m.parent_package.task_id = task;
  m.module_path = path;
  return m;
}

// The mountinfo line of the mount at `target`, or "".
std::string MountInfo(const std::string& target) {
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  std::string found;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, dev, root, mount_point;
    fields >> id >> parent >> dev >> root >> mount_point;
    if (mount_point == target) found = line;  // the last one is on top
  }
  return found;
}

class OverlayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getenv("MEND_SANDBOX"), nullptr) << "run through scripts/sandbox";
    mend_test::WriteTreeFile("/system/app/stock.txt", "stock");
    mend_test::WriteTreeFile("/system/app/shared.txt", "stock");
    mend_test::WriteTreeFile("/system/lib64/libstock.txt", "stock");
    mend_test::WriteTreeFile("/mnt/rvx/pkgA/system/app/shared.txt", "A");
    mend_test::WriteTreeFile("/mnt/rvx/pkgB/system/app/shared.txt", "B");
    mend_test::WriteTreeFile("/mnt/rvx/pkgB/system/app/onlyB.txt", "B");
    mend_test::WriteTreeFile("/mnt/rvx/pkgB/system/lib64/libfix.txt", "B");
  }
  MendRepairManager* repair = MendRepairManager::GetInstance();
};

TEST_F(OverlayTest, PackagesOnOnePathShareOneMountSmallestTaskOnTop) {
  auto result = repair->startOverlay({Module("pkgB", 9, "/system/app"), Module("pkgA", 5, "/system/app")});
  ASSERT_EQ(result.size(), 2u);
  for (const auto& m : result) EXPECT_TRUE(m.is_overlay_success) << m.parent_package.update_package_name;
  // Input order is kept within the group.
  EXPECT_EQ(result.front().parent_package.update_package_name, "pkgB");

  EXPECT_EQ(mend_test::ReadFileOrEmpty("/system/app/shared.txt"), "A");
  EXPECT_EQ(mend_test::ReadFileOrEmpty("/system/app/onlyB.txt"), "B");
  EXPECT_EQ(mend_test::ReadFileOrEmpty("/system/app/stock.txt"), "stock");
  const std::string info = MountInfo("/system/app");
  EXPECT_NE(info.find(" overlay overlayfs-system_app "), std::string::npos) << info;
  EXPECT_NE(info.find("lowerdir=/mnt/rvx/pkgA/system/app:/mnt/rvx/pkgB/system/app:/system/app"),
            std::string::npos)
      << info;
  EXPECT_NE(info.find(" ro,"), std::string::npos) << info;
  std::ofstream attempt("/system/app/new.txt");
  EXPECT_FALSE(attempt.is_open());
}

TEST_F(OverlayTest, EqualTaskIdsKeepInputOrder) {
  auto result = repair->startOverlay({Module("pkgB", 5, "/system/app"), Module("pkgA", 5, "/system/app")});
  ASSERT_EQ(result.size(), 2u);
  EXPECT_EQ(mend_test::ReadFileOrEmpty("/system/app/shared.txt"), "B");
}

TEST_F(OverlayTest, AMissingLowerDirectoryFailsTheWholeGroupOnly) {
  auto result = repair->startOverlay({Module("pkgA", 1, "/system/lib64"),
                                      Module("pkgB", 2, "/system/app"),
                                      Module("pkgB", 2, "/system/lib64")});
  // Grouped by path in ascending order, input order inside a group.
  ASSERT_EQ(result.size(), 3u);
  auto it = result.begin();
  EXPECT_EQ(it->module_path, "/system/app");
  EXPECT_TRUE(it->is_overlay_success);
  ++it;
  EXPECT_EQ(it->module_path, "/system/lib64");
  EXPECT_EQ(it->parent_package.update_package_name, "pkgA");
  EXPECT_FALSE(it->is_overlay_success);
  ++it;
  EXPECT_EQ(it->parent_package.update_package_name, "pkgB");
  EXPECT_FALSE(it->is_overlay_success);
  EXPECT_EQ(MountInfo("/system/lib64").find("overlay"), std::string::npos);
  EXPECT_FALSE(fs::exists("/system/lib64/libfix.txt"));
}

TEST_F(OverlayTest, SourceNameAlwaysDropsTheFirstCharacter) {
  mend_test::WriteTreeFile("/mnt/rvx/pkgArel/system/app/x.txt", "x");
  ASSERT_EQ(chdir("/"), 0);
  auto result = repair->startOverlay({Module("pkgA", 1, "system/app")});
  ASSERT_EQ(result.size(), 1u);
  // "/mnt/rvx/pkgA" + "system/app" has no separator: the lower directory is
  // /mnt/rvx/pkgAsystem/app, which does not exist, so the mount fails.
  EXPECT_FALSE(result.front().is_overlay_success);

  mend_test::WriteTreeFile("/mnt/rvx/pkgAsystem/app/x.txt", "x");
  result = repair->startOverlay({Module("pkgA", 1, "system/app")});
  ASSERT_TRUE(result.front().is_overlay_success);
  EXPECT_NE(MountInfo("/system/app").find(" overlayfs-ystem_app "), std::string::npos)
      << MountInfo("/system/app");
}

// The daemon never catches this: a config with an empty module path entry
// ends it.
TEST_F(OverlayTest, EmptyModulePathRaisesOutOfRange) {
  EXPECT_THROW(repair->startOverlay({Module("pkgA", 1, "/system/app"), Module("pkgA", 1, "")}),
               std::out_of_range);
}

}  // namespace
}  // namespace init
}  // namespace android
