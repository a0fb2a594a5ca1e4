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
  // One state line as the application writes it.
  static std::string SpLine(const std::string& name, int version_code, int task_id,
                            const std::string& extra_members = "");

  // Lines of the daemon's log (tag "mend_log"), message part only.
  static std::vector<std::string> LogLines(const SandboxRun& run);

  SandboxRoot root_;
};

// True when `lines` contains `wanted` exactly.
bool HasLine(const std::vector<std::string>& lines, const std::string& wanted);

}  // namespace mend_test
