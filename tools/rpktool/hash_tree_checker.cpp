#include "hash_tree_checker.h"

#include <cstring>
#include <memory>
#include <sstream>

#include "block_hasher.h"
#include "data_blocks.h"
#include "file_io.h"
#include "parallel.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

Result<void> CheckRegion(const char* what, uint64_t offset, uint64_t size, uint64_t image_length) {
  if (offset > image_length || size > image_length - offset) {
    return Error() << what << " [" << offset << ", +" << size << ") lies outside the "
                   << image_length << "-byte image";
  }
  return {};
}

// The first hash-tree block, from the top level down, whose digest differs
// from the one stored above it (or from the root digest).
std::optional<BadBlock> FindBadTreeBlock(const TreeLayout& layout, const VerityParams& params,
                                         BlockHasher& hasher, const std::vector<uint8_t>& tree) {
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
  const TreeLevel& top = layout.levels.back();
  if (hasher.Hash(&tree[top.offset], layout.hash_block_size) != params.root_digest) {
    return bad(count - 1, 0);
  }
  for (uint32_t k = count - 1; k-- > 0;) {
    const TreeLevel& level = layout.levels[k];
    const TreeLevel& above = layout.levels[k + 1];
    std::vector<uint8_t> digest(layout.digest_size);
    for (uint64_t j = 0; j < above.entries; ++j) {
      hasher.Hash(&tree[level.offset + j * layout.hash_block_size], layout.hash_block_size,
                  digest.data());
      if (memcmp(digest.data(), &tree[above.offset + j * layout.slot_size], layout.digest_size)) {
        return bad(k, j);
      }
    }
  }
  return std::nullopt;
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
    out << "hash-tree block " << bad.index << " at level " << bad.level << " of "
        << bad.level_count << " (image offset " << bad.image_offset << ") does not match "
        << (bad.level + 1 == bad.level_count ? "the root digest" : "the level above it");
  }
  return out.str();
}

Result<TreeCheckResult> CheckHashTree(int fd, uint64_t image_offset, uint64_t image_length,
                                      const VerityParams& params, unsigned threads,
                                      Progress* progress) {
  auto hasher = BlockHasher::Create(params.hash_algorithm, params.salt);
  if (!hasher.ok()) return hasher.error();
  if (params.root_digest.size() != hasher->digest_size()) {
    return Error() << "root digest has " << params.root_digest.size() << " bytes; "
                   << params.hash_algorithm << " digests have " << hasher->digest_size();
  }
  auto layout = ComputeTreeLayout(params.image_size, params.data_block_size,
                                  params.hash_block_size,
                                  static_cast<uint32_t>(hasher->digest_size()));
  if (!layout.ok()) return layout.error();
  if (layout->tree_size != params.tree_size) {
    return Error() << "tree size " << params.tree_size << " does not fit " << params.image_size
                   << " bytes of data (expected " << layout->tree_size << ")";
  }
  if (auto r = CheckRegion("data area", 0, params.image_size, image_length); !r.ok()) {
    return r.error();
  }
  if (auto r = CheckRegion("hash tree", params.tree_offset, params.tree_size, image_length);
      !r.ok()) {
    return r.error();
  }

  TreeCheckResult result;
  result.data_blocks = layout->data_blocks;
  auto tree = ReadAt(fd, params.tree_size, image_offset + params.tree_offset);
  if (!tree.ok()) return Error() << "reading the hash tree: " << tree.error();

  if (!layout->levels.empty()) {
    if (auto bad = FindBadTreeBlock(*layout, params, *hasher, *tree)) {
      result.bad_block = bad;
      return result;
    }
  }

  std::vector<uint8_t> zero_block(layout->data_block_size, 0);
  const std::vector<uint8_t> zero_digest = hasher->Hash(zero_block.data(), zero_block.size());
  // Expected digest of data block i: a level-0 slot, or the root digest.
  auto expected = [&](uint64_t i) -> const uint8_t* {
    if (layout->levels.empty()) return params.root_digest.data();
    return &(*tree)[layout->levels[0].offset + i * layout->slot_size];
  };
  for (uint64_t i = 0; i < layout->data_blocks; ++i) {
    result.zero_blocks += memcmp(expected(i), zero_digest.data(), layout->digest_size) == 0;
  }

  if (threads == 0) threads = 1;
  std::vector<std::unique_ptr<BlockHasher>> hashers(threads);
  std::atomic<uint64_t> first_bad{UINT64_MAX};
  auto pass = ForEachDataPiece(
      fd, image_offset, *layout, threads, &first_bad, progress,
      [&](unsigned worker, uint64_t first, const uint8_t* blocks, uint64_t count,
          uint64_t) -> Result<void> {
        auto& own = hashers[worker];
        if (!own) own = std::make_unique<BlockHasher>(hasher->Clone());
        uint8_t digest[EVP_MAX_MD_SIZE];
        for (uint64_t i = 0; i < count; ++i) {
          const uint8_t* block = blocks + i * layout->data_block_size;
          const uint8_t* want = expected(first + i);
          bool matches;
          if (memcmp(want, zero_digest.data(), layout->digest_size) == 0) {
            matches = IsAllZero(block, layout->data_block_size);
          } else {
            own->Hash(block, layout->data_block_size, digest);
            matches = memcmp(digest, want, layout->digest_size) == 0;
          }
          if (!matches) {
            LowerLimit(&first_bad, first + i);
            break;
          }
        }
        return {};
      });
  if (!pass.ok()) return pass.error();

  if (const uint64_t index = first_bad.load(); index != UINT64_MAX) {
    BadBlock bad;
    bad.is_data = true;
    bad.index = index;
    bad.image_offset = index * layout->data_block_size;
    bad.zero_at_signing = memcmp(expected(index), zero_digest.data(), layout->digest_size) == 0;
    result.bad_block = bad;
  }
  return result;
}

}  // namespace rpktool
