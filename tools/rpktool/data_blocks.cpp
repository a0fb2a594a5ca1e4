#include "data_blocks.h"

#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "file_io.h"
#include "parallel.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

Result<void> ForEachDataPiece(int fd, uint64_t data_offset, const avbformat::TreeLayout& layout,
                              unsigned threads, std::atomic<uint64_t>* limit, Progress* progress,
                              const DataBlocksFunction& fn) {
  const uint64_t blocks_per_piece = kDataPieceSize / layout.data_block_size;
  // Hashing straight from the page cache saves copying every block out;
  // each worker maps and unmaps its own pieces, so that the page tables'
  // cost is spread too. A file shorter than the area is read instead, so
  // that it gives an error and not SIGBUS.
  auto file_size = FileSize(fd);
  const bool mappable =
      file_size.ok() && data_offset <= *file_size && layout.data_size <= *file_size - data_offset;
  std::vector<std::unique_ptr<uint8_t[]>> buffers(std::max(threads, 1u));
  return ForEachChunk(
      layout.data_blocks, blocks_per_piece, threads, limit,
      [&](unsigned worker, uint64_t begin, uint64_t end) -> Result<void> {
        const uint64_t start = begin * layout.data_block_size;
        const uint64_t bytes = std::min(end * layout.data_block_size, layout.data_size) - start;
        const uint64_t padded = (end - begin) * layout.data_block_size;
        std::optional<ReadOnlyMapping> piece;
        if (mappable && bytes == padded) {
          if (auto mapped = ReadOnlyMapping::Map(fd, data_offset + start, bytes); mapped.ok()) {
            piece.emplace(std::move(*mapped));
          }
        }
        const uint8_t* blocks = piece ? piece->data() : nullptr;
        if (!piece) {
          auto& buffer = buffers[worker];
          if (!buffer) buffer.reset(new uint8_t[kDataPieceSize]);
          if (auto read = ReadAt(fd, buffer.get(), bytes, data_offset + start); !read.ok()) {
            return Error() << "reading data block " << begin << ": " << read.error();
          }
          memset(buffer.get() + bytes, 0, padded - bytes);
          blocks = buffer.get();
        }
        auto result = fn(worker, begin, blocks, end - begin, bytes);
        if (progress) progress->Add(bytes);
        return result;
      });
}

}  // namespace rpktool
