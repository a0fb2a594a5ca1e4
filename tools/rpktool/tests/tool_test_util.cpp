#include "tool_test_util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>

namespace mend_test {

ProgramRun RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  std::vector<std::string> argv = {RPKTOOL_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  RunOptions options;
  options.env = env;
  options.separate_err = true;
  return RunProgram(argv, options);
}

std::string TestKey(unsigned bits) {
  const std::string dir = RPKTOOL_TEST_KEY_DIR;
  const std::string path = dir + "/rsa" + std::to_string(bits) + ".pem";
  if (access(path.c_str(), R_OK) == 0) return path;
  std::filesystem::create_directories(dir);
  const std::string temp = path + ".tmp" + std::to_string(getpid());
  const ProgramRun run = RunProgram({"openssl", "genrsa", "-out", temp, std::to_string(bits)});
  EXPECT_EQ(run.exit_code, 0) << run.out;
  rename(temp.c_str(), path.c_str());
  return path;
}

std::string MakeSampleTree(const TempDir& dir) {
  const std::string root = dir / "root";
  std::filesystem::create_directories(root + "/system/lib64");
  std::filesystem::create_directories(root + "/system/app/Demo/deep/er");
  std::mt19937 random(42);
  std::string library(200 * 1024 + 123, '\0');
  for (auto& c : library) c = static_cast<char>(random());
  WriteWholeFile(root + "/system/lib64/libfix.so", library);
  WriteWholeFile(root + "/system/app/Demo/Demo.txt", "Demo app fix payload\n");
  WriteWholeFile(root + "/system/app/Demo/deep/er/empty", "");
  std::filesystem::create_symlink("../lib64/libfix.so", root + "/system/app/libfix_link.so");
  return root;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  if (!Json::Reader().parse(text, value)) return Json::Value();
  return value;
}

Json::Value Info(const std::string& package) {
  const ProgramRun run = RunTool({"info", "--json", package});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return ParseJson(run.out);
}

void ExtractImage(const std::string& package, const std::string& path) {
  const Json::Value info = Info(package);
  const uint64_t offset = info["image"]["offset"].asUInt64();
  const uint64_t size = info["image"]["size"].asUInt64();
  WriteWholeFile(path, ReadWholeFile(package).substr(offset, size));
}

std::string ExtractKeyBlob(const TempDir& dir, const std::string& pem) {
  const std::string path = dir / (pem.substr(pem.rfind('/') + 1) + ".blob");
  const ProgramRun run = RunTool({"extract-public-key", "--key", pem, "--output", path});
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return path;
}

}  // namespace mend_test
