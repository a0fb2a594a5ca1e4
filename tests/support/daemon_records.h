#pragma once

#include <string>
#include <vector>

namespace mend_test {

// What the daemon writes and logs, rendered the way it must come out, for
// tests that run it in the sandbox or on the virtual device.

// The messages of the daemon's own log records (tag "mend_log", INFO), in
// order; of a message with line breaks, its first line.
std::vector<std::string> DaemonLog(const std::string& output);

// True when `lines` contains `wanted` exactly.
bool HasLine(const std::vector<std::string>& lines, const std::string& wanted);

// True when every line of `wanted` occurs in `lines`, in this order (other
// lines may come between them).
bool HasInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& wanted);

// The config.txt of the reference packages with name `name`, plus `extra`
// lines.
std::string PackageConfig(const std::string& name, const std::string& extra = "");

// The daemon's native.msg line for a package at /data/rvx/imgs/<file>.
std::string NativeLine(const std::string& name, const std::string& file, int task_id,
                       const std::string& response_content, int version_code = 3);

// A full state line in the daemon's own member order.
struct SpRecord {
  std::string name;
  int version_code = 3;
  std::string image_path;
  bool is_repair_success = false;
  bool is_boot_success = false;
  int boot_failed_count = 0;
  bool need_cancel = false;
  int task_id = 0;
  bool need_delete = false;
  std::string Line() const;
};

}  // namespace mend_test
