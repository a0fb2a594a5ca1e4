#include "log_capture.h"

#include <android-base/logging.h>

#include <algorithm>

namespace mend_test {

LogCapture::LogCapture() : lines_(std::make_shared<std::vector<std::string>>()) {
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  android::base::SetLogger([lines = lines_](android::base::LogId, android::base::LogSeverity severity,
                                            const char*, const char*, unsigned int,
                                            const char* message) {
    lines->push_back(std::string(1, "VDIWEFF"[severity]) + " " + message);
  });
}

LogCapture::~LogCapture() {
  android::base::SetLogger(android::base::StderrLogger);
  android::base::SetMinimumLogSeverity(android::base::INFO);
}

bool LogCapture::Has(const std::string& line) const { return Count(line) > 0; }

size_t LogCapture::Count(const std::string& line) const {
  return std::count(lines_->begin(), lines_->end(), line);
}

}  // namespace mend_test
