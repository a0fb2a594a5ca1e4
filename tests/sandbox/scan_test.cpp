#include <unistd.h>

#include <filesystem>

#include "daemon_fixture.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

TEST_F(DaemonTest, EmptyPackageDirectoryChangesNothing) {
  // Even a state file with a line that is not JSON stays byte for byte: no
  // operation saves it.
  WriteState({"garbage", SpRecord{"a", 3, "/data/rvx/imgs/a.zip"}.Line()});
  const std::string state_before = State();

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(run.exit_code, 0);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"start run thread", "syncSpList=======garbage",
                               "execThreadRun-spMap.size = 2 , otaPkgMap.size = 0",
                               "mendRepairList.size() = 0 ", "2 tempRepairMap.size() = 0 ",
                               "nothing need to repair"}))
      << run.output;
  EXPECT_EQ(State(), state_before);
  EXPECT_FALSE(root_.Exists("/data/rvx/msgs/native.msg"));
}

TEST_F(DaemonTest, MissingPackageDirectoryEndsTheDaemon) {
  std::filesystem::remove_all(root_.HostPath("/data/rvx/imgs"));
  SandboxRun run = RunMend();
  EXPECT_TRUE(run.aborted()) << run.exit_code << "\n" << run.output;
  EXPECT_NE(run.output.find("filesystem_error"), std::string::npos) << run.output;
}

TEST_F(DaemonTest, FilesThatAreNoPackagesAreLoggedAndSkipped) {
  root_.WriteFile("/data/rvx/imgs/notes.txt", "not a zip");
  root_.MakeDir("/data/rvx/imgs/subdir");
  WriteZip(root_.HostPath("/data/rvx/imgs/noconfig.zip"), {{"other.txt", "x"}});
  WriteZip(root_.HostPath("/data/rvx/imgs/emptyconfig.zip"), {{"config.txt", ""}});
  WriteZip(root_.HostPath("/data/rvx/imgs/blank.zip"), {{"config.txt", "\n\n \n"}});
  ASSERT_EQ(symlink("/nowhere", root_.HostPath("/data/rvx/imgs/dangling.zip").c_str()), 0);

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(run.exit_code, 0);
  auto log = LogLines(run);
  const std::string dir = "/data/rvx/imgs/";
  EXPECT_TRUE(HasInOrder(log, {"current is " + dir + "notes.txt", "parseRepairImage : " + dir + "notes.txt",
                               "readFileFromZip : " + dir + "notes.txt , config.txt",
                               "Failed to open OpenArchiveFd " + dir + "notes.txt"}))
      << run.output;
  EXPECT_TRUE(HasLine(log, "Failed to open OpenArchiveFd " + dir + "subdir"));
  EXPECT_TRUE(HasLine(log, "not found config file config.txt "));
  EXPECT_TRUE(HasLine(log, "Failed to open fd " + dir + "dangling.zip "));
  // The empty config never reaches the parser; the blank one parses to no name.
  EXPECT_TRUE(HasLine(log, "execThreadRun-spMap.size = 0 , otaPkgMap.size = 1"));
  EXPECT_FALSE(HasLine(log, "config content is empty"));
  EXPECT_NE(run.output.find(" parser,\n\n \n\n"), std::string::npos) << run.output;
  EXPECT_FALSE(HasLine(log, " notAllowForRepair"));
  EXPECT_TRUE(HasLine(log, "nothing need to repair"));
}

TEST_F(DaemonTest, PackagesWithoutMatchingStateRecordAreNotRepaired) {
  AddPackage("a.zip", Config("a"));
  AddPackage("b.zip", Config("b"));
  WriteState({SpRecord{"b", 4, "/data/rvx/imgs/b.zip"}.Line()});
  const std::string state_before = State();

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"a notAllowForRepair", "a not fount in sp", "b notAllowForRepair",
                               "b not fount in sp", "mendRepairList.size() = 0 "}))
      << run.output;
  EXPECT_EQ(State(), state_before);
  EXPECT_FALSE(root_.Exists("/data/rvx/msgs/native.msg"));
}

TEST_F(DaemonTest, CancelledPackageIsMarkedDeletableAndSkipped) {
  AddPackage("a.zip", Config("a"));
  AddPackage("b.zip", Config("b"));
  SpRecord a{"a", 3, "/data/rvx/imgs/a.zip"};
  a.need_cancel = true;
  a.task_id = 4;
  // A cancel request for another version does not apply.
  SpRecord b{"b", 2, "/data/rvx/imgs/b.zip"};
  b.need_cancel = true;
  WriteState({a.Line(), b.Line()});

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"a notAllowForRepair", "a need cancel", "updateCanDelete : 1 ",
                               "b notAllowForRepair", "b not fount in sp",
                               "mendRepairList.size() = 0 "}))
      << run.output;
  a.need_delete = true;
  EXPECT_EQ(State(), a.Line() + "\n" + b.Line() + "\n");
  EXPECT_FALSE(root_.Exists("/data/rvx/msgs/native.msg"));
}

TEST_F(DaemonTest, IdenticalPackagesUnderTwoPathsAreBothRepaired) {
  AddPackage("one.zip", Config("same"));
  AddPackage("two.zip", Config("same"));
  SpRecord rec{"same", 3, "/data/rvx/imgs/one.zip"};
  rec.task_id = 8;
  WriteState({rec.Line()});

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"mendRepairList.size() = 2 ", "1 tempRepairMap.size() = 1 ",
                               "1 tempRepairMap.size() = 2 ",
                               "preMountSingleRepairPackage : /data/rvx/imgs/one.zip , "
                               "/mnt/rvx/same , same",
                               "preMountSingleRepairPackage : /data/rvx/imgs/two.zip , "
                               "/mnt/rvx/same , same"}))
      << run.output;
}

TEST_F(DaemonTest, UnconvertibleConfigNumberEndsTheDaemon) {
  AddPackage("a.zip", Config("a", "update_version_code=abc\n"));
  WriteState({SpRecord{"a", 3, "/data/rvx/imgs/a.zip"}.Line()});
  const std::string state_before = State();

  SandboxRun run = RunMend();
  EXPECT_TRUE(run.aborted()) << run.exit_code << "\n" << run.output;
  EXPECT_NE(run.output.find("std::invalid_argument"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("parser," + Config("a", "update_version_code=abc\n")),
            std::string::npos);
  EXPECT_EQ(State(), state_before);
}

}  // namespace
}  // namespace mend_test
