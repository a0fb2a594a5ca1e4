// The virtual test device itself: what goes in, what comes back, and how a
// boot that ends early is told apart from a command that returned.
#include <gtest/gtest.h>

#include "test_files.h"
#include "virtual_device.h"

namespace {

using mend_test::Contains;
using mend_test::VirtualDevice;
using mend_test::VmRun;

TEST(VirtualDeviceTest, CommandSeesTheDeviceAndItsDataComesBack) {
  VirtualDevice device;
  device.root().WriteFile("/system/etc/greeting", "hello from system\n");
  device.root().WriteFile("/data/rvx/in.txt", "kept across the boot\n");
  device.root().SetProperty("ro.build.display.id", "BUILD.VM.1");
  device.AddBinary(MEND_BINARY);
  const VmRun run = device.Run({"/bin/sh", "-c",
                                "cat /system/etc/greeting /run/mend/properties/ro.build.display.id;"
                                "stat -f -c 'data-fs %T' /data;"
                                "test -b /dev/block/vda && test -b /dev/block/loop0 && echo nodes;"
                                "grep -q dm_verity /proc/modules && echo verity-loaded;"
                                "'" MEND_BINARY "'; echo daemon=$?;"
                                "mkdir -p /data/out && echo written > /data/out/result.txt;"
                                "exit 7"});
  EXPECT_TRUE(run.finished) << run.end << "\n" << run.output;
  EXPECT_EQ(run.exit_code, 7);
  EXPECT_FALSE(run.rebooted);
  EXPECT_TRUE(Contains(run.output, "hello from system\nBUILD.VM.1\n")) << run.output;
  EXPECT_TRUE(Contains(run.output, "data-fs ext2/ext3")) << run.output;
  EXPECT_TRUE(Contains(run.output, "nodes\n")) << run.output;
  EXPECT_TRUE(Contains(run.output, "verity-loaded\n")) << run.output;
  // The daemon, switched off, starts (its libraries came along) and returns.
  EXPECT_TRUE(Contains(run.output, "daemon=0\n")) << run.output;

  EXPECT_EQ(device.root().ReadFile("/data/out/result.txt"), "written\n");
  EXPECT_EQ(device.root().ReadFile("/data/rvx/in.txt"), "kept across the boot\n");
  EXPECT_FALSE(device.root().Exists("/data/lost+found"));
}

TEST(VirtualDeviceTest, RebootIsReportedNeverPassed) {
  VirtualDevice device;
  device.UsePlainDev();
  const VmRun run = device.Run({"/bin/sh", "-c",
                                "test -e /dev/block && echo has-block;"
                                "test -b /dev/loop0 && echo kernel-nodes;"
                                "echo synced > /data/before; sync;"
                                "echo rebooting; reboot -f; sleep 30; echo after; exit 0"});
  EXPECT_FALSE(run.finished) << run.end << "\n" << run.output;
  EXPECT_TRUE(run.rebooted) << run.end;
  EXPECT_EQ(run.end, "rebooted");
  EXPECT_EQ(run.exit_code, -1);
  EXPECT_TRUE(Contains(run.output, "kernel-nodes\nrebooting\n")) << run.output;
  EXPECT_FALSE(Contains(run.output, "has-block")) << run.output;
  EXPECT_FALSE(Contains(run.output, "after")) << run.output;
  // What was synced before the reboot is on the disk.
  EXPECT_EQ(device.root().ReadFile("/data/before"), "synced\n");
}

TEST(VirtualDeviceTest, HangingCommandTimesOut) {
  VirtualDevice device;
  const VmRun run = device.Run({"/bin/sh", "-c", "echo waiting; sleep 600"},
                               std::chrono::seconds(20));
  EXPECT_TRUE(run.timed_out) << run.end << "\n" << run.output;
  EXPECT_FALSE(run.finished);
  EXPECT_TRUE(Contains(run.output, "waiting\n")) << run.output;
}

}  // namespace
