// Loop devices and their block queue tuning on the virtual device's kernel:
// runs inside the guest as root, with /data on an ext4 virtio disk, the
// kernel's own sysfs and /dev/block nodes kept by the guest's listener.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "log_recorder.h"
#include "mend_loop.h"

namespace {

using android::base::INFO;
using android::base::VERBOSE;
using android::base::WARNING;
using android::rpk::loop::CreateAndConfigureLoopDevice;
using android::rpk::loop::CreateLoopDevice;
using android::rpk::loop::PreAllocateLoopDevices;
using mend_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

std::string Attribute(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return android::base::Trim(text);
}

std::string QueueAttribute(const std::string& device, const std::string& name) {
  return Attribute("/sys/block/" + android::base::Basename(device) + "/" + name);
}

bool Bound(const std::string& device) {
  return access(("/sys/block/" + android::base::Basename(device) + "/loop").c_str(), F_OK) == 0;
}

std::string Content(size_t size) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 4096) & 0xff);
  return data;
}

std::string ReadDevice(const std::string& device, size_t size) {
  android::base::unique_fd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  std::string data(size, '\0');
  if (fd.get() == -1 || !android::base::ReadFully(fd.get(), data.data(), size)) return {};
  return data;
}

// Runs first, while the driver's devices from load time are all idle.
TEST(GuestLoopTest, PreAllocationFindsTheDriversIdleDevices) {
  LogRecorder logs;
  ASSERT_TRUE(PreAllocateLoopDevices(2).ok());
  EXPECT_THAT(logs.Messages(INFO),
              ElementsAre("Found 2 idle loopback devices that were pre-allocated by kernel. "
                          "Allocated 0 more."));
  EXPECT_THAT(logs.Messages(WARNING), ::testing::IsEmpty());
}

TEST(GuestLoopTest, TunesTheQueueAfterTheVirtioDisk) {
  const std::string path = "/data/loop_queue.img";
  const std::string content = Content(1 << 20);
  ASSERT_TRUE(android::base::WriteStringToFile(content, path));
  const std::string disk_tags = Attribute("/sys/class/block/vda/mq/0/nr_tags");
  ASSERT_FALSE(disk_tags.empty());

  LogRecorder logs;
  std::string name;
  {
    auto device = CreateAndConfigureLoopDevice(path, 4096, 65536);
    ASSERT_TRUE(device.ok()) << device.error();
    name = device->name;
    EXPECT_THAT(name, MatchesRegex("/dev/(block/)?loop[0-9]+"));
    EXPECT_TRUE(logs.Has(WARNING, "CreateAndConfigureLoopDevice end"));

    // The file is on the whole disk vda, which has no parent entry.
    EXPECT_THAT(logs.Messages(VERBOSE),
                ElementsAre(path + " -> /dev/block/vda", "Partition parent: vda",
                            path +
                                " is backed by /dev/vda and that block device supports "
                                "queue depth " +
                                disk_tags));
    EXPECT_THAT(QueueAttribute(name, "queue/scheduler"), HasSubstr("[none]"));
    EXPECT_EQ(QueueAttribute(name, "queue/read_ahead_kb"), "128");
    // The loop queue cannot grow past its own tags; a refused increase is
    // kept quiet and the queue keeps its depth.
    const unsigned loop_tags = std::stoul(QueueAttribute(name, "mq/0/nr_tags"));
    const unsigned wanted = std::stoul(disk_tags, nullptr, 0);
    EXPECT_EQ(QueueAttribute(name, "queue/nr_requests"),
              wanted <= loop_tags ? std::to_string(wanted) : "128");
    EXPECT_TRUE(logs.Has(WARNING, "ConfigureQueueDepth end"));

    // Direct I/O on ext4 with a sector-aligned offset.
    EXPECT_EQ(QueueAttribute(name, "loop/dio"), "1");
    EXPECT_EQ(QueueAttribute(name, "queue/logical_block_size"), "4096");
    EXPECT_EQ(ReadDevice(name, 65536), content.substr(4096, 65536));
  }
  EXPECT_FALSE(Bound(name)) << name << " still bound after its holder was dropped";
}

TEST(GuestLoopTest, BuffersOnlyOnListedFileSystems) {
  // The initramfs root does not take O_DIRECT on this kernel and is not on
  // the list; an overlay of it is.
  const std::string plain = "/loop_plain/image";
  ASSERT_EQ(mkdir("/loop_plain", 0755), 0);
  ASSERT_EQ(mkdir("/loop_empty", 0755), 0);
  ASSERT_EQ(mkdir("/loop_overlay", 0755), 0);
  const std::string content = Content(65536);
  ASSERT_TRUE(android::base::WriteStringToFile(content, plain));
  android::base::unique_fd direct(open(plain.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (direct.get() != -1) GTEST_SKIP() << "this kernel's root file system takes O_DIRECT";

  LogRecorder logs;
  auto refused = CreateLoopDevice(plain, 0, 65536);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().message(), "Failed to open " + plain + ": Invalid argument");

  ASSERT_EQ(
      mount("overlay", "/loop_overlay", "overlay", MS_RDONLY, "lowerdir=/loop_plain:/loop_empty"),
      0)
      << strerror(errno);
  const std::string layered = "/loop_overlay/image";
  std::string name;
  {
    auto device = CreateLoopDevice(layered, 0, 65536);
    ASSERT_TRUE(device.ok()) << device.error();
    name = device->name;
    EXPECT_TRUE(logs.Has(WARNING, "Fallback to buffered I/O for " + layered));
    EXPECT_EQ(QueueAttribute(name, "loop/dio"), "0");
    EXPECT_EQ(ReadDevice(name, 65536), content);
  }
  EXPECT_FALSE(Bound(name));
  umount("/loop_overlay");
}

}  // namespace
