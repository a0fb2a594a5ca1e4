#include "sandbox_root.h"

#include <signal.h>

#include <cstdlib>
#include <filesystem>

#include "run_program.h"
#include "test_files.h"

namespace fs = std::filesystem;

namespace mend_test {
namespace {

constexpr const char kExitStatusFile[] = "/run/.sandbox-exit-status";

std::string TempBase() {
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/mend-sandbox-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) abort();
  return pattern;
}

}  // namespace

SandboxRoot::SandboxRoot() : root_(TempBase() + "/root") {
  for (const char* dir : {"/data", "/system", "/mnt", "/run"}) MakeDir(dir);
}

SandboxRoot::~SandboxRoot() {
  std::error_code ignored;
  fs::remove_all(fs::path(root_).parent_path(), ignored);
}

std::string SandboxRoot::HostPath(const std::string& sandbox_path) const {
  return root_ + sandbox_path;
}

void SandboxRoot::MakeDir(const std::string& sandbox_path) const {
  fs::create_directories(HostPath(sandbox_path));
}

void SandboxRoot::WriteFile(const std::string& sandbox_path, const std::string& content) const {
  MakeDir(fs::path(sandbox_path).parent_path().string());
  WriteWholeFile(HostPath(sandbox_path), content);
}

void SandboxRoot::CopyIn(const std::string& host_file, const std::string& sandbox_path) const {
  MakeDir(fs::path(sandbox_path).parent_path().string());
  fs::copy_file(host_file, HostPath(sandbox_path), fs::copy_options::overwrite_existing);
}

std::string SandboxRoot::ReadFile(const std::string& sandbox_path) const {
  return ReadWholeFile(HostPath(sandbox_path));
}

bool SandboxRoot::Exists(const std::string& sandbox_path) const {
  return fs::exists(HostPath(sandbox_path));
}

void SandboxRoot::SetProperty(const std::string& name, const std::string& value) const {
  WriteFile(std::string(MEND_PROPERTY_DIR) + "/" + name, value + "\n");
}

SandboxRun SandboxRoot::Run(const std::vector<std::string>& argv,
                            std::chrono::seconds timeout) const {
  fs::remove(HostPath(kExitStatusFile));
  // The shell inside records how the command ended.
  std::vector<std::string> args = {MEND_SOURCE_DIR "/scripts/sandbox", root_, "/bin/sh", "-c",
                                   std::string("\"$@\"; echo $? > ") + kExitStatusFile, "sh"};
  args.insert(args.end(), argv.begin(), argv.end());
  RunOptions options;
  options.timeout = timeout;
  const ProgramRun program = RunProgram(args, options);

  SandboxRun run;
  run.output = program.out;
  run.timed_out = program.timed_out;
  // A reboot request kills the sandbox's init with SIGHUP, which bwrap passes
  // on as status 129. The caller itself just exits, so the shell may still
  // have recorded a status: the sandbox's own status decides.
  run.rebooted = program.exit_code == 128 + SIGHUP;
  if (!run.rebooted && !run.timed_out && Exists(kExitStatusFile)) {
    run.finished = true;
    run.exit_code = std::atoi(ReadFile(kExitStatusFile).c_str());
  }
  return run;
}

}  // namespace mend_test
