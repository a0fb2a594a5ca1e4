#include "subprocess.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "cleanup.h"

extern char** environ;

namespace rpktool {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;

namespace {

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (auto& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// In the child between fork and exec: only async-signal-safe calls.
[[noreturn]] void BecomeChild(pid_t parent, int output_fd, char* const* argv, char* const* envp) {
  // Dies with the tool, even by SIGKILL; the parent may be gone already.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(127);
  setpgid(0, 0);
  if (dup2(output_fd, STDOUT_FILENO) < 0 || dup2(output_fd, STDERR_FILENO) < 0) _exit(127);
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

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
  std::vector<std::string> args = argv;
  const std::vector<char*> env_pointers = Pointers(environment);
  const std::vector<char*> arg_pointers = Pointers(args);

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) return ErrnoError() << "cannot run " << args[0];
  if (pid == 0) BecomeChild(parent, write_end.get(), arg_pointers.data(), env_pointers.data());
  // Set on both sides, so that the group exists before either goes on.
  setpgid(pid, pid);
  SetRunningChild(pid);
  write_end.reset();

  ProcessResult result{-1, ""};
  char buffer[4096];
  ssize_t n;
  while ((n = TEMP_FAILURE_RETRY(read(read_end.get(), buffer, sizeof(buffer)))) > 0) {
    result.output.append(buffer, static_cast<size_t>(n));
  }
  int status = 0;
  const pid_t waited = TEMP_FAILURE_RETRY(waitpid(pid, &status, 0));
  ClearRunningChild();
  if (waited != pid) return ErrnoError() << "waiting for " << args[0] << " failed";
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (result.exit_code == 127 && result.output.empty()) {
    return Error() << "cannot run " << args[0];
  }
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

std::string PathArgument(const std::string& path) {
  return path.empty() || path[0] == '/' ? path : "./" + path;
}

}  // namespace rpktool
