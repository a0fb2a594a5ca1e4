// The dm-verity table the engine builds from verified hashtree parameters,
// and the read-through of a device, on plain files (no kernel dm needed).
#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <android-base/strings.h>

#include <cstring>
#include <filesystem>

#include "avb_fixtures.h"
#include "mend_mount.h"
#include "verity_fixtures.h"
#include "zip_builder.h"

namespace {

using android::rpk::CreateVerityTable;
using android::rpk::ReadVerityDevice;
using mend_test::MakeVerityData;
using mend_test::ManifestPackage;
using mend_test::ManifestVerityData;

// The single target of a table, as "<start> <length> <type> <params>".
std::string TableLine(const android::dm::DmTable& table) {
  EXPECT_EQ(table.num_targets(), 1u);
  const auto& target = table.targets().front();
  return std::to_string(target->start()) + " " + std::to_string(target->size()) + " " +
         target->name() + " " + target->GetParameterString();
}

std::vector<std::string> Words(const std::string& line) {
  return android::base::Split(line, " ");
}

TEST(CreateVerityTableTest, OneMiBImageOnOneDevice) {
  const auto data = MakeVerityData(1048576, 1048576, 4096, 4096, "sha256", "aa", "bb");
  auto table = CreateVerityTable(data, "/dev/block/loop7", "/dev/block/loop7", false);
  ASSERT_TRUE(table->valid());
  EXPECT_TRUE(table->readonly());
  EXPECT_EQ(table->num_sectors(), 2048u);
  EXPECT_EQ(TableLine(*table),
            "0 2048 verity 1 /dev/block/loop7 /dev/block/loop7 4096 4096 256 256 sha256 aa bb "
            "1 ignore_zero_blocks");
}

TEST(CreateVerityTableTest, TreeOnAnotherDeviceStartsAtBlockZero) {
  const auto data = MakeVerityData(1048576, 1048576, 4096, 4096);
  auto table = CreateVerityTable(data, "/dev/block/loop7", "/dev/block/loop8", false);
  const auto words = Words(TableLine(*table));
  ASSERT_GE(words.size(), 10u);
  EXPECT_EQ(words[4], "/dev/block/loop7");
  EXPECT_EQ(words[5], "/dev/block/loop8");
  EXPECT_EQ(words[9], "0");  // hash start block

  // Equal devices are decided on the exact text, not on what it names.
  auto spelled_apart = CreateVerityTable(data, "/dev/loop7", "/dev/block/loop7", false);
  EXPECT_EQ(Words(TableLine(*spelled_apart))[9], "0");
}

TEST(CreateVerityTableTest, BlockSizesDriveCountsAndHashStart) {
  // 8 MiB of 1 KiB data blocks, tree after the data, 512-byte hash blocks.
  const auto data = MakeVerityData(8388608, 8388608, 1024, 512);
  const auto words = Words(TableLine(*CreateVerityTable(data, "d", "d", false)));
  ASSERT_GE(words.size(), 10u);
  EXPECT_EQ(words[1], "16384");  // sectors
  EXPECT_EQ(words[6], "1024");
  EXPECT_EQ(words[7], "512");
  EXPECT_EQ(words[8], "8192");   // data blocks
  EXPECT_EQ(words[9], "16384");  // tree offset / hash block size
}

TEST(CreateVerityTableTest, RestartOnCorruptionOnlyWhenAsked) {
  const auto data = MakeVerityData(1048576, 1048576, 4096, 4096);
  const std::string trial = TableLine(*CreateVerityTable(data, "d", "d", false));
  const std::string real = TableLine(*CreateVerityTable(data, "d", "d", true));
  EXPECT_TRUE(android::base::EndsWith(trial, " 1 ignore_zero_blocks")) << trial;
  EXPECT_TRUE(android::base::EndsWith(real, " 2 ignore_zero_blocks restart_on_corruption"))
      << real;
  EXPECT_EQ(trial.substr(0, trial.size() - 20), real.substr(0, real.size() - 42));
}

TEST(CreateVerityTableTest, ZeroBlockSizesDoNotCrash) {
  // No valid descriptor has them; the kernel refuses the table later.
  const auto data = MakeVerityData(1048576, 1048576, 0, 0);
  const auto words = Words(TableLine(*CreateVerityTable(data, "d", "d", false)));
  ASSERT_GE(words.size(), 10u);
  EXPECT_EQ(words[8], "0");
  EXPECT_EQ(words[9], "0");
}

// The reference packages' manifest records the table line of each package
// with "DEV" for the device and the trial and real lines with "<loop>".
TEST(CreateVerityTableTest, MatchesTheReferencePackagesTables) {
  for (const char* name : {"valid_2048", "valid_sha512", "data_corrupt"}) {
    SCOPED_TRACE(name);
    const Json::Value& package = ManifestPackage(name);
    const auto data = ManifestVerityData(name);
    EXPECT_EQ(TableLine(*CreateVerityTable(data, "DEV", "DEV", false)),
              package["hashtree"]["dm_table"].asString());
    EXPECT_EQ(TableLine(*CreateVerityTable(data, "<loop>", "<loop>", false)),
              package["expected_verity_table_trial"].asString());
    EXPECT_EQ(TableLine(*CreateVerityTable(data, "<loop>", "<loop>", true)),
              package["expected_verity_table_real"].asString());
  }
}

class ReadVerityDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/mend-read-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string MakeFile(const std::string& name, size_t size) {
    const std::string path = dir_ + "/" + name;
    mend_test::WriteWholeFile(path, std::string(size, 'x'));
    return path;
  }

  std::string dir_;
};

TEST_F(ReadVerityDeviceTest, ReadsWholeAndPartialChunks) {
  // Two full 4 MiB chunks and a short one.
  const std::string path = MakeFile("image", 9 * 1024 * 1024 + 4096);
  EXPECT_TRUE(ReadVerityDevice(path, 9 * 1024 * 1024 + 4096).ok());
  // Less than the whole device is fine: only the image part is proven.
  EXPECT_TRUE(ReadVerityDevice(path, 4096).ok());
}

TEST_F(ReadVerityDeviceTest, SizeZeroReadsNothingButNeedsTheDevice) {
  EXPECT_TRUE(ReadVerityDevice(MakeFile("empty", 0), 0).ok());

  const std::string missing = dir_ + "/missing";
  auto result = ReadVerityDevice(missing, 0);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().message(), "Can't open " + missing + ": " + strerror(ENOENT));
  EXPECT_EQ(result.error().code(), ENOENT);
}

TEST_F(ReadVerityDeviceTest, DeviceShorterThanTheImageFailsAsCorrupted) {
  const std::string path = MakeFile("short", 4 * 1024 * 1024 + 512);
  auto result = ReadVerityDevice(path, 8 * 1024 * 1024);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().message(), "Can't verify " + path + "corrupted: " + strerror(EIO));
  EXPECT_EQ(result.error().code(), EIO);
}

TEST_F(ReadVerityDeviceTest, UnreadableDeviceFailsAsCorrupted) {
  // A directory opens read-only but every read fails with EISDIR.
  auto result = ReadVerityDevice(dir_, 4096);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().message(), "Can't verify " + dir_ + "corrupted: " + strerror(EISDIR));
}

}  // namespace
