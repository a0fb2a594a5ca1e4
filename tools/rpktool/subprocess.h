#pragma once

// Runs a helper program and collects what it prints.

#include <android-base/result.h>

#include <string>
#include <vector>

namespace rpktool {

struct ProcessResult {
  int exit_code;       // -1 when killed by a signal
  std::string output;  // stdout and stderr, interleaved
};

// `env` entries ("NAME=value") are added to the current environment.
android::base::Result<ProcessResult> RunProcess(const std::vector<std::string>& argv,
                                                const std::vector<std::string>& env = {});

// Finds `name` in $PATH, then in /usr/sbin and /sbin (where mke2fs lives,
// often outside an ordinary user's $PATH).
android::base::Result<std::string> FindProgram(const std::string& name);

}  // namespace rpktool
