#include "log_recorder.h"

#include <mutex>

namespace mend_test {
namespace {

// The logger is process-wide, so its records are too.
std::mutex log_mutex;
std::vector<LogRecorder::Record> log_records;

}  // namespace

LogRecorder::LogRecorder(bool echo) {
  Clear();
  android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  android::base::SetLogger([echo](android::base::LogId id, android::base::LogSeverity severity,
                                  const char* tag, const char* file, unsigned int line,
                                  const char* message) {
    {
      std::lock_guard<std::mutex> lock(log_mutex);
      log_records.push_back({severity, file ? file : "", message});
    }
    if (echo) android::base::StderrLogger(id, severity, tag, file, line, message);
  });
}

LogRecorder::~LogRecorder() {
  android::base::SetLogger(android::base::StderrLogger);
  android::base::SetMinimumLogSeverity(android::base::INFO);
}

std::vector<LogRecorder::Record> LogRecorder::Records() const {
  std::lock_guard<std::mutex> lock(log_mutex);
  return log_records;
}

std::vector<std::string> LogRecorder::Lines() const {
  std::vector<std::string> lines;
  for (const Record& record : Records()) {
    lines.push_back(std::string(1, "VDIWEFF"[record.severity]) + " " + record.message);
  }
  return lines;
}

std::vector<std::string> LogRecorder::Messages(android::base::LogSeverity severity) const {
  std::vector<std::string> messages;
  for (const Record& record : Records()) {
    if (record.severity == severity) messages.push_back(record.message);
  }
  return messages;
}

size_t LogRecorder::Count(android::base::LogSeverity severity, const std::string& message) const {
  size_t count = 0;
  for (const Record& record : Records()) {
    if (record.severity == severity && record.message == message) ++count;
  }
  return count;
}

void LogRecorder::Clear() {
  std::lock_guard<std::mutex> lock(log_mutex);
  log_records.clear();
}

}  // namespace mend_test
