#pragma once

// Parallel pass over the data blocks of an image: large pieces in no fixed
// order, each handed to a worker as whole blocks (the last one zero-padded
// when the data area ends inside it), straight from the page cache where
// the file covers the area.

#include <android-base/result.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "hash_tree_geometry.h"
#include "progress.h"

namespace rpktool {

// Bytes per piece; a multiple of every valid block size.
inline constexpr uint64_t kDataPieceSize = 2u << 20;

using DataBlocksFunction = std::function<android::base::Result<void>(
    unsigned worker, uint64_t first_block, const uint8_t* blocks, uint64_t block_count,
    uint64_t data_bytes)>;

// Reads the data area (layout.data_size bytes at `data_offset` in `fd`) on
// `threads` workers; `data_bytes` is the part of a piece that came from the
// file. `limit` (in blocks) stops the pass early as in ForEachChunk.
android::base::Result<void> ForEachDataPiece(int fd, uint64_t data_offset,
                                             const avbformat::TreeLayout& layout, unsigned threads,
                                             std::atomic<uint64_t>* limit, Progress* progress,
                                             const DataBlocksFunction& fn);

}  // namespace rpktool
