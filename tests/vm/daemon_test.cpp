// The daemon end to end on the virtual device: real loop and dm-verity
// devices, ext4 and overlay mounts, and the reboot rule. Each test is one
// boot of a device laid out like a phone that received repair packages.
#include <gtest/gtest.h>

#include "avb_fixtures.h"
#include "daemon_records.h"
#include "test_files.h"
#include "virtual_device.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

// Runs the daemon, then reports what it left behind, section by section.
const std::string kInspect = std::string("'") + MEND_BINARY + "' \"$@\"; echo mend-exit=$?;" +
    R"SH(
echo '== mounts'; grep -E ' /mnt/rvx/| /system/' /proc/mounts | cut -d' ' -f1-4
echo '== dm'; cat /sys/block/dm-*/dm/name 2>/dev/null
echo '== loop'; cat /sys/block/loop*/loop/backing_file 2>/dev/null
echo '== files'; sha256sum /system/lib64/libfix.so /system/app/Demo/Demo.txt 2>&1
cat /system/lib64/libstock.txt
echo '== end'
)SH";

std::string Section(const std::string& output, const std::string& name) {
  const std::string start = "== " + name + "\n";
  size_t a = output.find(start);
  if (a == std::string::npos) return "";
  a += start.size();
  return output.substr(a, output.find("== ", a) - a);
}

std::string Expected(const std::string& package, const char* member) {
  return ManifestPackage(package)["expected"][member].asString();
}

class DaemonOnDeviceTest : public ::testing::Test {
 protected:
  DaemonOnDeviceTest() {
    LayOutRepairDevice(&device_);
    device_.AddBinary(MEND_BINARY);
  }

  // Puts reference package `fixture` at /data/rvx/imgs/<fixture>.zip with a
  // state record.
  void AddPackage(const std::string& fixture, int task_id) {
    const std::string target = "/data/rvx/imgs/" + fixture + ".zip";
    device_.root().CopyIn(AvbFixture("pkgs/" + fixture + ".zip"), target);
    AddRecord(ManifestPackage(fixture)["config_package_name"].asString(), target, task_id);
  }

  // The image of reference package `fixture` under another config (which
  // the signature does not cover), as package `name` in <name>.zip.
  void AddRepackaged(const std::string& fixture, const std::string& name, int task_id,
                     const std::string& extra_config) {
    const std::string target = "/data/rvx/imgs/" + name + ".zip";
    const std::string image =
        ReadZipMember(AvbFixture("pkgs/" + fixture + ".zip"), "update_payload.img");
    WriteZip(device_.root().HostPath(target), {{"config.txt", PackageConfig(name, extra_config)},
                                               {"update_payload.img", image, false, 4096}});
    AddRecord(name, target, task_id);
  }

  void AddRecord(const std::string& name, const std::string& image_path, int task_id) {
    SpRecord record{name, 3, image_path};
    record.task_id = task_id;
    state_ += record.Line() + "\n";
  }

  VmRun RunDaemon(const std::vector<std::string>& args = {}) {
    device_.root().WriteFile("/data/rvx/files/shared_prefs.cfg", state_);
    std::vector<std::string> argv = {"/bin/sh", "-c", kInspect, "mend"};
    argv.insert(argv.end(), args.begin(), args.end());
    return device_.Run(argv);
  }

  std::string Read(const std::string& path) { return device_.root().ReadFile(path); }

  VirtualDevice device_;
  std::string state_;
};

TEST_F(DaemonOnDeviceTest, ValidPackageIsVerifiedMountedOverlaidAndReported) {
  AddPackage("valid_2048", 7);
  device_.root().WriteFile("/data/rvx/msgs/app.msg",
                           "{\"update_package_name\":\"demo_fix1\",\"msg_source\":\"app\","
                           "\"need_response\":true,\"msg_type\":1}\n");
  const VmRun run = RunDaemon();
  ASSERT_TRUE(run.finished) << run.end << "\n" << run.output;
  EXPECT_TRUE(Contains(run.output, "mend-exit=0")) << run.output;

  const std::string mounts = Section(run.output, "mounts");
  EXPECT_TRUE(Contains(mounts, " /mnt/rvx/demo_fix1 ext4 ro")) << mounts;
  EXPECT_TRUE(Contains(mounts, "overlayfs-system_lib64 /system/lib64 overlay ro")) << mounts;
  EXPECT_TRUE(Contains(mounts, "overlayfs-system_app /system/app overlay ro")) << mounts;
  // The scratch device of the trial pass is gone; the real one stays, on one
  // loop device over the package file.
  EXPECT_EQ(Section(run.output, "dm"), "demo_fix1\n");
  EXPECT_EQ(Section(run.output, "loop"), "/data/rvx/imgs/valid_2048.zip\n");
  // The package's files show through the overlays; the stock ones remain.
  const std::string files = Section(run.output, "files");
  EXPECT_TRUE(Contains(files, "b785242dbf46a36fe3610c56366e6d4f100f8e054b1354799f6c9897a459f3ae  "
                              "/system/lib64/libfix.so"))
      << files;
  EXPECT_TRUE(Contains(files, "14cabbd5571d6f997dd23d1812b23879157d415cdac3340a5c85d56e711135f4  "
                              "/system/app/Demo/Demo.txt"))
      << files;
  EXPECT_TRUE(Contains(files, "stock lib\n")) << files;

  const auto log = DaemonLog(run.output);
  EXPECT_TRUE(HasInOrder(log, {"startOverlay : 2", "RPK repair ok", "RPK repair ok",
                               "execMendPackageRepir"}))
      << run.output;
  EXPECT_EQ(Read("/data/rvx/msgs/native.msg"),
            NativeLine("demo_fix1", "valid_2048.zip", 7, "{\"status\":1}") + "\n");
  EXPECT_EQ(Read("/data/rvx/msgs/app.msg"),
            "{\"image_path\":\"\",\"msg_source\":\"app\",\"msg_type\":1,\"need_response\":true,"
            "\"response_content\":\"{\\\"status\\\":1}\",\"task_id\":0,"
            "\"update_package_name\":\"demo_fix1\",\"update_version_code\":0}\n");
  SpRecord record{"demo_fix1", 3, "/data/rvx/imgs/valid_2048.zip"};
  record.task_id = 7;
  record.is_repair_success = true;
  record.boot_failed_count = 1;  // counted at start; the sync run never confirms a boot
  EXPECT_EQ(Read("/data/rvx/files/shared_prefs.cfg"), record.Line() + "\n");
}

TEST_F(DaemonOnDeviceTest, BrokenPackagesAreRefusedWithTheirReasonsAndLeaveNothingBehind) {
  int task = 1;
  for (const char* fixture : {"wrong_key", "unsigned", "hash_descriptor_only", "data_corrupt"}) {
    AddPackage(fixture, task++);
  }
  // A valid package whose mount point is in use is refused before any device.
  AddPackage("valid_2048", task);
  device_.root().WriteFile("/mnt/rvx/demo_fix1/stale", "x");

  const VmRun run = RunDaemon();
  ASSERT_TRUE(run.finished) << run.end << "\n" << run.output;
  const auto log = DaemonLog(run.output);
  task = 1;
  for (const char* fixture : {"wrong_key", "unsigned", "hash_descriptor_only", "data_corrupt"}) {
    const std::string name = ManifestPackage(fixture)["config_package_name"].asString();
    const std::string file = std::string(fixture) + ".zip";
    EXPECT_TRUE(HasLine(log, "saveNativeMsg : " +
                                 NativeLine(name, file, task, Expected(fixture, "json")) + " "))
        << fixture << "\n" << run.output;
    ++task;
  }
  const std::string busy =
      "{\"reason\":\"first mount failed /mnt/rvx/demo_fix1 is not empty\",\"status\":-7}";
  EXPECT_TRUE(HasLine(log, "saveNativeMsg : " + NativeLine("demo_fix1", "valid_2048.zip", 5, busy) + " "))
      << run.output;
  // Nothing was mounted, so the failures do not restart the device.
  EXPECT_FALSE(HasLine(log, "start reboot."));
  EXPECT_EQ(Section(run.output, "dm"), "");
  EXPECT_EQ(Section(run.output, "loop"), "");
  EXPECT_EQ(Section(run.output, "mounts"), "");
}

TEST_F(DaemonOnDeviceTest, FailedOverlayAfterAMountedRepairRestartsTheDevice) {
  AddPackage("valid_2048", 1);
  // Mounts fine, but names a directory that neither it nor the device has.
  AddRepackaged("valid_2048", "broken_fix", 2, "module_path=/system/absent\n");
  const VmRun run = RunDaemon();
  EXPECT_TRUE(run.rebooted) << run.end << "\n" << run.output;
  EXPECT_FALSE(Contains(run.output, "mend-exit=")) << run.output;
  EXPECT_TRUE(HasInOrder(DaemonLog(run.output),
                         {"startOverlay : 3", "Mounted overlay failed : 2 , No such file or directory",
                          "start reboot.", "force reboot"}))
      << run.output;
  // The reports were synced before the restart.
  EXPECT_EQ(Read("/data/rvx/msgs/native.msg"),
            NativeLine("broken_fix", "broken_fix.zip", 2, "{\"status\":-8}") + "\n" +
                NativeLine("demo_fix1", "valid_2048.zip", 1, "{\"status\":1}") + "\n");
}

TEST_F(DaemonOnDeviceTest, PackageWithoutModulesOfItsOwnIsJudgedByTheOthers) {
  // data_corrupt never mounts, so it has no module; the run's only modules
  // come from the valid package and succeed, and that is all the judgement
  // looks at.
  AddPackage("valid_2048", 1);
  AddPackage("data_corrupt", 2);
  const VmRun run = RunDaemon();
  ASSERT_TRUE(run.finished) << run.end << "\n" << run.output;
  EXPECT_TRUE(HasLine(DaemonLog(run.output),
                      "saveNativeMsg : " +
                          NativeLine("fix_data_corrupt", "data_corrupt.zip", 2,
                                     Expected("data_corrupt", "json")) +
                          " "))
      << run.output;
  EXPECT_EQ(Section(run.output, "dm"), "demo_fix1\n");
  EXPECT_EQ(Read("/data/rvx/msgs/native.msg"),
            NativeLine("demo_fix1", "valid_2048.zip", 1, "{\"status\":1}") + "\n" +
                NativeLine("fix_data_corrupt", "data_corrupt.zip", 2, "{\"status\":1}") + "\n");
}

}  // namespace
}  // namespace mend_test
