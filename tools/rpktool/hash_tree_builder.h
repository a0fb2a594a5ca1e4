#pragma once

// Builds the dm-verity (format 1) hash tree of a data area in a file.

#include <android-base/result.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "block_hasher.h"
#include "hash_tree_geometry.h"
#include "progress.h"

namespace rpktool {

struct HashTree {
  std::vector<uint8_t> tree;  // layout.tree_size bytes, highest level first
  std::vector<uint8_t> root_digest;
};

// Sees every byte of the data area once, in pieces, from worker threads.
using DataObserver = std::function<void(uint64_t offset, const uint8_t* data, size_t size)>;

android::base::Result<HashTree> BuildHashTree(int fd, uint64_t data_offset,
                                              const avbformat::TreeLayout& layout,
                                              const BlockHasher& hasher, unsigned threads,
                                              Progress* progress = nullptr,
                                              const DataObserver& observer = nullptr);

}  // namespace rpktool
