#pragma once

// Checks an image against its dm-verity (format 1) hash tree entirely in
// user space: the tree's own blocks from the root down, then every data
// block, each level and the data on all workers. Reports the first block
// that does not match and what kind of block it is.
//
// This is the entry point for any tool that checks an image region against
// verity parameters, for example those of a live device-mapper table:
// data_size = <num data blocks> * <data block size> and tree_offset =
// <hash start block> * <hash block size>, the region being the backing
// file's range behind the data device (which is also the hash device).
// It needs only the `rpktool_hashtree` library.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "progress.h"

namespace rpktool {

struct VerityParams {
  uint64_t data_size = 0;    // bytes of data the tree covers, from the region's start
  uint64_t tree_offset = 0;  // bytes from the region's start to the tree's first block
  uint32_t data_block_size = 0;
  uint32_t hash_block_size = 0;
  std::string hash_algorithm;  // "sha1", "sha256" or "sha512"
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
};

struct BadBlock {
  bool is_data = false;
  uint64_t index = 0;         // data block number, or block number within its level
  uint32_t level = 0;         // hash blocks: 0 = the level holding data-block digests
  uint32_t level_count = 0;   // hash blocks: levels in the tree
  uint64_t image_offset = 0;  // first byte of the block in the region
  // Data blocks: the tree records the digest of an all-zero block, which a
  // dm-verity read with ignore_zero_blocks returns as zeros without checking.
  bool zero_at_signing = false;
};

struct TreeCheckResult {
  std::optional<BadBlock> bad_block;
  uint64_t data_blocks = 0;
  uint64_t zero_blocks = 0;  // data blocks recorded as all zeros at signing
  uint64_t tree_size = 0;    // bytes, as the geometry gives it
};

// One sentence naming the block and what a device would make of it.
std::string DescribeBadBlock(const BadBlock& bad);

// Checks the region [region_offset, region_offset + region_size) of `fd`
// on `threads` workers. Fails, rather than reporting a bad block, when the
// parameters cannot describe the region: data or tree outside it, block
// sizes or a hash it cannot use, or a root digest of the wrong length.
android::base::Result<TreeCheckResult> CheckHashTree(int fd, uint64_t region_offset,
                                                     uint64_t region_size,
                                                     const VerityParams& params, unsigned threads,
                                                     Progress* progress = nullptr);

}  // namespace rpktool
