#include "data_blocks.h"

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <vector>

#include "file_io.h"
#include "parallel.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

Result<void> ForEachDataPiece(int fd, uint64_t data_offset, const TreeLayout& layout,
                              unsigned threads, std::atomic<uint64_t>* limit, Progress* progress,
                              const DataBlocksFunction& fn) {
  const uint64_t blocks_per_piece = kDataPieceSize / layout.data_block_size;
  posix_fadvise(fd, static_cast<off_t>(data_offset), static_cast<off_t>(layout.data_size),
                POSIX_FADV_SEQUENTIAL);

  if (threads == 0) threads = 1;
  std::vector<std::unique_ptr<uint8_t[]>> buffers(threads);
  return ForEachChunk(
      layout.data_blocks, blocks_per_piece, threads, limit,
      [&](unsigned worker, uint64_t begin, uint64_t end) -> Result<void> {
        auto& buffer = buffers[worker];
        if (!buffer) buffer.reset(new uint8_t[kDataPieceSize]);
        const uint64_t start = begin * layout.data_block_size;
        const uint64_t bytes =
            std::min(end * layout.data_block_size, layout.data_size) - start;
        auto read = ReadAt(fd, buffer.get(), bytes, data_offset + start);
        if (!read.ok()) {
          return Error() << "reading data block " << begin << ": " << read.error();
        }
        const uint64_t padded = (end - begin) * layout.data_block_size;
        if (bytes < padded) memset(buffer.get() + bytes, 0, padded - bytes);
        auto result = fn(worker, begin, buffer.get(), end - begin, bytes);
        if (progress) progress->Add(bytes);
        return result;
      });
}

}  // namespace rpktool
