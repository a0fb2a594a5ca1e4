// The dm-verity table the engine builds from verified hashtree parameters,
// and the read-through of a device, on plain files (no kernel dm needed).
#include <gtest/gtest.h>

#include <errno.h>

#include <cstring>

#include "avb_fixtures.h"
#include "mend_mount.h"
#include "test_files.h"
#include "verity_fixtures.h"

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

TEST(CreateVerityTableTest, DevicesAndBlockSizesDriveTheLine) {
  struct Case {
    const char* what;
    android::rpk::RpkVerityData data;
    const char* data_device;
    const char* hash_device;
    const char* line;
  } cases[] = {
      // Equal devices are decided on the exact text, not on what it names:
      // the tree then starts at block 0 of the other device.
      {"tree on another device", MakeVerityData(1048576, 1048576, 4096, 4096), "/dev/loop7",
       "/dev/block/loop7",
       "0 2048 verity 1 /dev/loop7 /dev/block/loop7 4096 4096 256 0 sha256 00 11 "
       "1 ignore_zero_blocks"},
      // 8 MiB of 1 KiB data blocks, tree after the data, 512-byte hash blocks.
      {"block sizes", MakeVerityData(8388608, 8388608, 1024, 512), "d", "d",
       "0 16384 verity 1 d d 1024 512 8192 16384 sha256 00 11 1 ignore_zero_blocks"},
      // No valid descriptor has them; the kernel refuses the table later.
      {"zero block sizes", MakeVerityData(1048576, 1048576, 0, 0), "d", "d",
       "0 2048 verity 1 d d 0 0 0 0 sha256 00 11 1 ignore_zero_blocks"},
  };
  for (const Case& c : cases) {
    auto table = CreateVerityTable(c.data, c.data_device, c.hash_device, false);
    EXPECT_TRUE(table->readonly()) << c.what;
    EXPECT_EQ(TableLine(*table), c.line) << c.what;
  }
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
  std::string MakeFile(const std::string& name, size_t size) {
    mend_test::WriteWholeFile(dir_ / name, std::string(size, 'x'));
    return dir_ / name;
  }

  mend_test::TempDir dir_;
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

  const std::string missing = dir_ / "missing";
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
  auto result = ReadVerityDevice(dir_.path(), 4096);
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().message(), "Can't verify " + dir_.path() + "corrupted: " + strerror(EISDIR));
}

}  // namespace
