// Packages changed after signing: what passes the AVB check but fails the
// tree check, and how verify names the bad block and its kind.

#include <gtest/gtest.h>

#include "tool_test_util.h"

namespace mend_test {
namespace {

class Tampered : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteWholeFile(dir_ / "config.txt", PackageConfig("demo_fix1"));
    root_ = MakeSampleTree(dir_);
    key_blob_ = ExtractKeyBlob(dir_, AvbFixture("keys/rsa2048.pem"));
    const ProgramRun made = RunTool({"make", "--config", dir_ / "config.txt", "--root", root_,
                                     "--key", AvbFixture("keys/rsa2048.pem"), "--output", package()});
    ASSERT_EQ(made.exit_code, 0) << made.err;
    info_ = Info(package());
    image_offset_ = info_["image"]["offset"].asUInt64();
  }

  std::string package() const { return dir_ / "pkg.zip"; }

  Json::Value Verify() {
    const ProgramRun run = RunTool({"verify", "--json", "--key", key_blob_, package()});
    Json::Value result = ParseJson(run.out);
    EXPECT_EQ(run.exit_code, result["ok"].asBool() ? 0 : 1) << run.out;
    return result;
  }

  // Flips a byte at an offset inside the image.
  void FlipImageByte(uint64_t offset) { FlipByte(package(), image_offset_ + offset); }

  TempDir dir_;
  std::string root_;
  std::string key_blob_;
  Json::Value info_;
  uint64_t image_offset_ = 0;
};

TEST_F(Tampered, FileDataFlipPassesAvbButNamesTheDataBlock) {
  const std::string library = ReadWholeFile(root_ + "/system/lib64/libfix.so");
  const std::string zip = ReadWholeFile(package());
  const size_t at = zip.find(library.substr(0, 4096));
  ASSERT_NE(at, std::string::npos);
  const uint64_t image_position = at - image_offset_ + 5000;  // second block of the file
  FlipImageByte(image_position);

  const Json::Value result = Verify();
  EXPECT_FALSE(result["ok"].asBool());
  EXPECT_TRUE(result["avb"]["ok"].asBool()) << "AVB covers only the metadata";
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "data");
  EXPECT_EQ(bad["index"].asUInt64(), image_position / 4096);
  EXPECT_FALSE(bad["zero_at_signing"].asBool());
  EXPECT_TRUE(Contains(bad["description"].asString(), "a dm-verity read of it fails"));
}

TEST_F(Tampered, FlipInABlockThatWasAllZerosIsReportedAsSuch) {
  // The last data block that is all zeros (the tree was built from these
  // very bytes).
  const std::string image = ReadWholeFile(package()).substr(image_offset_);
  const std::string zeros(4096, '\0');
  uint64_t zero_block = info_["hashtree"]["num_data_blocks"].asUInt64() - 1;
  while (zero_block > 0 && image.compare(zero_block * 4096, 4096, zeros) != 0) --zero_block;
  ASSERT_GT(zero_block, 0u) << "the sample image has free, zeroed blocks";
  FlipImageByte(zero_block * 4096 + 17);

  const Json::Value result = Verify();
  EXPECT_FALSE(result["ok"].asBool());
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["index"].asUInt64(), zero_block);
  EXPECT_TRUE(bad["zero_at_signing"].asBool());
  EXPECT_TRUE(Contains(bad["description"].asString(), "ignore_zero_blocks")) << bad;
}

TEST_F(Tampered, TreeFlipNamesTheHashBlockAndLevel) {
  const Json::Value& tree = info_["hashtree"];
  // The last tree block belongs to level 0, the level of data-block digests.
  FlipImageByte(tree["tree_offset"].asUInt64() + tree["tree_size"].asUInt64() - 4096 + 10);
  const Json::Value result = Verify();
  EXPECT_TRUE(result["avb"]["ok"].asBool());
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "hash");
  EXPECT_EQ(bad["level"].asUInt(), 0u);
  EXPECT_EQ(bad["image_offset"].asUInt64(),
            tree["tree_offset"].asUInt64() + tree["tree_size"].asUInt64() - 4096);
}

TEST_F(Tampered, MetadataFlipFailsInTheDaemonCodeBeforeTheTree) {
  // Inside the signed auxiliary block (after the 256-byte header and the
  // 320-byte authentication block).
  FlipImageByte(info_["footer"]["vbmeta_offset"].asUInt64() + 600);
  const Json::Value result = Verify();
  EXPECT_FALSE(result["avb"]["ok"].asBool());
  EXPECT_EQ(result["avb"]["error"].asString(), "Error verifying " + package() + ": HASH_MISMATCH");
  EXPECT_FALSE(result["hash_tree"]["checked"].asBool());
}

}  // namespace
}  // namespace mend_test
