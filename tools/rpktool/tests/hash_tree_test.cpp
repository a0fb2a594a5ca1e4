// The hash tree: geometry, bytes identical to veritysetup's for many sizes
// and hashes, and the checker's verdicts on corrupted images.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "block_hasher.h"
#include "hash_tree_builder.h"
#include "hash_tree_checker.h"
#include "hash_tree_geometry.h"
#include "parse.h"
#include "tool_test_util.h"

namespace rpktool {
namespace {

using avbformat::ComputeTreeLayout;
using avbformat::TreeLayout;
using avbformat::TreeLevel;
using mend_test::FlipByte;
using mend_test::ReadWholeFile;
using mend_test::RunProgram;
using mend_test::TempDir;
using mend_test::WriteWholeFile;

android::base::unique_fd OpenRead(const std::string& path) {
  return android::base::unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// Tree sizes and level order are checked byte for byte against veritysetup
// below; what it cannot show is a short last block and impossible geometry.
TEST(TreeLayout, CountsAShortLastBlockAndRejectsImpossibleGeometry) {
  EXPECT_EQ(ComputeTreeLayout(4096 * 3 + 1, 4096, 4096, 32)->data_blocks, 4u);
  EXPECT_FALSE(ComputeTreeLayout(0, 4096, 4096, 32).ok());
  EXPECT_FALSE(ComputeTreeLayout(4096, 3000, 4096, 32).ok());
  EXPECT_FALSE(ComputeTreeLayout(4096, 4096, 256, 32).ok());
  EXPECT_FALSE(ComputeTreeLayout(4096, 512, 512, 1024).ok());
  EXPECT_FALSE(ComputeTreeLayout(uint64_t{1} << 60, 4096, 4096, 32).ok());
}

// Data with runs of zero blocks, so that zero digests appear in the tree.
std::string PatternedData(uint64_t blocks, uint32_t block_size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(blocks * block_size, '\0');
  for (uint64_t b = 0; b < blocks; ++b) {
    if (b % 5 == 3) continue;
    for (uint32_t i = 0; i < block_size; ++i) {
      data[b * block_size + i] = static_cast<char>(random());
    }
  }
  return data;
}

TEST(HashTreeBuilder, MatchesVeritysetupByteForByte) {
  struct Case {
    uint64_t blocks;
    uint32_t block_size;
    const char* hash;
  };
  TempDir dir;
  unsigned seed = 1;
  // One block (no tree), one hash block exactly full and one more, two and
  // three levels, and other digest and block sizes.
  for (const Case& c :
       {Case{1, 4096, "sha256"}, Case{2, 4096, "sha256"}, Case{128, 4096, "sha256"},
        Case{129, 4096, "sha256"}, Case{4097, 4096, "sha256"}, Case{4097, 4096, "sha512"},
        Case{70, 4096, "sha1"}, Case{1000, 1024, "sha256"}}) {
    SCOPED_TRACE(std::to_string(c.blocks) + " x " + std::to_string(c.block_size) + " " + c.hash);
    const std::string data_path = dir / "data";
    const std::string tree_path = dir / "tree";
    WriteWholeFile(data_path, PatternedData(c.blocks, c.block_size, seed++));
    unlink(tree_path.c_str());  // veritysetup writes into an existing file without truncating
    const std::vector<uint8_t> salt = {0xde, 0xad, 0xbe, 0xef, 0x01};
    auto reference = RunProgram({"veritysetup", "format", "--no-superblock", "--format=1",
                                 std::string("--hash=") + c.hash,
                                 "--data-block-size=" + std::to_string(c.block_size),
                                 "--hash-block-size=" + std::to_string(c.block_size),
                                 "--salt=" + ToHex(salt), data_path, tree_path});
    ASSERT_EQ(reference.exit_code, 0) << reference.out;

    auto hasher = BlockHasher::Create(c.hash, salt);
    ASSERT_TRUE(hasher.ok());
    auto layout = ComputeTreeLayout(c.blocks * c.block_size, c.block_size, c.block_size,
                                    static_cast<uint32_t>(hasher->digest_size()));
    ASSERT_TRUE(layout.ok());
    auto fd = OpenRead(data_path);
    for (unsigned threads : {1u, 3u}) {
      auto tree = BuildHashTree(fd.get(), 0, *layout, *hasher, threads);
      ASSERT_TRUE(tree.ok()) << tree.error();
      EXPECT_NE(reference.out.find(ToHex(tree->root_digest)), std::string::npos)
          << "root digest " << ToHex(tree->root_digest) << " not in:\n"
          << reference.out;
      if (c.blocks > 1) {
        const std::string expected = ReadWholeFile(tree_path);
        EXPECT_TRUE(std::string(tree->tree.begin(), tree->tree.end()) == expected)
            << "tree bytes differ (" << threads << " threads)";
      }
    }
  }
}

TEST(HashTreeBuilder, ReportsAFileShorterThanTheDataArea) {
  TempDir dir;
  WriteWholeFile(dir / "short", std::string(4096 * 3, 'x'));
  auto hasher = BlockHasher::Create("sha256", {1});
  auto layout = ComputeTreeLayout(4096 * 4, 4096, 4096, 32);
  auto fd = OpenRead(dir / "short");
  auto tree = BuildHashTree(fd.get(), 0, *layout, *hasher, 2);
  ASSERT_FALSE(tree.ok());
  EXPECT_NE(tree.error().message().find("data block 0"), std::string::npos) << tree.error();
}

// An image (data then tree) written after an offset, with its parameters.
struct TestImage {
  std::string path;
  uint64_t offset = 512;  // the image does not start at the file's start
  uint64_t length = 0;
  VerityParams params;
  TreeLayout layout;
};

TestImage MakeImage(const TempDir& dir, uint64_t blocks, const std::string& hash) {
  TestImage image;
  image.path = dir / "image";
  const std::string data = PatternedData(blocks, 4096, 7);
  WriteWholeFile(dir / "data", data);
  image.params.hash_algorithm = hash;
  image.params.salt = {9, 8, 7, 6};
  image.params.data_block_size = image.params.hash_block_size = 4096;
  image.params.data_size = data.size();
  auto hasher = BlockHasher::Create(hash, image.params.salt);
  image.layout =
      *ComputeTreeLayout(data.size(), 4096, 4096, static_cast<uint32_t>(hasher->digest_size()));
  auto fd = OpenRead(dir / "data");
  auto tree = BuildHashTree(fd.get(), 0, image.layout, *hasher, 2);
  image.params.tree_offset = data.size();
  image.params.root_digest = tree->root_digest;
  std::string file(image.offset, 'P');
  file += data;
  file.append(tree->tree.begin(), tree->tree.end());
  file += std::string(8192, '\0');  // vbmeta and footer would follow
  image.length = file.size() - image.offset;
  WriteWholeFile(image.path, file);
  return image;
}

TreeCheckResult Check(const TestImage& image, unsigned threads = 2) {
  auto fd = OpenRead(image.path);
  auto result = CheckHashTree(fd.get(), image.offset, image.length, image.params, threads);
  EXPECT_TRUE(result.ok()) << result.error();
  return result.ok() ? *result : TreeCheckResult{};
}

// Images with bytes flipped in data or tree blocks: the first bad block in
// tree order (top level first, then data), whatever the thread count.
TEST(HashTreeChecker, NamesTheFirstBadBlockAndItsKind) {
  struct Flip {
    int level;  // -1: a data block
    uint64_t block;
    uint32_t byte;
  };
  struct Case {
    const char* what;
    uint64_t blocks;
    const char* hash;
    std::vector<Flip> flips;
    bool is_data;
    uint64_t index;
    uint32_t level;
    bool zero_at_signing;
  } cases[] = {
      {"two data blocks", 1500, "sha512", {{-1, 1400, 7}, {-1, 1234, 4095}}, true, 1234, 0, false},
      {"a block of zeros", 1500, "sha256", {{-1, 8, 100}}, true, 8, 0, true},
      // Three levels: 0 (79 blocks), 1 and 2 (the top).
      {"level 0 before data", 5000, "sha512", {{-1, 0, 10}, {0, 3, 9}}, false, 3, 0, false},
      {"the top level", 5000, "sha512", {{2, 0, 5}}, false, 0, 2, false},
      {"a single block", 1, "sha256", {{-1, 0, 4000}}, true, 0, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    TestImage image = MakeImage(dir, c.blocks, c.hash);
    TreeCheckResult intact = Check(image);
    EXPECT_FALSE(intact.bad_block.has_value());
    EXPECT_EQ(intact.zero_blocks, c.blocks > 3 ? c.blocks / 5 : 0);  // every fifth block
    auto block_offset = [&](int level, uint64_t block) {
      return level < 0
                 ? block * 4096
                 : image.params.tree_offset + image.layout.levels[level].offset + block * 4096;
    };
    for (const Flip& flip : c.flips) {
      FlipByte(image.path, image.offset + block_offset(flip.level, flip.block) + flip.byte);
    }
    for (unsigned threads : {1u, 3u}) {
      const TreeCheckResult result = Check(image, threads);
      ASSERT_TRUE(result.bad_block.has_value());
      const BadBlock& bad = *result.bad_block;
      EXPECT_EQ(bad.is_data, c.is_data);
      EXPECT_EQ(bad.index, c.index);
      EXPECT_EQ(bad.zero_at_signing, c.zero_at_signing);
      EXPECT_EQ(bad.image_offset,
                block_offset(c.is_data ? -1 : static_cast<int>(c.level), c.index));
      EXPECT_EQ(bad.level, c.is_data ? 0 : c.level);
    }
  }
}

TEST(HashTreeChecker, RefusesParametersThatDoNotDescribeTheImage) {
  TempDir dir;
  TestImage image = MakeImage(dir, 300, "sha256");
  auto fd = OpenRead(image.path);
  auto expect_error = [&](VerityParams params, const std::string& words) {
    auto result = CheckHashTree(fd.get(), image.offset, image.length, params, 2);
    ASSERT_FALSE(result.ok()) << words;
    EXPECT_NE(result.error().message().find(words), std::string::npos) << result.error();
  };
  VerityParams params = image.params;
  params.tree_offset = image.length - 4096;
  expect_error(params, "outside");
  params = image.params;
  params.data_size = image.length + 4096;
  expect_error(params, "exceeds");
  params = image.params;
  params.root_digest.pop_back();
  expect_error(params, "root digest has");
  params = image.params;
  params.hash_algorithm = "nohash";
  expect_error(params, "unsupported hash");
}

}  // namespace
}  // namespace rpktool
