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

TEST(ReadVerityDeviceTest, ReadsTheImagePartOrSaysWhyNot) {
  mend_test::TempDir dir;
  const std::string image = dir / "image";
  const std::string empty = dir / "empty";
  const std::string short_device = dir / "short";
  const std::string missing = dir / "missing";
  mend_test::WriteWholeFile(image, std::string(9 * 1024 * 1024 + 4096, 'x'));
  mend_test::WriteWholeFile(empty, "");
  mend_test::WriteWholeFile(short_device, std::string(4 * 1024 * 1024 + 512, 'x'));
  struct Case {
    std::string path;
    uint64_t size;
    int error;  // 0: the read succeeds
    std::string message;
  } cases[] = {
      // Two full 4 MiB chunks and a short one; less than the whole device is
      // fine, as only the image part is proven.
      {image, 9 * 1024 * 1024 + 4096, 0, ""},
      {image, 4096, 0, ""},
      // An end that direct I/O cannot reach is read all the same.
      {image, 4096 + 100, 0, ""},
      // Size zero reads nothing but needs the device.
      {empty, 0, 0, ""},
      {missing, 0, ENOENT, "Can't open " + missing + ": "},
      {short_device, 8 * 1024 * 1024, EIO, "Can't verify " + short_device + "corrupted: "},
      // A directory opens read-only but every read fails.
      {dir.path(), 4096, EISDIR, "Can't verify " + dir.path() + "corrupted: "},
  };
  for (const Case& c : cases) {
    auto result = ReadVerityDevice(c.path, c.size);
    if (c.error == 0) {
      EXPECT_TRUE(result.ok()) << c.path << ": " << result.error();
      continue;
    }
    ASSERT_FALSE(result.ok()) << c.path;
    EXPECT_EQ(result.error().message(), c.message + strerror(c.error));
    EXPECT_EQ(result.error().code(), c.error) << c.path;
  }
}

}  // namespace
