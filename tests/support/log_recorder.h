#pragma once

#include <android-base/logging.h>

#include <string>
#include <vector>

namespace mend_test {

// Collects the records that LOG() produces while it lives (VERBOSE and up),
// with severity and source file, from any thread, and still prints them so a
// failing test shows its log. (LogCapture keeps only "W message" lines.)
class LogRecorder {
 public:
  struct Record {
    android::base::LogSeverity severity;
    std::string file;
    std::string message;
  };

  LogRecorder();
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<Record> Records() const;
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
