#include "progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace rpktool {

namespace {
// Small jobs finish before a line would be useful.
constexpr uint64_t kMinimumBytes = 64ull << 20;
}  // namespace

Progress::Progress(std::string label, uint64_t total_bytes, bool enabled)
    : label_(std::move(label)),
      total_(total_bytes),
      active_(enabled && (total_bytes >= kMinimumBytes || total_bytes == 0) &&
              isatty(STDERR_FILENO)) {
  if (!active_) return;
  drawer_ = std::thread([this] {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, std::chrono::milliseconds(200), [this] { return stop_; })) {
      Draw();
    }
  });
}

Progress::~Progress() { Finish(); }

void Progress::Draw() {
  if (total_ == 0) {
    fprintf(stderr, "\r%s...", label_.c_str());
    fflush(stderr);
    return;
  }
  const uint64_t done = std::min(done_.load(std::memory_order_relaxed), total_);
  fprintf(stderr, "\r%s: %3u%% (%llu of %llu MiB)", label_.c_str(),
          static_cast<unsigned>(done * 100 / total_), static_cast<unsigned long long>(done >> 20),
          static_cast<unsigned long long>(total_ >> 20));
  fflush(stderr);
}

void Progress::Finish() {
  if (!active_) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  drawer_.join();
  fprintf(stderr, "\r\033[K");
  fflush(stderr);
  active_ = false;
}

}  // namespace rpktool
