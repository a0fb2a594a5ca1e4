// The real mendctl binary in the sandbox, on the device's fixed paths: its
// command line, and broken or missing files that must give a clear message
// and never a crash or a write.
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <map>

#include "avb_fixtures.h"
#include "daemon_records.h"
#include "sandbox_root.h"
#include "test_files.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

// Every file under the root's /data and /system with its bytes.
std::map<std::string, std::string> Tree(const SandboxRoot& root) {
  std::map<std::string, std::string> files;
  for (const char* top : {"/data", "/system"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root.HostPath(top))) {
      files[entry.path().string()] = entry.is_regular_file() ? ReadWholeFile(entry.path()) : "";
    }
  }
  return files;
}

TEST(MendctlCliTest, CommandLine) {
  SandboxRoot root;
  const struct {
    std::vector<std::string> args;
    int exit_code;
    const char* says;
  } kCases[] = {
      {{}, 2, "usage: mendctl <verb>"},
      {{"--help"}, 0, "check [--json] [--verify]"},
      {{"frob"}, 2, "unknown verb 'frob'"},
      {{"plan", "--help"}, 0, "usage: mendctl plan"},
      {{"check", "--verify", "--help"}, 0, "re-hash"},
      {{"plan", "--verify"}, 2, "unexpected argument '--verify'"},
      {{"status", "a", "b"}, 2, "unexpected argument 'b'"},
      {{"status"}, 2, "nothing readable"},  // an empty device
  };
  for (const auto& c : kCases) {
    std::vector<std::string> argv = {MENDCTL_BINARY};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const SandboxRun run = root.Run(argv);
    EXPECT_EQ(run.exit_code, c.exit_code) << run.output;
    EXPECT_TRUE(Contains(run.output, c.says)) << run.output;
  }
}

TEST(MendctlCliTest, BrokenFilesAreNamedAndNothingIsWritten) {
  SandboxRoot root;
  root.MakeDir("/data/rvx/imgs/a_directory");
  const std::string package = AvbFixture("pkgs/valid_2048.zip");
  root.CopyIn(package, "/data/rvx/imgs/fix.zip");
  root.WriteFile("/data/rvx/imgs/truncated.zip", ReadWholeFile(package).substr(0, 5000));
  std::filesystem::create_symlink("/nowhere", root.HostPath("/data/rvx/imgs/dangling.zip"));
  root.WriteFile("/data/rvx/files/shared_prefs.cfg",
                 SpRecord{"demo_fix1", 3, "/data/rvx/imgs/fix.zip"}.Line() +
                     "\nnot json\n{\"update_package_name\":\"t\",\"need_delete\":\"yes\"}\n"
                     "{\"update_package_name\":\"cut");
  root.WriteFile("/data/rvx/msgs/app.msg", "[\"an array\"]\n");
  const auto before = Tree(root);

  const struct {
    std::vector<std::string> args;
    int exit_code;
  } kRuns[] = {{{"status"}, 0},          {{"status", "--json"}, 0},    {{"plan", "--json"}, 0},
               {{"check", "--json"}, 1}, {{"status", "demo_fix1"}, 0}, {{"status", "nope"}, 2}};
  for (const auto& c : kRuns) {
    std::vector<std::string> argv = {MENDCTL_BINARY};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    const SandboxRun run = root.Run(argv);
    SCOPED_TRACE(android::base::Join(c.args, " ") + "\n" + run.output);
    EXPECT_EQ(run.exit_code, c.exit_code);
    EXPECT_TRUE(Contains(run.output, "shared_prefs.cfg:3: member \"need_delete\""));
    EXPECT_TRUE(Contains(run.output, "app.msg:1: the line holds no JSON object"));
    if (c.args.size() == 2 && c.args[1] == "--json") {
      Json::Value json;
      const std::string out = run.output.substr(run.output.find("\n{") + 1);
      EXPECT_TRUE(Json::Reader().parse(out, json));
    }
  }
  const SandboxRun status = root.Run({MENDCTL_BINARY, "status"});
  EXPECT_TRUE(Contains(status.output, "not a zip archive")) << status.output;
  EXPECT_TRUE(Contains(status.output, "cannot be opened")) << status.output;
  EXPECT_EQ(Tree(root), before);
}

}  // namespace
}  // namespace mend_test
