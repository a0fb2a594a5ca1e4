#include "daemon_fixture.h"

namespace mend_test {
namespace {

TEST_F(DaemonTest, FeatureSwitchNeedsBothPropertiesExactlyOne) {
  AddPackage("a.zip", Config("a"));
  WriteState({SpRecord{"a", 3, "/data/rvx/imgs/a.zip"}.Line()});
  const std::string state_before = State();

  struct Case {
    std::string product, persist, logged;
  };
  for (const Case& c : {Case{"1", "", "mend: 1,persist:-1"}, Case{"true", "1", "mend: true,persist:1"},
                        Case{"1", "01", "mend: 1,persist:01"}, Case{"", "", "mend: -1,persist:-1"}}) {
    root_.SetProperty("ro.product.mend.support", c.product);
    root_.SetProperty("persist.product.mend.support", c.persist);
    SandboxRun run = RunMend();
    ASSERT_TRUE(run.finished) << run.output;
    EXPECT_EQ(run.exit_code, 0);
    auto log = LogLines(run);
    // Refused in the constructor (no scan) and again by the run.
    EXPECT_TRUE(HasInOrder(log, {c.logged, "mend is not supported", "startSyncMendRepair",
                                 c.logged, "mend is not supported"}))
        << run.output;
    EXPECT_FALSE(HasLine(log, "start run thread"));
  }
  EXPECT_FALSE(root_.Exists("/data/rvx/msgs/native.msg"));
  EXPECT_EQ(State(), state_before);
}

TEST_F(DaemonTest, OnlyTheExactArgumentAsyncSelectsTheAsyncRun) {
  AddPackage("sync.zip", Config("s", "is_async_exec=2\n"));
  AddPackage("async.zip", Config("x", "is_async_exec=1\n"));
  root_.SetProperty("sys.boot_completed", "1");

  for (const auto& args : std::vector<std::vector<std::string>>{{}, {"async", "extra"}, {"ASYNC"}}) {
    SandboxRun run = RunMend(args);
    ASSERT_TRUE(run.finished) << run.output;
    EXPECT_EQ(run.exit_code, 0);
    auto log = LogLines(run);
    EXPECT_TRUE(HasLine(log, "startSyncMendRepair")) << run.output;
    EXPECT_FALSE(HasLine(log, "startASyncMendRepair"));
  }
  SandboxRun run = RunMend({"async"});
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_TRUE(HasLine(LogLines(run), "startASyncMendRepair")) << run.output;
}

}  // namespace
}  // namespace mend_test
