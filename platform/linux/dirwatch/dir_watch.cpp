#include "dirwatch/dir_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

namespace dirwatch {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kEntryChanges =
    IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB;
constexpr std::chrono::milliseconds kUnwatchedPollInterval(20);

// An inotify descriptor watching one directory's entries, or none.
class Watch {
 public:
  explicit Watch(const std::string& dir) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (fd_ != -1 && inotify_add_watch(fd_, dir.c_str(), kEntryChanges) == -1) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~Watch() {
    if (fd_ != -1) close(fd_);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Sleeps until an entry changes or `wait` has passed.
  void Sleep(std::chrono::milliseconds wait) {
    if (fd_ == -1) {
      std::this_thread::sleep_for(std::min(wait, kUnwatchedPollInterval));
      return;
    }
    pollfd pfd = {fd_, POLLIN, 0};
    const auto ms = std::min<std::chrono::milliseconds::rep>(wait.count(), 24 * 3600 * 1000);
    if (poll(&pfd, 1, static_cast<int>(ms)) <= 0) return;
    // The events only say that something changed; the caller looks itself.
    alignas(inotify_event) char events[4096];
    for (;;) {
      const ssize_t n = read(fd_, events, sizeof(events));
      if (n <= 0 && !(n < 0 && errno == EINTR)) break;
    }
  }

 private:
  int fd_;
};

}  // namespace

bool WaitUntil(const std::string& dir, std::chrono::milliseconds timeout,
               const std::function<bool()>& done) {
  const bool forever = timeout == std::chrono::milliseconds::max();
  const auto deadline = forever ? Clock::time_point::max() : Clock::now() + timeout;
  // What is there already needs no watch. Otherwise the watch is set before
  // the next look, so that no change between that look and the first sleep
  // goes unnoticed.
  if (done()) return true;
  Watch watch(dir);
  for (;;) {
    if (done()) return true;
    const auto now = Clock::now();
    if (now >= deadline) return false;
    // Rounded up, so that a wait never ends before the deadline.
    watch.Sleep(forever ? std::chrono::milliseconds::max()
                        : std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
  }
}

}  // namespace dirwatch
