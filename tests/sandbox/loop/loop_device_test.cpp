// Attaching package images to loop devices of the host kernel, run in the
// sandbox: the region, flags and data the kernel reports, who detaches the
// device and when, and which file systems may fall back to buffered I/O.

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <thread>

#include "loop_fixture.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

using android::base::ERROR;
using android::base::WARNING;
using android::rpk::loop::ConfigureLoopDevice;
using android::rpk::loop::CreateAndConfigureLoopDevice;
using android::rpk::loop::CreateLoopDevice;
using android::rpk::loop::LoopbackRepairDeviceUniqueFd;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

constexpr uint32_t kReadOnlyAutoClear = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;

using LoopDeviceTest = LoopTest;

TEST_F(LoopDeviceTest, AttachesAFileRegionReadOnly) {
  const std::string content = Pattern(256 * 1024);
  const std::string path = BackingFile(content);

  struct Region {
    uint32_t offset;
    size_t size;
    bool direct_io;  // the kernel keeps direct I/O only for a sector-aligned offset
  };
  for (const Region& region : {Region{8192, 65536, true}, Region{1000, 20480, false}}) {
    SCOPED_TRACE("offset " + std::to_string(region.offset));
    logs_.Clear();
    auto device = CreateLoopDevice(path, region.offset, region.size);
    ASSERT_TRUE(device.ok()) << device.error();
    EXPECT_THAT(device->name, MatchesRegex("/dev/loop[0-9]+"));
    EXPECT_NE(device->device_fd.get(), -1);
    EXPECT_THAT(LoopDevicesBackedBy(token_), ElementsAre(android::base::Basename(device->name)));

    EXPECT_EQ(DeviceSize(device->name), region.size);
    EXPECT_EQ(ReadDevice(device->name, region.size), content.substr(region.offset, region.size));

    auto status = LoopStatus(device->name);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->lo_offset, region.offset);
    EXPECT_EQ(status->lo_sizelimit, region.size);
    EXPECT_EQ(status->lo_flags,
              kReadOnlyAutoClear | (region.direct_io ? uint32_t{LO_FLAGS_DIRECT_IO} : 0u));
    EXPECT_EQ(BlockAttribute(device->name, "loop/dio"), region.direct_io ? "1" : "0");
    EXPECT_EQ(BlockAttribute(device->name, "queue/logical_block_size"), "4096");

    const std::vector<std::string> warnings = logs_.Messages(WARNING);
    ASSERT_EQ(warnings.size(), 5u) << android::base::Join(warnings, '\n');
    EXPECT_EQ(warnings[0], "CreateLoopDevice start");
    EXPECT_EQ(warnings[1], "ConfigureLoopDevice start");
    EXPECT_THAT(warnings[2], StartsWith(" target_fd.get() is : "));
    EXPECT_NE(warnings[2], " target_fd.get() is : -1");
    EXPECT_EQ(warnings[3], "ConfigureLoopDevice end 1");
    EXPECT_EQ(warnings[4], "CreateLoopDevice end");
  }
}

TEST_F(LoopDeviceTest, HolderDetachesUnlessKept) {
  const std::string path = BackingFile(Pattern(64 * 1024));

  // Dropped without CloseGood(): detached. (With auto-clear set, closing
  // would do that too; the legacy path's tests cover a device without it.)
  std::string name;
  {
    auto device = CreateLoopDevice(path, 0, 65536);
    ASSERT_TRUE(device.ok()) << device.error();
    name = device->name;
  }
  EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());
  EXPECT_FALSE(logs_.Has(ERROR, "Unable to clear fd for loopback device"));

  // Kept: the device outlives the holder's descriptor and is released by the
  // kernel when its last user (here a second opener) closes it.
  {
    auto device = CreateLoopDevice(path, 4096, 8192);
    ASSERT_TRUE(device.ok()) << device.error();
    android::base::unique_fd user(open(device->name.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_NE(user.get(), -1);
    errno = EXDEV;
    device->CloseGood();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(device->device_fd.get(), -1);
    EXPECT_THAT(LoopDevicesBackedBy(token_), ElementsAre(android::base::Basename(device->name)));
    user.reset();
    EXPECT_TRUE(WaitUntil([&] { return LoopDevicesBackedBy(token_).empty(); }))
        << "a kept device is not released when its last user closes it";
  }

  // Assigning over a holder detaches the device it held.
  {
    const std::string other_path = BackingFile(Pattern(64 * 1024, 7), kExt4Dir, "other.img");
    auto first = CreateLoopDevice(path, 0, 4096);
    auto second = CreateLoopDevice(other_path, 0, 4096);
    ASSERT_TRUE(first.ok() && second.ok());
    const std::string second_name = second->name;
    *first = std::move(*second);
    EXPECT_EQ(first->name, second_name);
    EXPECT_THAT(LoopDevicesBackedBy(token_), ElementsAre(android::base::Basename(second_name)));
  }
  EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());

  // A clear that the kernel refuses is only logged.
  {
    LoopbackRepairDeviceUniqueFd not_a_loop(
        android::base::unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)), "/dev/null");
  }
  EXPECT_TRUE(logs_.Has(ERROR,
                        "Unable to clear fd for loopback device: "
                        "Inappropriate ioctl for device"));
}

TEST_F(LoopDeviceTest, BuffersOnlyOnFileSystemsThatMayRefuseDirectIo) {
  const std::string content = Pattern(64 * 1024, 3);
  const std::string source = "/tmp/source";
  ASSERT_TRUE(MountRamfs(source));
  const std::string file_name = token_ + "img";
  WriteWholeFile(source + "/" + file_name, content);
  ASSERT_TRUE(MountSquashfs(source, "/tmp/squashfs"));
  ASSERT_TRUE(MountRamfs("/tmp/empty"));
  ASSERT_TRUE(MountOverlay({source, "/tmp/empty"}, "/tmp/overlay"));

  // squashfs, and overlayfs over a file system without O_DIRECT, refuse the
  // direct open: the device is attached buffered.
  for (const char* dir : {"/tmp/squashfs", "/tmp/overlay"}) {
    SCOPED_TRACE(dir);
    logs_.Clear();
    const std::string path = std::string(dir) + "/" + file_name;
    auto device = CreateLoopDevice(path, 4096, 16384);
    ASSERT_TRUE(device.ok()) << device.error();
    EXPECT_TRUE(logs_.Has(WARNING, " target_fd.get() is : -1"));
    EXPECT_TRUE(logs_.Has(WARNING, "Fallback to buffered I/O for " + path));
    EXPECT_EQ(ReadDevice(device->name, 16384), content.substr(4096, 16384));
    auto status = LoopStatus(device->name);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->lo_flags, kReadOnlyAutoClear);
    EXPECT_EQ(BlockAttribute(device->name, "loop/dio"), "0");
  }

  // ramfs refuses O_DIRECT and is not on the list: no fallback, the direct
  // open's errno is reported and nothing stays attached.
  for (const std::string& path : {source + "/" + file_name, std::string(kExt4Dir) + "/missing"}) {
    SCOPED_TRACE(path);
    logs_.Clear();
    auto device = CreateLoopDevice(path, 0, 4096);
    ASSERT_FALSE(device.ok());
    const bool missing = android::base::EndsWith(path, "missing");
    EXPECT_EQ(device.error().code(), missing ? ENOENT : EINVAL);
    EXPECT_EQ(device.error().message(),
              "Failed to open " + path + ": " +
                  (missing ? "No such file or directory" : "Invalid argument"));
    EXPECT_TRUE(logs_.Has(WARNING, "Failed to open " + path));
    EXPECT_FALSE(logs_.Has(WARNING, "Fallback to buffered I/O for " + path));
    EXPECT_FALSE(logs_.Has(WARNING, "CreateLoopDevice end"));
  }
  EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());
}

TEST_F(LoopDeviceTest, ConfigureRefusesADeviceThatIsAlreadyBound) {
  const std::string first = BackingFile(Pattern(64 * 1024));
  const std::string second = BackingFile(Pattern(64 * 1024, 9), kExt4Dir, "second.img");
  auto device = CreateLoopDevice(first, 8192, 4096);
  ASSERT_TRUE(device.ok()) << device.error();

  logs_.Clear();
  auto configured = ConfigureLoopDevice(device->device_fd.get(), second, 0, 65536);
  ASSERT_FALSE(configured.ok());
  EXPECT_EQ(configured.error().code(), EBUSY);
  EXPECT_EQ(configured.error().message(), "Failed to LOOP_CONFIGURE: Device or resource busy");
  EXPECT_TRUE(logs_.Has(WARNING, "Failed to LOOP_CONFIGURE"));

  // The first binding is untouched.
  auto status = LoopStatus(device->name);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->lo_offset, 8192u);
  EXPECT_EQ(status->lo_sizelimit, 4096u);
  EXPECT_EQ(ReadDevice(device->name, 4096), Pattern(64 * 1024).substr(8192, 4096));
}

TEST_F(LoopDeviceTest, ConcurrentCallersGetDistinctDevices) {
  constexpr int kCallers = 4;
  std::vector<std::string> paths;
  for (int i = 0; i < kCallers; ++i) {
    paths.push_back(BackingFile(Pattern(16384, i + 1), kExt4Dir, std::to_string(i) + ".img"));
  }
  std::vector<android::base::Result<LoopbackRepairDeviceUniqueFd>> devices(kCallers);
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&, i] { devices[i] = CreateLoopDevice(paths[i], 0, 16384); });
  }
  for (std::thread& caller : callers) caller.join();

  std::set<std::string> names;
  for (int i = 0; i < kCallers; ++i) {
    ASSERT_TRUE(devices[i].ok()) << "caller " << i << ": " << devices[i].error();
    names.insert(devices[i]->name);
    EXPECT_EQ(ReadDevice(devices[i]->name, 16384), Pattern(16384, i + 1));
  }
  EXPECT_EQ(names.size(), static_cast<size_t>(kCallers));
}

// With the host's /sys bound read-only, every queue file refuses to open for
// writing: the scheduler and queue depth failures are only logged, the
// read-ahead failure fails the call and detaches the device.
TEST_F(LoopDeviceTest, ReadAheadFailureDetachesTheNewDevice) {
  const std::string path = BackingFile(Pattern(64 * 1024));
  auto device = CreateAndConfigureLoopDevice(path, 0, 65536);
  ASSERT_FALSE(device.ok());
  EXPECT_EQ(device.error().code(), EROFS);
  EXPECT_THAT(device.error().message(),
              MatchesRegex("Failed to open /sys/block/loop[0-9]+/queue/read_ahead_kb: "
                           "Read-only file system"));

  const std::string loop = device.error().message().substr(
      strlen("Failed to open /sys/block/"),
      device.error().message().find("/queue") - strlen("Failed to open /sys/block/"));
  const std::string queue = "/sys/block/" + loop + "/queue/";
  EXPECT_TRUE(logs_.Has(WARNING, "Configuring I/O scheduler failed: Failed to open " + queue +
                                     "scheduler: Read-only file system"));
  EXPECT_TRUE(logs_.Has(WARNING, "Failed to open " + queue + "nr_requests: Read-only file system"));
  EXPECT_TRUE(logs_.Has(WARNING, "CreateAndConfigureLoopDevice start"));
  EXPECT_FALSE(logs_.Has(WARNING, "CreateAndConfigureLoopDevice end"));
  EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());
}

}  // namespace
}  // namespace mend_test
