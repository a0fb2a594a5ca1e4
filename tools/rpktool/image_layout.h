#pragma once

// Where the parts of a package image go: the filesystem, then the hash
// tree, then the vbmeta block padded to a block, and the footer in the last
// 64 bytes of the image's last block.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "hash_tree_geometry.h"
#include "zip_writer.h"

namespace rpktool {

struct ImageLayout {
  uint64_t fs_size = 0;  // also the tree's data size and offset
  avbformat::TreeLayout tree;
  uint64_t vbmeta_offset = 0;
  uint64_t vbmeta_size = 0;
  uint64_t image_size = 0;
};

// The smallest image for `fs_blocks` blocks of filesystem, or exactly
// `partition_size` bytes when given (an error if it is too small). Sizes
// beyond kMaxZipSize are refused.
android::base::Result<ImageLayout> LayoutImage(uint64_t fs_blocks, uint32_t digest_size,
                                               uint64_t vbmeta_size,
                                               std::optional<uint64_t> partition_size);

// A partition size is a multiple of the block size a zip can hold.
android::base::Result<void> CheckPartitionSize(uint64_t partition_size);

// The most filesystem blocks that fit a partition of `partition_size` bytes.
android::base::Result<uint64_t> MaxFsBlocks(uint64_t partition_size, uint32_t digest_size,
                                            uint64_t vbmeta_size);

// Everything after the filesystem: the tree, the vbmeta block, zeros and the
// footer (which records the filesystem size as the original image size).
std::vector<uint8_t> BuildImageTail(const ImageLayout& layout, const std::vector<uint8_t>& tree,
                                    const std::vector<uint8_t>& vbmeta);

}  // namespace rpktool
