#include "hash_tree_checker.h"

#include <cstring>
#include <sstream>

#include "block_hasher.h"
#include "byte_order.h"
#include "data_blocks.h"
#include "file_io.h"
#include "hash_tree_geometry.h"
#include "parallel.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;
using avbformat::TreeLayout;
using avbformat::TreeLevel;

namespace {

constexpr uint64_t kNone = UINT64_MAX;

// The first block of level k whose digest differs from its slot in level
// k + 1, or kNone; all workers hash the level's blocks.
uint64_t FirstBadInLevel(const TreeLayout& layout, size_t k, const BlockHasher& hasher,
                         unsigned threads, const std::vector<uint8_t>& tree) {
  const TreeLevel& level = layout.levels[k];
  const TreeLevel& above = layout.levels[k + 1];
  std::atomic<uint64_t> first_bad{kNone};
  (void)ForEachChunk(
      above.entries, 64, threads, &first_bad,
      [&](unsigned, uint64_t begin, uint64_t end) -> Result<void> {
        uint8_t digest[SHA512_DIGEST_LENGTH];
        for (uint64_t j = begin; j < end; ++j) {
          hasher.Hash(&tree[level.offset + j * layout.hash_block_size], layout.hash_block_size,
                      digest);
          if (memcmp(digest, &tree[above.offset + j * layout.slot_size], layout.digest_size) != 0) {
            LowerLimit(&first_bad, j);
            break;
          }
        }
        return {};
      });
  return first_bad.load();
}

// The first hash-tree block, from the top level down, whose digest differs
// from the one stored above it (or from the root digest).
std::optional<BadBlock> FindBadTreeBlock(const TreeLayout& layout, const VerityParams& params,
                                         const BlockHasher& hasher, unsigned threads,
                                         const std::vector<uint8_t>& tree) {
  const uint32_t count = static_cast<uint32_t>(layout.levels.size());
  auto bad = [&](uint32_t level, uint64_t index) {
    BadBlock block;
    block.index = index;
    block.level = level;
    block.level_count = count;
    block.image_offset =
        params.tree_offset + layout.levels[level].offset + index * layout.hash_block_size;
    return block;
  };
  if (hasher.Hash(&tree[layout.levels.back().offset], layout.hash_block_size) !=
      params.root_digest) {
    return bad(count - 1, 0);
  }
  for (uint32_t k = count - 1; k-- > 0;) {
    if (const uint64_t index = FirstBadInLevel(layout, k, hasher, threads, tree); index != kNone) {
      return bad(k, index);
    }
  }
  return std::nullopt;
}

Result<TreeLayout> CheckParams(const VerityParams& params, uint64_t region_size,
                               const BlockHasher& hasher) {
  if (params.root_digest.size() != hasher.digest_size()) {
    return Error() << "root digest has " << params.root_digest.size() << " bytes; "
                   << params.hash_algorithm << " digests have " << hasher.digest_size();
  }
  auto layout =
      avbformat::ComputeTreeLayout(params.data_size, params.data_block_size, params.hash_block_size,
                                   static_cast<uint32_t>(hasher.digest_size()));
  if (!layout.ok()) return layout.error();
  if (!avbformat::RangeFits(0, params.data_size, region_size)) {
    return Error() << "the data area of " << params.data_size << " bytes exceeds the "
                   << region_size << "-byte image";
  }
  if (!avbformat::RangeFits(params.tree_offset, layout->tree_size, region_size)) {
    return Error() << "the hash tree [" << params.tree_offset << ", +" << layout->tree_size
                   << ") lies outside the " << region_size << "-byte image";
  }
  return layout;
}

}  // namespace

std::string DescribeBadBlock(const BadBlock& bad) {
  std::ostringstream out;
  if (bad.is_data) {
    out << "data block " << bad.index << " (image offset " << bad.image_offset
        << ") does not match the hash tree; ";
    if (bad.zero_at_signing) {
      out << "it was all zeros at signing, so a dm-verity read with ignore_zero_blocks "
             "returns zeros for it without checking";
    } else {
      out << "it held data at signing, so a dm-verity read of it fails";
    }
  } else {
    out << "hash-tree block " << bad.index << " at level " << bad.level << " of " << bad.level_count
        << " (image offset " << bad.image_offset << ") does not match "
        << (bad.level + 1 == bad.level_count ? "the root digest" : "the level above it");
  }
  return out.str();
}

Result<TreeCheckResult> CheckHashTree(int fd, uint64_t region_offset, uint64_t region_size,
                                      const VerityParams& params, unsigned threads,
                                      Progress* progress) {
  auto hasher = BlockHasher::Create(params.hash_algorithm, params.salt);
  if (!hasher.ok()) return hasher.error();
  auto layout = CheckParams(params, region_size, *hasher);
  if (!layout.ok()) return layout.error();

  TreeCheckResult result;
  result.data_blocks = layout->data_blocks;
  result.tree_size = layout->tree_size;
  auto tree = ReadAt(fd, layout->tree_size, region_offset + params.tree_offset);
  if (!tree.ok()) return Error() << "reading the hash tree: " << tree.error();
  if (!layout->levels.empty()) {
    result.bad_block = FindBadTreeBlock(*layout, params, *hasher, threads, *tree);
    if (result.bad_block) return result;
  }

  const std::vector<uint8_t> zero_block(layout->data_block_size, 0);
  const std::vector<uint8_t> zero_digest = hasher->Hash(zero_block.data(), zero_block.size());
  // Expected digest of data block i: a level-0 slot, or the root digest.
  auto expected = [&](uint64_t i) -> const uint8_t* {
    if (layout->levels.empty()) return params.root_digest.data();
    return &(*tree)[layout->levels[0].offset + i * layout->slot_size];
  };
  auto zero_at_signing = [&](uint64_t i) {
    return memcmp(expected(i), zero_digest.data(), layout->digest_size) == 0;
  };
  for (uint64_t i = 0; i < layout->data_blocks; ++i) result.zero_blocks += zero_at_signing(i);

  std::atomic<uint64_t> first_bad{kNone};
  auto check_piece = [&](unsigned, uint64_t first, const uint8_t* blocks, uint64_t count,
                         uint64_t) -> Result<void> {
    uint8_t digest[SHA512_DIGEST_LENGTH];
    for (uint64_t i = 0; i < count; ++i) {
      const uint8_t* block = blocks + i * layout->data_block_size;
      bool matches;
      if (zero_at_signing(first + i)) {
        matches = IsAllZero(block, layout->data_block_size);
      } else {
        hasher->Hash(block, layout->data_block_size, digest);
        matches = memcmp(digest, expected(first + i), layout->digest_size) == 0;
      }
      if (!matches) {
        LowerLimit(&first_bad, first + i);
        break;
      }
    }
    return {};
  };
  auto pass =
      ForEachDataPiece(fd, region_offset, *layout, threads, &first_bad, progress, check_piece);
  if (!pass.ok()) return pass.error();

  if (const uint64_t index = first_bad.load(); index != kNone) {
    BadBlock bad;
    bad.is_data = true;
    bad.index = index;
    bad.image_offset = index * layout->data_block_size;
    bad.zero_at_signing = zero_at_signing(index);
    result.bad_block = bad;
  }
  return result;
}

}  // namespace rpktool
