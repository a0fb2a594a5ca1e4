#include "image_layout.h"

#include <algorithm>

#include "avb_format.h"
#include "byte_order.h"
#include "ext4_image.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;
using avbformat::RoundUp;

namespace {

// Bytes the image needs beyond the filesystem and its tree.
uint64_t TailSize(uint64_t vbmeta_size) {
  return RoundUp(vbmeta_size, kFsBlockSize) + kFsBlockSize;
}

}  // namespace

Result<void> CheckPartitionSize(uint64_t partition_size) {
  if (partition_size % kFsBlockSize != 0) {
    return Error() << "partition size " << partition_size << " is not a multiple of "
                   << kFsBlockSize;
  }
  if (partition_size > kMaxZipSize) {
    return Error() << "partition size " << partition_size << " exceeds the " << kMaxZipSize
                   << " bytes a package can hold";
  }
  return {};
}

Result<ImageLayout> LayoutImage(uint64_t fs_blocks, uint32_t digest_size, uint64_t vbmeta_size,
                                std::optional<uint64_t> partition_size) {
  ImageLayout layout;
  if (fs_blocks > kMaxZipSize / kFsBlockSize || vbmeta_size > kMaxZipSize) {
    return Error() << "an image of " << fs_blocks << " filesystem blocks exceeds the "
                   << kMaxZipSize << " bytes a package can hold";
  }
  layout.fs_size = fs_blocks * kFsBlockSize;
  auto tree = avbformat::ComputeTreeLayout(layout.fs_size, kFsBlockSize, kFsBlockSize, digest_size);
  if (!tree.ok()) return tree.error();
  layout.tree = *tree;
  layout.vbmeta_offset = layout.fs_size + tree->tree_size;
  layout.vbmeta_size = vbmeta_size;
  // Each term is below 2^33, so the sum cannot overflow.
  const uint64_t needed = layout.vbmeta_offset + TailSize(vbmeta_size);
  layout.image_size = partition_size.value_or(needed);
  if (partition_size) {
    if (auto checked = CheckPartitionSize(*partition_size); !checked.ok()) return checked.error();
    if (*partition_size < needed) {
      return Error() << "partition size " << *partition_size << " is too small: the layout needs "
                     << needed << " bytes";
    }
  } else if (needed > kMaxZipSize) {
    return Error() << "an image of " << needed << " bytes exceeds the " << kMaxZipSize
                   << " bytes a package can hold";
  }
  return layout;
}

Result<uint64_t> MaxFsBlocks(uint64_t partition_size, uint32_t digest_size, uint64_t vbmeta_size) {
  if (auto checked = CheckPartitionSize(partition_size); !checked.ok()) return checked.error();
  const uint64_t tail = TailSize(vbmeta_size);
  if (partition_size <= tail + kFsBlockSize) {
    return Error() << "partition size " << partition_size << " leaves no room for a filesystem";
  }
  // The tree grows with the filesystem: search for the largest fit.
  uint64_t low = 1, high = (partition_size - tail) / kFsBlockSize;
  auto fits = [&](uint64_t blocks) {
    return LayoutImage(blocks, digest_size, vbmeta_size, partition_size).ok();
  };
  if (!fits(low)) return Error() << "partition size " << partition_size << " is too small";
  while (low < high) {
    const uint64_t mid = low + (high - low + 1) / 2;
    if (fits(mid)) {
      low = mid;
    } else {
      high = mid - 1;
    }
  }
  return low;
}

std::vector<uint8_t> BuildImageTail(const ImageLayout& layout, const std::vector<uint8_t>& tree,
                                    const std::vector<uint8_t>& vbmeta) {
  avbformat::Footer footer;
  footer.original_image_size = layout.fs_size;
  footer.vbmeta_offset = layout.vbmeta_offset;
  footer.vbmeta_size = vbmeta.size();
  const auto footer_bytes = avbformat::WriteFooter(footer);

  std::vector<uint8_t> tail(layout.image_size - layout.fs_size, 0);
  std::copy(tree.begin(), tree.end(), tail.begin());
  std::copy(vbmeta.begin(), vbmeta.end(), tail.begin() + (layout.vbmeta_offset - layout.fs_size));
  std::copy(footer_bytes.begin(), footer_bytes.end(), tail.end() - footer_bytes.size());
  return tail;
}

}  // namespace rpktool
