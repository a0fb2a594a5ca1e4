#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon_records.h"
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
  static std::string Config(const std::string& name, const std::string& extra = "") {
    return PackageConfig(name, extra);
  }
  // Writes shared_prefs.cfg with these lines, each ended by "\n".
  void WriteState(const std::vector<std::string>& lines);
  std::string State() const { return root_.ReadFile("/data/rvx/files/shared_prefs.cfg"); }
  std::string NativeMsg() const { return root_.ReadFile("/data/rvx/msgs/native.msg"); }

  // Lines of the daemon's log (tag "mend_log"), message part only.
  static std::vector<std::string> LogLines(const SandboxRun& run) { return DaemonLog(run.output); }

  SandboxRoot root_;
};

}  // namespace mend_test
