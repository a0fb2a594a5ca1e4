#pragma once

// Splits [0, count) into chunks and runs them on worker threads. Chunks are
// handed out in ascending order; once `limit` drops to or below a chunk's
// start, that chunk and all later ones are skipped, so a worker that finds
// something at index i can stop the work past i by lowering `limit`.

#include <android-base/result.h>

#include <atomic>
#include <cstdint>
#include <functional>

namespace rpktool {

// Worker count: the online CPUs, at least 1.
unsigned DefaultThreadCount();

using ChunkFunction =
    std::function<android::base::Result<void>(unsigned worker, uint64_t begin, uint64_t end)>;

// Runs `fn` on `threads` workers (worker ids 0 .. threads-1). Returns the
// error of the lowest failing chunk, if any; a failure lowers `limit` to its
// chunk's start. `limit` may be null when nothing stops early.
android::base::Result<void> ForEachChunk(uint64_t count, uint64_t chunk, unsigned threads,
                                         std::atomic<uint64_t>* limit, const ChunkFunction& fn);

// Lowers `limit` to `value` if that is smaller.
void LowerLimit(std::atomic<uint64_t>* limit, uint64_t value);

}  // namespace rpktool
