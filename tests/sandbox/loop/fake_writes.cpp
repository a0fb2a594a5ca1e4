#include "fake_writes.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>

namespace mend_test {
namespace fake_writes {
namespace {

struct Attribute {
  std::vector<std::string> writes;
  std::map<std::string, int> refusals;
  int interrupts = 0;
};

std::mutex attributes_mutex;
std::map<std::string, Attribute> attributes;
std::atomic<bool> tracking{false};

// What a tracked write returns: the byte count, or -errno.
std::optional<ssize_t> Answer(const std::string& path, const char* data, size_t size) {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  auto it = attributes.find(path);
  if (it == attributes.end()) return std::nullopt;
  Attribute& attribute = it->second;
  std::string value(data, size);
  attribute.writes.push_back(value);
  if (attribute.interrupts > 0) {
    --attribute.interrupts;
    return -EINTR;
  }
  if (auto refusal = attribute.refusals.find(value); refusal != attribute.refusals.end()) {
    return -refusal->second;
  }
  return static_cast<ssize_t>(size);
}

}  // namespace

void Track(const std::string& path) {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  attributes[path];
  tracking = true;
}

void Refuse(const std::string& path, const std::string& value, int error) {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  attributes[path].refusals[value] = error;
  tracking = true;
}

void Interrupt(const std::string& path, int times) {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  attributes[path].interrupts = times;
  tracking = true;
}

std::vector<std::string> Writes(const std::string& path) {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  auto it = attributes.find(path);
  return it == attributes.end() ? std::vector<std::string>{} : it->second.writes;
}

void Reset() {
  std::lock_guard<std::mutex> lock(attributes_mutex);
  attributes.clear();
  tracking = false;
}

// Called by the write() below for every write of the process.
std::optional<ssize_t> AnswerIfTracked(int fd, const void* data, size_t size) {
  if (!tracking) return std::nullopt;
  char link[64];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char target[4096];
  const ssize_t length = readlink(link, target, sizeof(target) - 1);
  if (length <= 0) return std::nullopt;
  return Answer(std::string(target, static_cast<size_t>(length)), static_cast<const char*>(data),
                size);
}

}  // namespace fake_writes
}  // namespace mend_test

// Takes the place of libc's write() in this test binary (and, through symbol
// interposition, in the shared libraries it loads), so that writes to the
// tracked fake sysfs attributes are answered as the kernel would answer them.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  if (std::optional<ssize_t> answer = mend_test::fake_writes::AnswerIfTracked(fd, data, size)) {
    if (*answer >= 0) return *answer;
    errno = static_cast<int>(-*answer);
    return -1;
  }
  return syscall(SYS_write, fd, data, size);
}
