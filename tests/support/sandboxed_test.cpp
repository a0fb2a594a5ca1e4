#include "sandboxed_test.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "sandbox_root.h"

namespace mend_test {
namespace {

std::string SelfExecutable() {
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (n <= 0) return {};
  return std::string(path, static_cast<size_t>(n));
}

std::string CurrentTestFilter() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return std::string(info->test_suite_name()) + "." + info->name();
}

}  // namespace

bool InSandbox() {
  // scripts/sandbox sets the variable. It alone could leak into a host
  // shell; PID 1 being the sandbox's own init makes sure that device-touching
  // code never runs on the host.
  const char* inside = getenv("MEND_SANDBOX");
  if (inside == nullptr || std::string(inside) != "1") return false;
  std::ifstream comm("/proc/1/comm");
  std::string init;
  std::getline(comm, init);
  return init == "bwrap";
}

SandboxOutcome RunCurrentTestInSandbox(const SandboxLayout& layout) {
  if (InSandbox()) return SandboxOutcome::kRunHere;

  SandboxRoot root;
  if (layout.fake_sys) {
    root.MakeDir("/sys");
  } else if (layout.rw_sys) {
    root.AddSandboxOption("--rw-sys");
  }
  // scripts/sandbox binds a build tree that lies outside the repository only
  // when it is told where it is.
  setenv("MEND_BUILD_DIR", MEND_BINARY_DIR, /*overwrite=*/0);
  const std::string filter = CurrentTestFilter();
  SandboxRun run = root.Run({SelfExecutable(), "--gtest_filter=" + filter}, layout.timeout);

  // Shown by ctest only on failure or with -V.
  std::cout << "--- sandboxed run of " << filter << " ---\n" << run.output;
  const bool exited_cleanly = run.finished && run.exit_code == 0;
  if (exited_cleanly && run.output.find("[  SKIPPED ] 1 test") != std::string::npos) {
    return SandboxOutcome::kSkipped;
  }
  if (!exited_cleanly || run.output.find("[  PASSED  ] 1 test.") == std::string::npos) {
    ADD_FAILURE() << filter << " failed in the sandbox" << (run.timed_out ? " (timed out)" : "")
                  << (run.rebooted ? " (sandbox ended early)" : "") << ", exit code "
                  << run.exit_code << " (its output is above)";
  }
  return SandboxOutcome::kDone;
}

}  // namespace mend_test
