#include "hash_tree_builder.h"

#include <algorithm>
#include <memory>

#include "data_blocks.h"

namespace rpktool {

using android::base::Result;

std::vector<uint8_t> CompleteUpperLevels(const TreeLayout& layout, BlockHasher& hasher,
                                         std::vector<uint8_t>& tree, const uint8_t* single_block) {
  if (layout.levels.empty()) return hasher.Hash(single_block, layout.data_block_size);
  for (size_t k = 0; k + 1 < layout.levels.size(); ++k) {
    const TreeLevel& below = layout.levels[k];
    const TreeLevel& above = layout.levels[k + 1];
    for (uint64_t j = 0; j < above.entries; ++j) {
      hasher.Hash(&tree[below.offset + j * layout.hash_block_size], layout.hash_block_size,
                  &tree[above.offset + j * layout.slot_size]);
    }
  }
  return hasher.Hash(&tree[layout.levels.back().offset], layout.hash_block_size);
}

Result<HashTree> BuildHashTree(int fd, uint64_t data_offset, const TreeLayout& layout,
                               const BlockHasher& hasher, unsigned threads, Progress* progress,
                               const DataObserver& observer) {
  HashTree result;
  result.tree.assign(layout.tree_size, 0);
  std::vector<uint8_t> first_block;  // kept only when there is no tree
  const uint64_t level0 = layout.levels.empty() ? 0 : layout.levels[0].offset;

  if (threads == 0) threads = 1;
  std::vector<std::unique_ptr<BlockHasher>> hashers(threads);
  const std::vector<uint8_t> zero_block(layout.data_block_size, 0);
  const std::vector<uint8_t> zero_digest = hasher.Clone().Hash(zero_block.data(), zero_block.size());
  auto pass = ForEachDataPiece(
      fd, data_offset, layout, threads, nullptr, progress,
      [&](unsigned worker, uint64_t first, const uint8_t* blocks, uint64_t count,
          uint64_t data_bytes) -> Result<void> {
        if (observer) observer(first * layout.data_block_size, blocks, data_bytes);
        if (layout.levels.empty()) {
          first_block.assign(blocks, blocks + layout.data_block_size);
          return {};
        }
        auto& own = hashers[worker];
        if (!own) own = std::make_unique<BlockHasher>(hasher.Clone());
        for (uint64_t i = 0; i < count; ++i) {
          const uint8_t* block = blocks + i * layout.data_block_size;
          uint8_t* slot = &result.tree[level0 + (first + i) * layout.slot_size];
          if (IsAllZero(block, layout.data_block_size)) {
            std::copy(zero_digest.begin(), zero_digest.end(), slot);
          } else {
            own->Hash(block, layout.data_block_size, slot);
          }
        }
        return {};
      });
  if (!pass.ok()) return pass.error();

  BlockHasher top = hasher.Clone();
  result.root_digest = CompleteUpperLevels(layout, top, result.tree, first_block.data());
  return result;
}

}  // namespace rpktool
