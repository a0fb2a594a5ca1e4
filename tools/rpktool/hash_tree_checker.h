#pragma once

// Full user-space check of an image against its hash tree: the tree's own
// blocks from the root down, then every data block, in parallel. Reports the
// first block that does not match and what kind of block it is.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "progress.h"
#include "tree_layout.h"

namespace rpktool {

// Hash tree parameters as the hashtree descriptor states them.
struct VerityParams {
  uint64_t image_size = 0;
  uint64_t tree_offset = 0;
  uint64_t tree_size = 0;
  uint32_t data_block_size = 0;
  uint32_t hash_block_size = 0;
  std::string hash_algorithm;
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
};

struct BadBlock {
  bool is_data = false;
  uint64_t index = 0;         // data block number, or block number within its level
  uint32_t level = 0;         // hash blocks: 0 = the level holding data-block digests
  uint32_t level_count = 0;   // hash blocks: levels in the tree
  uint64_t image_offset = 0;  // first byte of the block in the image
  // Data blocks: the tree records the digest of an all-zero block, which a
  // dm-verity read with ignore_zero_blocks returns as zeros without checking.
  bool zero_at_signing = false;
};

struct TreeCheckResult {
  std::optional<BadBlock> bad_block;
  uint64_t data_blocks = 0;
  uint64_t zero_blocks = 0;  // data blocks recorded as all zeros at signing
};

// Describes a bad block in one sentence.
std::string DescribeBadBlock(const BadBlock& bad);

// `image_offset` and `image_length` locate the image inside `fd`. Fails
// (rather than reporting a bad block) when the parameters are inconsistent:
// regions outside the image, a tree size that does not fit the data size,
// an unknown hash or a root digest of the wrong length.
android::base::Result<TreeCheckResult> CheckHashTree(int fd, uint64_t image_offset,
                                                     uint64_t image_length,
                                                     const VerityParams& params, unsigned threads,
                                                     Progress* progress = nullptr);

}  // namespace rpktool
