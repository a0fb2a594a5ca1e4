#pragma once

// Runs a program to its end and collects what it printed, for tests that
// drive tools, the sandbox or the virtual device from outside.

#include <chrono>
#include <string>
#include <vector>

namespace mend_test {

struct ProgramRun {
  int exit_code = -1;  // 128 + N when killed by signal N; -1 when it did not run or timed out
  bool timed_out = false;
  std::string out;  // standard output, and standard error unless kept apart
  std::string err;
};

struct RunOptions {
  std::vector<std::string> env;  // "NAME=value" entries added to the environment
  bool separate_err = false;
  std::chrono::seconds timeout{0};  // 0: wait as long as it takes
};

// `argv[0]` is looked up in $PATH and then in the sbin directories, where
// e2fsck, mke2fs and veritysetup live outside an ordinary user's $PATH.
ProgramRun RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

}  // namespace mend_test
