#include "hash_tree_builder.h"

#include <algorithm>

#include "data_blocks.h"

namespace rpktool {

using android::base::Result;
using avbformat::TreeLayout;
using avbformat::TreeLevel;

Result<HashTree> BuildHashTree(int fd, uint64_t data_offset, const TreeLayout& layout,
                               const BlockHasher& hasher, unsigned threads, Progress* progress,
                               const DataObserver& observer) {
  HashTree result;
  result.tree.assign(layout.tree_size, 0);
  std::vector<uint8_t> first_block;  // kept only when there is no tree
  const uint64_t level0 = layout.levels.empty() ? 0 : layout.levels[0].offset;
  const std::vector<uint8_t> zero_block(layout.data_block_size, 0);
  const std::vector<uint8_t> zero_digest = hasher.Hash(zero_block.data(), zero_block.size());
  auto hash_piece = [&](unsigned, uint64_t first, const uint8_t* blocks, uint64_t count,
                        uint64_t data_bytes) -> Result<void> {
    if (observer) observer(first * layout.data_block_size, blocks, data_bytes);
    if (layout.levels.empty()) {
      first_block.assign(blocks, blocks + layout.data_block_size);
      return {};
    }
    for (uint64_t i = 0; i < count; ++i) {
      const uint8_t* block = blocks + i * layout.data_block_size;
      uint8_t* slot = &result.tree[level0 + (first + i) * layout.slot_size];
      if (IsAllZero(block, layout.data_block_size)) {
        std::copy(zero_digest.begin(), zero_digest.end(), slot);
      } else {
        hasher.Hash(block, layout.data_block_size, slot);
      }
    }
    return {};
  };
  auto pass = ForEachDataPiece(fd, data_offset, layout, threads, nullptr, progress, hash_piece);
  if (!pass.ok()) return pass.error();

  // A single data block needs no tree: its digest is the root digest.
  if (layout.levels.empty()) {
    result.root_digest = hasher.Hash(first_block.data(), layout.data_block_size);
    return result;
  }
  // Levels above 0 are a hundredth of the data or less.
  for (size_t k = 0; k + 1 < layout.levels.size(); ++k) {
    const TreeLevel& below = layout.levels[k];
    const TreeLevel& above = layout.levels[k + 1];
    for (uint64_t j = 0; j < above.entries; ++j) {
      hasher.Hash(&result.tree[below.offset + j * layout.hash_block_size], layout.hash_block_size,
                  &result.tree[above.offset + j * layout.slot_size]);
    }
  }
  result.root_digest =
      hasher.Hash(&result.tree[layout.levels.back().offset], layout.hash_block_size);
  return result;
}

}  // namespace rpktool
