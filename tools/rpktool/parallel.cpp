#include "parallel.h"

#include <unistd.h>

#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace rpktool {

using android::base::Result;

unsigned DefaultThreadCount() {
  long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<unsigned>(online) : 1;
}

void LowerLimit(std::atomic<uint64_t>* limit, uint64_t value) {
  uint64_t current = limit->load();
  while (value < current && !limit->compare_exchange_weak(current, value)) {
  }
}

Result<void> ForEachChunk(uint64_t count, uint64_t chunk, unsigned threads,
                          std::atomic<uint64_t>* limit, const ChunkFunction& fn) {
  std::atomic<uint64_t> local_limit{UINT64_MAX};
  if (limit == nullptr) limit = &local_limit;
  if (chunk == 0) chunk = 1;
  const uint64_t chunks = count / chunk + (count % chunk != 0);
  if (threads == 0) threads = 1;
  if (threads > chunks) threads = static_cast<unsigned>(chunks > 0 ? chunks : 1);

  std::atomic<uint64_t> next{0};
  std::mutex error_mutex;
  std::optional<android::base::ResultError> first_error;
  uint64_t first_error_begin = UINT64_MAX;

  auto work = [&](unsigned worker) {
    for (;;) {
      const uint64_t index = next.fetch_add(1);
      if (index >= chunks) return;
      const uint64_t begin = index * chunk;
      if (begin >= limit->load()) return;
      const uint64_t end = std::min(count, begin + chunk);
      auto result = fn(worker, begin, end);
      if (!result.ok()) {
        std::lock_guard<std::mutex> lock(error_mutex);
        if (begin < first_error_begin) {
          first_error_begin = begin;
          first_error = result.error();
        }
        LowerLimit(limit, begin);
        return;
      }
    }
  };

  std::vector<std::thread> workers;
  for (unsigned i = 1; i < threads; ++i) workers.emplace_back(work, i);
  work(0);
  for (auto& worker : workers) worker.join();
  if (first_error) return *first_error;
  return {};
}

}  // namespace rpktool
