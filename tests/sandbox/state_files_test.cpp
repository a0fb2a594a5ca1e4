#include <thread>

#include "daemon_fixture.h"

namespace mend_test {
namespace {

// A package that is refused for its build: it runs the full report path
// (two native messages, four state saves) without needing a mount.
class StateFilesTest : public DaemonTest {
 protected:
  StateFilesTest() {
    AddPackage("a.zip", Config("a", "ro_build_display_id=OTHER\n"));
    a_.task_id = 5;
  }
  SpRecord a_{"a", 3, "/data/rvx/imgs/a.zip"};
};

TEST_F(StateFilesTest, LoadedRecordsAndMessagesSurviveEverySave) {
  SpRecord other{"zzz", 9, "/data/rvx/imgs/zzz.zip"};
  other.is_repair_success = true;
  // A line that is not JSON becomes a default record under "", which sorts
  // first and is written back as a real line; a later duplicate name wins.
  WriteState({other.Line(), "garbage", SpRecord{"a", 1, "/old"}.Line(), a_.Line()});
  const std::string other_native = NativeLine("zzz", "zzz.zip", 2, "{\"status\":1}", 9);
  root_.WriteFile("/data/rvx/msgs/native.msg", "not json\n" + other_native + "\n");
  const std::string app = "{\"update_package_name\":\"a\",\"msg_source\":\"app\"}\n";
  root_.WriteFile("/data/rvx/msgs/app.msg", app);

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_TRUE(HasInOrder(LogLines(run), {"app content: " + app.substr(0, app.size() - 1) + " ",
                                        "native content: not json ",
                                        "native content: " + other_native + " ",
                                        "syncSpList=======garbage"}))
      << run.output;

  SpRecord empty{"", 0, ""};
  a_.boot_failed_count = 1;
  a_.need_delete = true;
  EXPECT_EQ(State(), empty.Line() + "\n" + a_.Line() + "\n" + other.Line() + "\n");
  const std::string default_message =
      "{\"image_path\":\"\",\"msg_source\":\"\",\"msg_type\":0,\"need_response\":false,"
      "\"response_content\":\"\",\"task_id\":0,\"update_package_name\":\"\","
      "\"update_version_code\":0}";
  EXPECT_EQ(NativeMsg(), default_message + "\n" + NativeLine("a", "a.zip", 5, "{\"status\":-8}") +
                             "\n" + other_native + "\n");
  // app.msg is only rewritten by a successful repair's answer.
  EXPECT_EQ(root_.ReadFile("/data/rvx/msgs/app.msg"), app);
}

TEST_F(StateFilesTest, EarlierNativeMessageKeepsItsIdentity) {
  WriteState({a_.Line()});
  // Written by an earlier run for another version and path.
  root_.WriteFile("/data/rvx/msgs/native.msg",
                  NativeLine("a", "old.zip", 1, "{\"status\":1}", 2) + "\n");
  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(NativeMsg(), NativeLine("a", "old.zip", 5, "{\"status\":-8}", 2) + "\n");
}

TEST_F(StateFilesTest, StateWithoutTheFileIsNeverCreated) {
  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  auto log = LogLines(run);
  EXPECT_TRUE(HasLine(log, "Unable to open spfile"));
  EXPECT_TRUE(HasLine(log, "a not fount in sp"));
  EXPECT_FALSE(root_.Exists("/data/rvx/files/shared_prefs.cfg"));
}

TEST_F(StateFilesTest, UnwritableNativeMessagesAreLoggedAndTheRunGoesOn) {
  WriteState({a_.Line()});
  root_.MakeDir("/data/rvx/msgs/native.msg");  // a directory cannot be opened for writing
  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(run.exit_code, 0);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"saveNativeMsg", "Unable to open spfile : /data/rvx/msgs/native.msg ",
                               "saveNativeMsg : " + NativeLine("a", "a.zip", 5, "{\"status\":-2}") + " ",
                               "updateCanDelete : 1 "}))
      << run.output;
}

TEST_F(StateFilesTest, MembersOfTheWrongTypeEndTheDaemonBeforeAnythingIsWritten) {
  struct Case {
    std::string file, content;
  };
  for (const Case& c :
       {Case{"/data/rvx/files/shared_prefs.cfg", "{\"update_package_name\":\"a\",\"task_id\":\"5\"}\n"},
        Case{"/data/rvx/files/shared_prefs.cfg", "{\"update_version_code\":4294967296}\n"},
        Case{"/data/rvx/files/shared_prefs.cfg", "[\"a\"]\n"},
        Case{"/data/rvx/msgs/app.msg", "{\"need_response\":\"yes\"}\n"},
        Case{"/data/rvx/msgs/native.msg", "{\"msg_type\":1.5e10}\n"}}) {
    WriteState({a_.Line()});
    root_.WriteFile(c.file, c.content);
    const std::string state_before = State();
    SandboxRun run = RunMend();
    EXPECT_TRUE(run.aborted()) << c.content << run.output;
    EXPECT_NE(run.output.find("Json::LogicError"), std::string::npos) << run.output;
    EXPECT_EQ(State(), state_before);
    root_.WriteFile(c.file, "");
  }
}

TEST_F(DaemonTest, AsyncRunRepairsItsOwnPackagesAndConfirmsTheBootWhenCompleted) {
  AddPackage("s.zip", Config("s", "ro_build_display_id=OTHER\n"));
  AddPackage("x.zip", Config("x", "is_async_exec=1\nro_build_display_id=OTHER\n"));
  SpRecord s{"s", 3, "/data/rvx/imgs/s.zip"};
  SpRecord x{"x", 3, "/data/rvx/imgs/x.zip"};
  // Repaired earlier and never confirmed: the completed boot clears its count.
  SpRecord y{"y", 1, "/data/rvx/imgs/y.zip"};
  y.is_repair_success = true;
  y.boot_failed_count = 2;
  WriteState({s.Line(), x.Line(), y.Line()});
  root_.SetProperty("sys.boot_completed", "0");

  std::thread boot([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    root_.SetProperty("sys.boot_completed", "1");
  });
  const auto start = std::chrono::steady_clock::now();
  SandboxRun run = RunMend({"async"});
  const auto took = std::chrono::steady_clock::now() - start;
  boot.join();

  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_GE(took, std::chrono::milliseconds(1500));
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"startASyncMendRepair", "mendRepairList.size() = 2 "}))
      << run.output;
  EXPECT_TRUE(HasInOrder(log, {"1 tempRepairMap.size() = 1 ", "2 tempRepairMap.size() = 1 ",
                               "startMount : x", "refreshAllBootStatus : 1 ,spMap.size() = 3"}))
      << run.output;
  EXPECT_FALSE(HasLine(log, "startMount : s"));

  x.boot_failed_count = 1;
  x.need_delete = true;
  y.boot_failed_count = 0;
  y.is_boot_success = true;
  EXPECT_EQ(State(), s.Line() + "\n" + x.Line() + "\n" + y.Line() + "\n");
}

TEST_F(DaemonTest, SyncRunNeverWaitsForBoot) {
  AddPackage("s.zip", Config("s", "is_async_exec=2\nro_build_display_id=OTHER\n"));
  WriteState({SpRecord{"s", 3, "/data/rvx/imgs/s.zip"}.Line()});
  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  auto log = LogLines(run);
  EXPECT_TRUE(HasLine(log, "startMount : s"));
  EXPECT_FALSE(HasLine(log, "refreshAllBootStatus : 1 ,spMap.size() = 1"));
}

}  // namespace
}  // namespace mend_test
