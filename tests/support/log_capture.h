#pragma once

// Collects what the process logs through the base library while alive.

#include <memory>
#include <string>
#include <vector>

namespace mend_test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // One entry per record: severity letter, a blank, the message
  // ("E Kelb failed to open rpk_public_key").
  const std::vector<std::string>& Lines() const { return *lines_; }
  bool Has(const std::string& line) const;
  // How many records equal `line`.
  size_t Count(const std::string& line) const;

 private:
  std::shared_ptr<std::vector<std::string>> lines_;
};

}  // namespace mend_test
