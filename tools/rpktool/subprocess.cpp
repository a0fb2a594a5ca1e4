#include "subprocess.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern char** environ;

namespace rpktool {

using android::base::Error;
using android::base::ErrnoError;
using android::base::Result;
using android::base::unique_fd;

Result<ProcessResult> RunProcess(const std::vector<std::string>& argv,
                                 const std::vector<std::string>& env) {
  if (argv.empty()) return Error() << "no program to run";
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return ErrnoError() << "pipe failed";
  unique_fd read_end(pipe_fds[0]);
  unique_fd write_end(pipe_fds[1]);

  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
  environment.insert(environment.end(), env.begin(), env.end());
  std::vector<char*> env_pointers;
  for (auto& entry : environment) env_pointers.push_back(entry.data());
  env_pointers.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> arg_pointers;
  for (auto& arg : args) arg_pointers.push_back(arg.data());
  arg_pointers.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDERR_FILENO);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, arg_pointers.data(),
                       env_pointers.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    errno = rc;
    return ErrnoError() << "cannot run " << args[0];
  }
  write_end.reset();

  ProcessResult result{-1, ""};
  char buffer[4096];
  for (;;) {
    ssize_t n = TEMP_FAILURE_RETRY(read(read_end.get(), buffer, sizeof(buffer)));
    if (n <= 0) break;
    result.output.append(buffer, static_cast<size_t>(n));
  }
  int status = 0;
  if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) != pid) {
    return ErrnoError() << "waiting for " << args[0] << " failed";
  }
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  return result;
}

Result<std::string> FindProgram(const std::string& name) {
  std::string search = getenv("PATH") ? getenv("PATH") : "";
  search += ":/usr/sbin:/sbin";
  std::istringstream dirs(search);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return Error() << name << " not found in $PATH, /usr/sbin or /sbin";
}

}  // namespace rpktool
