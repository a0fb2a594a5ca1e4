// Loop devices and their block queue tuning on the virtual device's kernel:
// runs inside the guest as root, with /data on an ext4 virtio disk, the
// kernel's own sysfs and /dev/block nodes kept by the guest's listener.
#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "loop_test_env.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

using android::base::INFO;
using android::base::VERBOSE;
using android::base::WARNING;
using android::rpk::loop::ConfigureQueueDepth;
using android::rpk::loop::ConfigureReadAhead;
using android::rpk::loop::ConfigureScheduler;
using android::rpk::loop::CreateAndConfigureLoopDevice;
using android::rpk::loop::PreAllocateLoopDevices;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

bool SetQueue(const std::string& device, const std::string& name, const std::string& value) {
  return android::base::WriteStringToFile(
      value, "/sys/block/" + android::base::Basename(device) + "/queue/" + name);
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
  const std::string content = Pattern(1 << 20);
  WriteWholeFile(path, content);
  const std::string disk_tags = BlockAttribute("/dev/vda", "mq/0/nr_tags");
  ASSERT_FALSE(disk_tags.empty());

  LogRecorder logs;
  std::string name;
  {
    auto device = CreateAndConfigureLoopDevice(path, 4096, 65536);
    ASSERT_TRUE(device.ok()) << device.error();
    name = device->name;
    EXPECT_THAT(name, MatchesRegex("/dev/(block/)?loop[0-9]+"));
    for (const char* step : {"ConfigureScheduler", "ConfigureQueueDepth", "ConfigureReadAhead",
                             "CreateAndConfigureLoopDevice"}) {
      EXPECT_TRUE(logs.Has(WARNING, std::string(step) + " end")) << step;
    }
    // The file is on the whole disk vda, which has no parent entry.
    EXPECT_THAT(logs.Messages(VERBOSE),
                ElementsAre(path + " -> /dev/block/vda", "Partition parent: vda",
                            path +
                                " is backed by /dev/vda and that block device supports "
                                "queue depth " +
                                disk_tags));
    // Direct I/O on ext4 with a sector-aligned offset.
    EXPECT_EQ(BlockAttribute(name, "loop/dio"), "1");
    EXPECT_EQ(BlockAttribute(name, "queue/logical_block_size"), "4096");
    EXPECT_EQ(ReadDevice(name, 65536), content.substr(4096, 65536));

    // Detune the queue, then tune it again one setting at a time. The loop
    // queue cannot grow past its own tags: the kernel caps the depth there.
    SetQueue(name, "scheduler", "mq-deadline");
    ASSERT_TRUE(SetQueue(name, "nr_requests", "32"));
    ASSERT_TRUE(SetQueue(name, "read_ahead_kb", "512"));
    EXPECT_TRUE(ConfigureScheduler(name).ok());
    EXPECT_TRUE(ConfigureQueueDepth(name, path).ok());
    EXPECT_TRUE(ConfigureReadAhead(name).ok());
    EXPECT_THAT(BlockAttribute(name, "queue/scheduler"), HasSubstr("[none]"));
    const unsigned loop_tags = std::stoul(BlockAttribute(name, "mq/0/nr_tags"));
    const unsigned wanted = std::stoul(disk_tags, nullptr, 0);
    EXPECT_EQ(BlockAttribute(name, "queue/nr_requests"),
              std::to_string(std::min(wanted, loop_tags)));
    EXPECT_EQ(BlockAttribute(name, "queue/read_ahead_kb"), "128");
  }
  EXPECT_FALSE(LoopStatus(name).has_value()) << name << " still bound after its holder was dropped";
}

}  // namespace
}  // namespace mend_test
