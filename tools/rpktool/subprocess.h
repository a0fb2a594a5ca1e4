#pragma once

// Runs a helper program and collects what it prints. The child runs in its
// own process group and is killed when the tool ends, however it ends.

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

// `path` as an argument that no program parses as an option: relative
// paths get a leading "./".
std::string PathArgument(const std::string& path);

}  // namespace rpktool
