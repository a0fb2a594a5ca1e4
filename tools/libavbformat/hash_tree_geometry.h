#pragma once

// Geometry of a dm-verity (format 1) hash tree over a data area: how many
// levels, where each lies inside the tree and how large the tree is.
// Level 0 holds the digests of the data blocks; the highest level is one
// block, whose digest is the root digest. On disk the highest level comes
// first and level 0 last.

#include <android-base/result.h>

#include <cstdint>
#include <vector>

namespace avbformat {

struct TreeLevel {
  uint64_t offset;   // from the start of the tree
  uint64_t size;     // bytes, a multiple of the hash block size
  uint64_t entries;  // digests stored in this level
};

struct TreeLayout {
  uint64_t data_size;
  uint32_t data_block_size;
  uint32_t hash_block_size;
  uint32_t digest_size;
  uint32_t slot_size;  // digest size rounded up to a power of two
  uint64_t data_blocks;
  std::vector<TreeLevel> levels;  // [0] = digests of the data blocks
  uint64_t tree_size;
};

// Fails for block sizes that are not powers of two in [kMinTreeBlockSize,
// kMaxTreeBlockSize], a digest larger than a hash block, or a data area that
// is empty or larger than kMaxTreeDataSize. A data area that is not a whole
// number of blocks gets a zero-padded last block.
android::base::Result<TreeLayout> ComputeTreeLayout(uint64_t data_size, uint32_t data_block_size,
                                                    uint32_t hash_block_size, uint32_t digest_size);

}  // namespace avbformat
