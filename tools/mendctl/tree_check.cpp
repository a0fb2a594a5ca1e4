#include "tree_check.h"

#include <thread>

#include "hash_tree_checker.h"
#include "parse.h"
#include "progress.h"

namespace mendctl {

android::base::Result<std::optional<BadBlock>> FindBadBlock(int fd, uint64_t offset,
                                                            uint64_t length,
                                                            const TreeGeometry& geometry) {
  rpktool::VerityParams params;
  params.data_size = geometry.data_blocks * geometry.data_block_size;
  params.tree_offset = geometry.hash_start_block * geometry.hash_block_size;
  params.data_block_size = geometry.data_block_size;
  params.hash_block_size = geometry.hash_block_size;
  params.hash_algorithm = geometry.algorithm;
  auto digest = rpktool::ParseHex(geometry.root_digest);
  auto salt = rpktool::ParseHex(geometry.salt == "-" ? "" : geometry.salt);
  if (!digest.ok()) return digest.error();
  if (!salt.ok()) return salt.error();
  params.root_digest = *digest;
  params.salt = *salt;

  rpktool::Progress progress("verifying", params.data_size);
  auto result = rpktool::CheckHashTree(
      fd, offset, length, params, std::max(1u, std::thread::hardware_concurrency()), &progress);
  if (!result.ok()) return result.error();
  if (!result->bad_block) return std::optional<BadBlock>();
  const rpktool::BadBlock& bad = *result->bad_block;
  return std::optional<BadBlock>(
      BadBlock{rpktool::DescribeBadBlock(bad), !(bad.is_data && bad.zero_at_signing)});
}

}  // namespace mendctl
