// Packages changed after signing: what passes the AVB check but fails the
// tree check, and how verify names the bad block and its kind.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "tool_test_util.h"

namespace rpktool_test {
namespace {

bool Contains(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

class Tampered : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(dir_ / "config.txt", SampleConfig());
    root_ = MakeSampleTree(dir_);
    key_blob_ = KeyBlob(dir_, FixturePath("keys/rsa2048.pem"));
    ToolRun made = RunTool({"make", "--config", dir_ / "config.txt", "--root", root_, "--key",
                            FixturePath("keys/rsa2048.pem"), "--output", package()});
    ASSERT_EQ(made.exit_code, 0) << made.err;
    info_ = Info(package());
    image_offset_ = info_["image"]["offset"].asUInt64();
  }

  std::string package() const { return dir_ / "pkg.zip"; }

  Json::Value Verify() {
    ToolRun run = RunTool({"verify", "--json", "--key", key_blob_, package()});
    Json::Value result = ParseJson(run.out);
    EXPECT_EQ(run.exit_code, result["ok"].asBool() ? 0 : 1) << run.out;
    return result;
  }

  // Flips a byte at an offset inside the image.
  void FlipImageByte(uint64_t offset) { FlipByte(package(), image_offset_ + offset); }

  ScratchDir dir_;
  std::string root_;
  std::string key_blob_;
  Json::Value info_;
  uint64_t image_offset_ = 0;
};

TEST_F(Tampered, IntactPackageVerifies) { EXPECT_TRUE(Verify()["ok"].asBool()); }

TEST_F(Tampered, FileDataFlipPassesAvbButNamesTheDataBlock) {
  const std::string library = ReadFile(root_ + "/system/lib64/libfix.so");
  const std::string zip = ReadFile(package());
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
  // Find a data block that the tree records as all zeros.
  const Json::Value& tree = info_["hashtree"];
  std::vector<uint8_t> salt;
  for (size_t i = 0; i < tree["salt"].asString().size(); i += 2) {
    salt.push_back(static_cast<uint8_t>(std::stoi(tree["salt"].asString().substr(i, 2), nullptr, 16)));
  }
  std::string block(4096, '\0');
  std::string input(salt.begin(), salt.end());
  input += block;
  unsigned char digest[32];
  unsigned length = 0;
  EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr);
  const std::string zero_digest(reinterpret_cast<char*>(digest), 32);

  const std::string image = ReadFile(package()).substr(image_offset_, info_["image"]["size"].asUInt64());
  const uint64_t blocks = tree["num_data_blocks"].asUInt64();
  const uint64_t level0 = tree["tree_offset"].asUInt64() + tree["tree_size"].asUInt64() -
                          (blocks * 32 + 4095) / 4096 * 4096;
  uint64_t zero_block = 0;
  for (uint64_t i = blocks; i-- > 0;) {
    if (image.compare(level0 + i * 32, 32, zero_digest) == 0) {
      zero_block = i;
      break;
    }
  }
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

TEST_F(Tampered, MetadataFlipsFailInTheDaemonCode) {
  // Inside the signed auxiliary block (after the 256-byte header and the
  // 320-byte authentication block).
  FlipImageByte(info_["footer"]["vbmeta_offset"].asUInt64() + 600);
  Json::Value result = Verify();
  EXPECT_FALSE(result["avb"]["ok"].asBool());
  EXPECT_TRUE(Contains(result["avb"]["error"].asString(), ": HASH_MISMATCH")) << result["avb"];
  EXPECT_FALSE(result["hash_tree"]["checked"].asBool());

  FlipImageByte(info_["footer"]["vbmeta_offset"].asUInt64() + 600);  // restore
  FlipImageByte(info_["footer"]["vbmeta_offset"].asUInt64() + 300);  // the signature
  result = Verify();
  EXPECT_TRUE(Contains(result["avb"]["error"].asString(), ": SIGNATURE_MISMATCH")) << result["avb"];

  FlipImageByte(info_["footer"]["vbmeta_offset"].asUInt64() + 300);
  FlipImageByte(info_["image"]["size"].asUInt64() - 64);             // footer magic
  result = Verify();
  EXPECT_EQ(result["avb"]["error"].asString(), "AVB footer verification failed.");
}

}  // namespace
}  // namespace rpktool_test
