#include "virtual_device.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "zip_builder.h"

namespace mend_test {
namespace {

// Runs `argv` and returns its exit status; its stdout and stderr go to
// `output`.
int RunCapturing(const std::vector<std::string>& argv, std::string* output) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[1], STDOUT_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(pipe_fds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof(buffer))) != 0) {
    if (n > 0) output->append(buffer, static_cast<size_t>(n));
  }
  close(pipe_fds[0]);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

void VirtualDevice::AddBinary(const std::string& host_path) {
  options_.insert(options_.end(), {"--bin", host_path});
}

void VirtualDevice::AddFile(const std::string& host_path, const std::string& guest_path) {
  options_.insert(options_.end(),
                  {"--file", guest_path.empty() ? host_path : host_path + ":" + guest_path});
}

void VirtualDevice::SetEnv(const std::string& name, const std::string& value) {
  options_.insert(options_.end(), {"--env", name + "=" + value});
}

VmRun VirtualDevice::Run(const std::vector<std::string>& argv, std::chrono::seconds timeout) {
  const std::string status_file =
      std::filesystem::path(root_.path()).parent_path().string() + "/vm-status";
  std::filesystem::remove(status_file);

  std::vector<std::string> args = {MEND_SOURCE_DIR "/tests/vm/run-vm",
                                   "--kernel", MEND_VM_KERNEL_DIR,
                                   "--root", root_.path(),
                                   "--status", status_file,
                                   "--timeout", std::to_string(timeout.count())};
  if (plain_dev_) args.push_back("--plain-dev");
  args.insert(args.end(), options_.begin(), options_.end());
  args.push_back("--");
  args.insert(args.end(), argv.begin(), argv.end());

  VmRun run;
  RunCapturing(args, &run.output);
  std::string end = std::filesystem::exists(status_file) ? ReadWholeFile(status_file) : "no-boot";
  while (!end.empty() && (end.back() == '\n' || end.back() == ' ')) end.pop_back();
  run.end = end;
  if (end.rfind("exited ", 0) == 0) {
    run.finished = true;
    run.exit_code = std::atoi(end.c_str() + 7);
  }
  run.rebooted = end == "rebooted" || end == "powered-off";
  run.timed_out = end == "timeout";
  return run;
}

}  // namespace mend_test
