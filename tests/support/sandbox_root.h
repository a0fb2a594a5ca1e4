#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace mend_test {

// How a command run in the sandbox ended.
struct SandboxRun {
  bool finished = false;  // the command ended by itself (possibly by a signal)
  int exit_code = -1;     // its status; 128 + N when killed by signal N
  bool rebooted = false;  // a reboot request ended the sandbox
  bool timed_out = false;
  std::string output;     // stdout and stderr, interleaved

  bool aborted() const { return finished && exit_code == 128 + 6; }
};

// A throw-away system root on the host: the test lays out /data, /system,
// /mnt and /run under path(), runs programs in the sandbox on it, then reads
// back what they wrote.
class SandboxRoot {
 public:
  SandboxRoot();
  ~SandboxRoot();
  SandboxRoot(const SandboxRoot&) = delete;
  SandboxRoot& operator=(const SandboxRoot&) = delete;

  const std::string& path() const { return root_; }
  // Host path of an absolute sandbox path such as "/data/rvx/imgs".
  std::string HostPath(const std::string& sandbox_path) const;

  void MakeDir(const std::string& sandbox_path) const;
  void WriteFile(const std::string& sandbox_path, const std::string& content) const;
  void CopyIn(const std::string& host_file, const std::string& sandbox_path) const;
  std::string ReadFile(const std::string& sandbox_path) const;
  bool Exists(const std::string& sandbox_path) const;
  // Sets a system property in the file store the daemon reads.
  void SetProperty(const std::string& name, const std::string& value) const;

  SandboxRun Run(const std::vector<std::string>& argv,
                 std::chrono::seconds timeout = std::chrono::seconds(120)) const;

 private:
  std::string root_;
};

}  // namespace mend_test
