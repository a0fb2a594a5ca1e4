#include "run_program.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <thread>

extern char** environ;

namespace mend_test {
namespace {

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = getenv("PATH");
  std::istringstream dirs(std::string(path ? path : "") + ":/usr/sbin:/sbin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
  }
  return name;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

std::string Contents(FILE* file) {
  std::string text;
  rewind(file);
  char buffer[4096];
  while (size_t n = fread(buffer, 1, sizeof(buffer), file)) text.append(buffer, n);
  return text;
}

}  // namespace

ProgramRun RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  // Output goes to unnamed temporary files: no pipe can fill up and stall
  // the program while nobody reads it.
  File out(tmpfile(), fclose);
  File err(options.separate_err ? tmpfile() : nullptr, fclose);
  ProgramRun run;
  if (!out || (options.separate_err && !err)) return run;

  std::vector<std::string> args = argv;
  args[0] = FindProgram(args[0]);
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) env.emplace_back(*entry);
  env.insert(env.end(), options.env.begin(), options.env.end());

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fileno(out.get()), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(err ? err.get() : out.get()), STDERR_FILENO);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, Pointers(args).data(),
                                  Pointers(env).data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return run;

  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  int status = 0;
  while (options.timeout.count() > 0 && waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      run.timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (options.timeout.count() == 0 || run.timed_out) waitpid(pid, &status, 0);
  if (!run.timed_out) {
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  run.out = Contents(out.get());
  if (err) run.err = Contents(err.get());
  return run;
}

}  // namespace mend_test
