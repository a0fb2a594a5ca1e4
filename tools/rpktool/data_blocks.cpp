#include "data_blocks.h"

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <optional>
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
  // Hash straight from the page cache when the file covers the data area
  // (copying it out costs about a fifth of the hashing); otherwise read, so
  // that a short file gives an error instead of SIGBUS.
  std::optional<ReadOnlyMapping> mapping;
  auto file_size = FileSize(fd);
  if (file_size.ok() && data_offset <= *file_size && layout.data_size <= *file_size - data_offset) {
    auto mapped = ReadOnlyMapping::Map(fd, data_offset, layout.data_size);
    if (mapped.ok()) mapping.emplace(std::move(*mapped));
  }
  if (!mapping) {
    posix_fadvise(fd, static_cast<off_t>(data_offset), static_cast<off_t>(layout.data_size),
                  POSIX_FADV_SEQUENTIAL);
  }

  if (threads == 0) threads = 1;
  std::vector<std::unique_ptr<uint8_t[]>> buffers(threads);
  return ForEachChunk(
      layout.data_blocks, blocks_per_piece, threads, limit,
      [&](unsigned worker, uint64_t begin, uint64_t end) -> Result<void> {
        const uint64_t start = begin * layout.data_block_size;
        const uint64_t bytes = std::min(end * layout.data_block_size, layout.data_size) - start;
        const uint64_t padded = (end - begin) * layout.data_block_size;
        const uint8_t* blocks = nullptr;
        if (mapping && bytes == padded) {
          blocks = mapping->data() + start;
        } else {
          auto& buffer = buffers[worker];
          if (!buffer) buffer.reset(new uint8_t[kDataPieceSize]);
          if (mapping) {
            memcpy(buffer.get(), mapping->data() + start, bytes);
          } else if (auto read = ReadAt(fd, buffer.get(), bytes, data_offset + start); !read.ok()) {
            return Error() << "reading data block " << begin << ": " << read.error();
          }
          if (bytes < padded) memset(buffer.get() + bytes, 0, padded - bytes);
          blocks = buffer.get();
        }
        auto result = fn(worker, begin, blocks, end - begin, bytes);
        if (progress) progress->Add(bytes);
        return result;
      });
}

}  // namespace rpktool
