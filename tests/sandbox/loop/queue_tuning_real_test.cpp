// Queue tuning of a loop device this test attached, through the host's real
// sysfs (bound writable into the sandbox). The backing file sits on a scratch
// ext4 that is itself loop-mounted, so the disk under it is a loop device
// too, found through /dev/block nodes of the sandbox's own /dev.

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>

#include "loop_fixture.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

using android::base::VERBOSE;
using android::base::WARNING;
using android::rpk::loop::ConfigureQueueDepth;
using android::rpk::loop::ConfigureReadAhead;
using android::rpk::loop::ConfigureScheduler;
using android::rpk::loop::CreateAndConfigureLoopDevice;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

bool WriteAttribute(const std::string& device, const std::string& name, const std::string& value) {
  return android::base::WriteStringToFile(
      value, "/sys/block/" + android::base::Basename(device) + "/queue/" + name);
}

TEST_F(LoopTest, TunesTheQueueOfARealLoopDevice) {
  MEND_RUN_IN_SANDBOX(WithWritableSys());
  const std::string path = BackingFile(Pattern(64 * 1024));
  const std::optional<std::string> disk = LoopDeviceOf(ext4_image_);
  ASSERT_TRUE(disk.has_value()) << "no loop device under " << kExt4Dir;
  const std::string disk_tags = BlockAttribute(*disk, "mq/0/nr_tags");
  ASSERT_FALSE(disk_tags.empty());
  ASSERT_TRUE(MountOwnDev(/*loop_nodes=*/true, /*block_links=*/true));

  auto device = CreateAndConfigureLoopDevice(path, 0, 65536);
  ASSERT_TRUE(device.ok()) << device.error();
  EXPECT_THAT(device->name, ::testing::StartsWith("/dev/block/loop"));
  const std::vector<std::string> warnings = logs_.Messages(WARNING);
  EXPECT_EQ(warnings.front(), "CreateAndConfigureLoopDevice start");
  EXPECT_EQ(warnings.back(), "CreateAndConfigureLoopDevice end");
  for (const char* step : {"ConfigureScheduler", "ConfigureQueueDepth", "ConfigureReadAhead"}) {
    EXPECT_TRUE(logs_.Has(WARNING, std::string(step) + " end")) << step;
  }
  EXPECT_THAT(logs_.Messages(VERBOSE),
              ElementsAre(path + " -> /dev/block/" + *disk, "Partition parent: " + *disk,
                          path + " is backed by /dev/" + *disk +
                              " and that block device supports queue depth " + disk_tags));

  // Detune the queue, then tune it again one setting at a time.
  WriteAttribute(device->name, "scheduler", "mq-deadline");
  ASSERT_TRUE(WriteAttribute(device->name, "nr_requests", "32"));
  ASSERT_TRUE(WriteAttribute(device->name, "read_ahead_kb", "512"));
  EXPECT_TRUE(ConfigureScheduler(device->name).ok());
  EXPECT_TRUE(ConfigureQueueDepth(device->name, path).ok());
  EXPECT_TRUE(ConfigureReadAhead(device->name).ok());
  EXPECT_THAT(BlockAttribute(device->name, "queue/scheduler"), HasSubstr("[none]"));
  EXPECT_EQ(BlockAttribute(device->name, "queue/nr_requests"), disk_tags);
  EXPECT_EQ(BlockAttribute(device->name, "queue/read_ahead_kb"), "128");
}

}  // namespace
}  // namespace mend_test
