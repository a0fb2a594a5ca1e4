#pragma once

#include <android-base/logging.h>

#include <string>
#include <vector>

namespace mend_test {

// Collects the records that LOG() produces while it lives (VERBOSE and up)
// and still prints them, so a failing test shows its log.
class LogCapture {
 public:
  struct Record {
    android::base::LogSeverity severity;
    std::string file;
    std::string message;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

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
