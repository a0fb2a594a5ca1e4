#pragma once

#include <android-base/logging.h>

#include <string>
#include <vector>

namespace mend_test {

// Collects the records that LOG() produces while it lives (VERBOSE and up),
// with severity and source file, from any thread. With `echo`, it still
// prints them, so that a failing test shows its log.
class LogRecorder {
 public:
  struct Record {
    android::base::LogSeverity severity;
    std::string file;
    std::string message;
  };

  explicit LogRecorder(bool echo = true);
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<Record> Records() const;
  // Every record as its severity's letter, a blank and the message
  // ("E Kelb failed to open rpk_public_key").
  std::vector<std::string> Lines() const;
  // Messages at `severity`, in order.
  std::vector<std::string> Messages(android::base::LogSeverity severity) const;
  // How many records at `severity` read exactly `message`.
  size_t Count(android::base::LogSeverity severity, const std::string& message) const;
  bool Has(android::base::LogSeverity severity, const std::string& message) const {
    return Count(severity, message) > 0;
  }
  void Clear();
};

}  // namespace mend_test
