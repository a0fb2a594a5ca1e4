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
  return std::string(RPKTOOL_TEST_KEY_DIR) + "/rsa" + std::to_string(bits) + ".pem";
}

void MakeSampleInputs(const TempDir& dir, const std::string& name) {
  WriteWholeFile(dir / "config.txt", PackageConfig(name));
  const std::string root = dir / "root";
  std::mt19937 random(42);
  std::string library(200 * 1024 + 123, '\0');
  for (auto& c : library) c = static_cast<char>(random());
  WriteTreeFile(root + "/system/lib64/libfix.so", library);
  WriteTreeFile(root + "/system/app/Demo/Demo.txt", "Demo app fix payload\n");
  WriteTreeFile(root + "/system/app/Demo/deep/er/empty", "");
  std::filesystem::create_symlink("../lib64/libfix.so", root + "/system/app/libfix_link.so");
}

ProgramRun Make(const TempDir& dir, const std::string& key, const std::string& output,
                const std::vector<std::string>& extra, const std::vector<std::string>& env) {
  std::vector<std::string> args = {"make",  "--config", dir / "config.txt", "--root", dir / "root",
                                   "--key", key,        "--output",         output};
  args.insert(args.end(), extra.begin(), extra.end());
  return RunTool(args, env);
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

}  // namespace mend_test
