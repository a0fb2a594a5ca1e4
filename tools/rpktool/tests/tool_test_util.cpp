#include "tool_test_util.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace rpktool_test {

namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Finds a program in $PATH and then in the sbin directories, where
// e2fsck and veritysetup live outside an ordinary user's $PATH.
std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  std::istringstream dirs(std::string(getenv("PATH") ? getenv("PATH") : "") + ":/usr/sbin:/sbin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
  }
  return name;
}

ToolRun Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
              bool separate_streams) {
  char out_path[] = "/tmp/rpktool-test-out-XXXXXX";
  char err_path[] = "/tmp/rpktool-test-err-XXXXXX";
  int out_fd = mkstemp(out_path);
  int err_fd = separate_streams ? mkstemp(err_path) : out_fd;
  if (out_fd < 0 || err_fd < 0) throw std::runtime_error("mkstemp failed");

  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
  environment.insert(environment.end(), env.begin(), env.end());
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = argv;
  args[0] = FindProgram(args[0]);
  std::vector<char*> argp;
  for (auto& arg : args) argp.push_back(arg.data());
  argp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err_fd, STDERR_FILENO);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ToolRun run{-1, "", ""};
  if (rc == 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  close(out_fd);
  run.out = Slurp(out_path);
  unlink(out_path);
  if (separate_streams) {
    close(err_fd);
    run.err = Slurp(err_path);
    unlink(err_path);
  }
  return run;
}

}  // namespace

ToolRun RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  std::vector<std::string> argv = {RPKTOOL_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  return Spawn(argv, env, true);
}

ToolRun RunProgram(const std::vector<std::string>& argv) { return Spawn(argv, {}, false); }

ScratchDir::ScratchDir() {
  char path[] = "/tmp/rpktool-test-XXXXXX";
  if (!mkdtemp(path)) throw std::runtime_error("mkdtemp failed");
  path_ = path;
}

ScratchDir::~ScratchDir() { RunProgram({"rm", "-rf", path_}); }

std::string FixtureDir() { return std::string(MEND_SOURCE_DIR) + "/tests/fixtures/avbtool"; }
std::string FixturePath(const std::string& relative) { return FixtureDir() + "/" + relative; }

std::string TestKey(unsigned bits) {
  const std::string dir = RPKTOOL_TEST_KEY_DIR;
  const std::string path = dir + "/rsa" + std::to_string(bits) + ".pem";
  if (access(path.c_str(), R_OK) == 0) return path;
  MakeDirs(dir);
  const std::string temp = path + ".tmp" + std::to_string(getpid());
  ToolRun run = RunProgram({"openssl", "genrsa", "-out", temp, std::to_string(bits)});
  if (run.exit_code != 0) throw std::runtime_error("openssl genrsa failed: " + run.out);
  rename(temp.c_str(), path.c_str());
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return Slurp(path);
}

void WriteFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << data;
}

void MakeDirs(const std::string& path) { RunProgram({"mkdir", "-p", path}); }

void FlipByte(const std::string& path, uint64_t offset) {
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + path);
  uint8_t byte = 0;
  if (pread(fd, &byte, 1, static_cast<off_t>(offset)) != 1) throw std::runtime_error("pread");
  byte ^= 0xff;
  if (pwrite(fd, &byte, 1, static_cast<off_t>(offset)) != 1) throw std::runtime_error("pwrite");
  close(fd);
}

std::string SampleConfig(const std::string& name) {
  return "update_package_name=" + name +
         "\n"
         "update_version_name=1.0.2\n"
         "update_version_code=3\n"
         "module_num=2\n"
         "module_name=libfix;appfix\n"
         "module_path=/system/lib64;/system/app\n"
         "fix_method=overlay\n"
         "ro_build_display_id=BUILD.A.001;BUILD.A.002\n"
         "trigger_rollback_count=3\n"
         "structure_version=1\n"
         "is_async_exec=0\n";
}

std::string MakeSampleTree(const ScratchDir& dir) {
  const std::string root = dir / "root";
  MakeDirs(root + "/system/lib64");
  MakeDirs(root + "/system/app/Demo/deep/er");
  std::mt19937 random(42);
  std::string library(200 * 1024 + 123, '\0');
  for (auto& c : library) c = static_cast<char>(random());
  WriteFile(root + "/system/lib64/libfix.so", library);
  WriteFile(root + "/system/app/Demo/Demo.txt", "Demo app fix payload\n");
  WriteFile(root + "/system/app/Demo/deep/er/empty", "");
  symlink("../lib64/libfix.so", (root + "/system/app/libfix_link.so").c_str());
  return root;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::Reader reader;
  if (!reader.parse(text, value)) return Json::Value();
  return value;
}

Json::Value Info(const std::string& package) {
  ToolRun run = RunTool({"info", "--json", package});
  if (run.exit_code != 0) throw std::runtime_error("info failed: " + run.err);
  return ParseJson(run.out);
}

void ExtractImage(const std::string& package, const std::string& path) {
  const Json::Value info = Info(package);
  const uint64_t offset = info["image"]["offset"].asUInt64();
  const uint64_t size = info["image"]["size"].asUInt64();
  WriteFile(path, ReadFile(package).substr(offset, size));
}

std::string KeyBlob(const ScratchDir& dir, const std::string& pem) {
  const std::string path = dir / (pem.substr(pem.rfind('/') + 1) + ".blob");
  ToolRun run = RunTool({"extract-public-key", "--key", pem, "--output", path});
  if (run.exit_code != 0) throw std::runtime_error("extract-public-key failed: " + run.err);
  return path;
}

}  // namespace rpktool_test
