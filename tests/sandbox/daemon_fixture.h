#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sandbox_root.h"

namespace mend_test {

// A device root with the daemon's directories, the feature switched on and a
// build id; tests add packages, state and messages, run the daemon and read
// back what it wrote.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest();

  // Runs `mend` with `args` in the sandbox.
  SandboxRun RunMend(const std::vector<std::string>& args = {});

  // A package zip at /data/rvx/imgs/<file> with the given config.txt text.
  void AddPackage(const std::string& file, const std::string& config);
  // The standard config of package `name`, with `extra` lines appended.
  static std::string Config(const std::string& name, const std::string& extra = "");
  // Writes shared_prefs.cfg with these lines, each ended by "\n".
  void WriteState(const std::vector<std::string>& lines);
  std::string State() const { return root_.ReadFile("/data/rvx/files/shared_prefs.cfg"); }
  std::string NativeMsg() const { return root_.ReadFile("/data/rvx/msgs/native.msg"); }

  // Lines of the daemon's log (tag "mend_log"), message part only.
  static std::vector<std::string> LogLines(const SandboxRun& run);

  SandboxRoot root_;
};

// True when `lines` contains `wanted` exactly.
bool HasLine(const std::vector<std::string>& lines, const std::string& wanted);

// True when every line of `wanted` occurs in `lines`, in this order (other
// lines may come between them).
bool HasInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& wanted);

// The daemon's native.msg line for a package made by DaemonTest::Config.
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
