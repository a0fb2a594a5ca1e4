#include "hash_tree_geometry.h"

#include "avb_format.h"
#include "byte_order.h"

namespace avbformat {

using android::base::Error;
using android::base::Result;

namespace {

bool IsValidBlockSize(uint32_t size) {
  return size >= kMinTreeBlockSize && size <= kMaxTreeBlockSize && (size & (size - 1)) == 0;
}

uint32_t NextPowerOfTwo(uint32_t value) {
  uint32_t power = 1;
  while (power < value) power <<= 1;
  return power;
}

}  // namespace

Result<TreeLayout> ComputeTreeLayout(uint64_t data_size, uint32_t data_block_size,
                                     uint32_t hash_block_size, uint32_t digest_size) {
  if (!IsValidBlockSize(data_block_size) || !IsValidBlockSize(hash_block_size)) {
    return Error() << "block sizes " << data_block_size << "/" << hash_block_size
                   << " are not powers of two between " << kMinTreeBlockSize << " and "
                   << kMaxTreeBlockSize;
  }
  if (digest_size == 0 || NextPowerOfTwo(digest_size) > hash_block_size) {
    return Error() << "a " << digest_size << "-byte digest does not fit a " << hash_block_size
                   << "-byte hash block";
  }
  if (data_size == 0) return Error() << "the data area is empty";
  if (data_size > kMaxTreeDataSize) {
    return Error() << "a data area of " << data_size << " bytes is too large";
  }

  TreeLayout layout{};
  layout.data_size = data_size;
  layout.data_block_size = data_block_size;
  layout.hash_block_size = hash_block_size;
  layout.digest_size = digest_size;
  layout.slot_size = NextPowerOfTwo(digest_size);
  layout.data_blocks = data_size / data_block_size + (data_size % data_block_size != 0);

  // A single data block needs no tree: its digest is the root digest.
  uint64_t entries = layout.data_blocks;
  while (entries > 1) {
    const uint64_t size = RoundUp(entries * layout.slot_size, hash_block_size);
    layout.levels.push_back({0, size, entries});
    entries = size / hash_block_size;
  }
  uint64_t offset = 0;
  for (auto level = layout.levels.rbegin(); level != layout.levels.rend(); ++level) {
    level->offset = offset;
    offset += level->size;
  }
  layout.tree_size = offset;
  return layout;
}

}  // namespace avbformat
