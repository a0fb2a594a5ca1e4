#pragma once

// A progress line on stderr for long work, drawn only when stderr is a
// terminal. Workers add bytes from any thread; a background thread redraws
// a few times per second. Work whose progress cannot be measured (total 0)
// shows its label until it ends.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace rpktool {

class Progress {
 public:
  // Shows nothing when `enabled` is false or stderr is not a terminal.
  Progress(std::string label, uint64_t total_bytes, bool enabled = true);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(uint64_t bytes) { done_.fetch_add(bytes, std::memory_order_relaxed); }
  // Clears the line; called by the destructor too.
  void Finish();

 private:
  void Draw();

  std::string label_;
  uint64_t total_;
  std::atomic<uint64_t> done_{0};
  bool active_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread drawer_;
};

}  // namespace rpktool
