#include "daemon_fixture.h"

namespace mend_test {
namespace {

TEST_F(DaemonTest, FeatureOffSkipsScanAndRun) {
  root_.SetProperty("persist.product.mend.support", "");
  AddPackage("a.zip", Config("a"));
  root_.WriteFile("/data/rvx/files/shared_prefs.cfg", SpLine("a", 3, 1) + "\n");

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(run.exit_code, 0);
  auto log = LogLines(run);
  EXPECT_TRUE(HasLine(log, "mend: 1,persist:-1")) << run.output;
  EXPECT_TRUE(HasLine(log, "mend is not supported"));
  EXPECT_FALSE(HasLine(log, "start run thread"));
  EXPECT_FALSE(root_.Exists("/data/rvx/msgs/native.msg"));
}

}  // namespace
}  // namespace mend_test
