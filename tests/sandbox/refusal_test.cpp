#include "daemon_fixture.h"

namespace mend_test {
namespace {

const std::string kFailedOverlay = "{\"status\":-8}";

class RefusalTest : public DaemonTest {
 protected:
  // One package "a" at /data/rvx/imgs/a.zip with the given config lines and
  // its state record; runs the synchronous daemon.
  SandboxRun RunWith(const std::string& config, SpRecord record) {
    AddPackage("a.zip", config);
    WriteState({record.Line()});
    SandboxRun run = RunMend();
    EXPECT_TRUE(run.finished) << run.output;
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_FALSE(run.rebooted);
    return run;
  }

  static SpRecord RecordA() {
    SpRecord rec{"a", 3, "/data/rvx/imgs/a.zip"};
    rec.task_id = 5;
    return rec;
  }
};

TEST_F(RefusalTest, BootFailureLimitIsCountedThenRefused) {
  SpRecord rec = RecordA();
  rec.boot_failed_count = 3;  // the run counts one more: 4 > 3
  SandboxRun run = RunWith(Config("a"), rec);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(
      log, {"pair.second.is_async_exec = 0 ", "updateBootFailedCount",
            "updateBootFailedCount ======a============4==================3",
            "1 tempRepairMap.size() = 1 ", "startMount : a", "boot failed more than 3 ",
            "writeMessage : 5", "saveNativeMsg : " + NativeLine("a", "a.zip", 5, "{\"status\":-1}") + " ",
            "updateRepairStatus : 0 ", "updateCanDelete : 1 ", "check package failed",
            "startOverlay : 0", "nothing need to be overlay",
            "saveNativeMsg : " + NativeLine("a", "a.zip", 5, kFailedOverlay) + " ",
            "updateCanDelete : 1 ", "updateRepairStatus : 0 "}))
      << run.output;
  EXPECT_FALSE(HasLine(log, "start reboot."));
  EXPECT_EQ(NativeMsg(), NativeLine("a", "a.zip", 5, kFailedOverlay) + "\n");
  rec.boot_failed_count = 4;
  rec.need_delete = true;
  EXPECT_EQ(State(), rec.Line() + "\n");
}

TEST_F(RefusalTest, BootFailureCountEqualToLimitPasses) {
  SpRecord rec = RecordA();
  rec.boot_failed_count = 2;  // counted to 3, which is still tolerated
  SandboxRun run = RunWith(Config("a"), rec);
  auto log = LogLines(run);
  EXPECT_FALSE(HasLine(log, "boot failed more than 3 "));
  EXPECT_TRUE(HasLine(log, "preMountSingleRepairPackage : /data/rvx/imgs/a.zip , /mnt/rvx/a , a"))
      << run.output;
}

TEST_F(RefusalTest, ConfirmedBootIsNotCounted) {
  SpRecord rec = RecordA();
  rec.boot_failed_count = 2;
  rec.is_boot_success = true;
  SandboxRun run = RunWith(Config("a", "trigger_rollback_count=1\n"), rec);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(log, {"updateBootFailedCount ======a============2==================2",
                               "boot failed more than 1 "}))
      << run.output;
}

TEST_F(RefusalTest, MissingRollbackCountRefusesAnyFailedBoot) {
  SpRecord rec = RecordA();
  SandboxRun run = RunWith("update_package_name=a\nupdate_version_code=3\nro_build_display_id=BUILD.A.001\n", rec);
  EXPECT_TRUE(HasLine(LogLines(run), "boot failed more than 0 ")) << run.output;
}

TEST_F(RefusalTest, BuildNotListedIsRefused) {
  root_.SetProperty("ro.build.display.id", "BUILD.A.001 ");  // a trailing blank does not match
  SpRecord rec = RecordA();
  SandboxRun run = RunWith(Config("a"), rec);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(
      log, {"startMount : a",
            "os version is not match : BUILD.A.001;BUILD.A.002 ,current is : BUILD.A.001  ",
            "saveNativeMsg : " + NativeLine("a", "a.zip", 5, "{\"status\":-2}") + " ",
            "updateCanDelete : 1 ", "updateRepairStatus : 0 ", "check package failed"}))
      << run.output;
  rec.boot_failed_count = 1;
  rec.need_delete = true;
  EXPECT_EQ(State(), rec.Line() + "\n");
}

TEST_F(RefusalTest, UnsetBuildIdComparesAsUnknown) {
  root_.SetProperty("ro.build.display.id", "");
  SandboxRun run = RunWith(Config("a", "ro_build_display_id=X;unknown\n"), RecordA());
  auto log = LogLines(run);
  EXPECT_FALSE(HasLine(log, "check package failed")) << run.output;
  EXPECT_TRUE(HasLine(log, "preMountSingleRepairPackage : /data/rvx/imgs/a.zip , /mnt/rvx/a , a"));
}

TEST_F(RefusalTest, EmptyBuildListIsRefused) {
  SpRecord rec = RecordA();
  SandboxRun run = RunWith("update_package_name=a\nupdate_version_code=3\ntrigger_rollback_count=5\n", rec);
  auto log = LogLines(run);
  EXPECT_TRUE(HasInOrder(
      log, {"build version list size is 0",
            "saveNativeMsg : " + NativeLine("a", "a.zip", 5, "{\"status\":-9}") + " ",
            "updateCanDelete : 1 ", "updateRepairStatus : 0 ", "check package failed"}))
      << run.output;
}

TEST_F(RefusalTest, MountErrorIsReportedWithReasonAndNotMarkedDeletable) {
  SpRecord rec = RecordA();
  SandboxRun run = RunWith(Config("a"), rec);
  auto log = LogLines(run);
  // Whatever the engine says goes out verbatim as the "reason".
  std::string reason;
  for (const auto& line : log) {
    const std::string prefix = "preMountSingleRepairPackage : DoMountPackage error : ";
    if (line.rfind(prefix, 0) == 0) reason = line.substr(prefix.size(), line.size() - prefix.size() - 1);
  }
  ASSERT_FALSE(reason.empty()) << run.output;
  const std::string mount_failed = "{\"reason\":\"" + reason + "\",\"status\":-7}";
  EXPECT_TRUE(HasInOrder(log, {"saveNativeMsg : " + NativeLine("a", "a.zip", 5, mount_failed) + " ",
                               "updateRepairStatus : 0 ", "mount package failed", "startOverlay : 0"}))
      << run.output;
  // The mount point directory was made; nothing was mounted on it.
  EXPECT_TRUE(root_.Exists("/mnt/rvx/a"));
  // Then judged with -8 (nothing overlaid) and marked deletable; no reboot
  // because no module was mounted.
  EXPECT_FALSE(HasLine(log, "start reboot."));
  EXPECT_EQ(NativeMsg(), NativeLine("a", "a.zip", 5, kFailedOverlay) + "\n");
  rec.boot_failed_count = 1;
  rec.need_delete = true;
  EXPECT_EQ(State(), rec.Line() + "\n");
}

}  // namespace
}  // namespace mend_test
