// How the loop code finds its device nodes: waiting for a node that the
// device manager has not made yet (cold boot), preferring /dev/block, and
// pre-allocating devices through /dev/loop-control.

#include <android-base/chrono_utils.h>
#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>
#include <set>
#include <thread>

#include "loop_fixture.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

namespace fs = std::filesystem;
using android::base::INFO;
using android::base::WARNING;
using android::rpk::loop::CreateLoopDevice;
using android::rpk::loop::LoopbackRepairDeviceUniqueFd;
using android::rpk::loop::PreAllocateLoopDevices;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

void SetColdBootDone(const std::string& value) {
  fs::create_directories(MEND_PROPERTY_DIR);
  ASSERT_TRUE(android::base::SetProperty("ro.cold_boot_done", value));
}

class LoopNodeTest : public LoopTest {
 protected:
  // The device numbers of the "not ready" warnings so far; all must agree.
  std::vector<int> NotReadyDevices() const {
    static const std::regex kNotReady(
        "Loopback device ([0-9]+) not ready\\. Waiting 50ms\\.\\.\\.: No such file or directory");
    std::vector<int> devices;
    for (const std::string& message : logs_.Messages(WARNING)) {
      std::smatch match;
      if (std::regex_match(message, match, kNotReady)) devices.push_back(std::stoi(match[1]));
    }
    return devices;
  }
};

TEST_F(LoopNodeTest, WaitsForAMissingNodeOnlyUntilColdBootIsDone) {
  MEND_RUN_IN_SANDBOX();
  // No loop device nodes at all: the free device never becomes openable.
  ASSERT_TRUE(MountOwnDev(/*loop_nodes=*/false, /*block_links=*/false));
  const std::string path = BackingFile("unused");

  // Cold boot done: three attempts 50 ms apart, then the error.
  SetColdBootDone("true");
  android::base::Timer timer;
  auto device = CreateLoopDevice(path, 0, 4096);
  ASSERT_FALSE(device.ok());
  EXPECT_GE(timer.duration(), std::chrono::milliseconds(150));
  std::vector<int> attempts = NotReadyDevices();
  ASSERT_EQ(attempts.size(), 3u);
  EXPECT_EQ(std::set<int>(attempts.begin(), attempts.end()).size(), 1u);
  EXPECT_EQ(device.error().message(), "Failed to open loopback device " +
                                          std::to_string(attempts[0]) +
                                          ": No such file or directory");
  EXPECT_EQ(device.error().code(), ENOENT);

  // Cold boot still running: the wait has no limit; once the property turns
  // true, at most two or three more attempts follow.
  SetColdBootDone("false");
  logs_.Clear();
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    device = CreateLoopDevice(path, 0, 4096);
    returned = true;
  });
  const bool kept_waiting =
      WaitUntil([&] { return NotReadyDevices().size() >= 8; }, std::chrono::seconds(5));
  EXPECT_TRUE(kept_waiting);
  EXPECT_FALSE(returned);
  const size_t before_done = NotReadyDevices().size();
  SetColdBootDone("1");
  caller.join();
  const size_t after_done = NotReadyDevices().size() - before_done;
  EXPECT_GE(after_done, 2u);
  EXPECT_LE(after_done, 3u);
  ASSERT_FALSE(device.ok());
  EXPECT_EQ(device.error().code(), ENOENT);
}

TEST_F(LoopNodeTest, OpensANodeThatAppearsLateAndPrefersDevBlock) {
  MEND_RUN_IN_SANDBOX();
  const std::string content = Pattern(64 * 1024);
  const std::string path = BackingFile(content);
  ASSERT_TRUE(MountOwnDev(/*loop_nodes=*/false, /*block_links=*/false));
  SetColdBootDone("false");

  android::base::Result<LoopbackRepairDeviceUniqueFd> device;
  std::thread caller([&] { device = CreateLoopDevice(path, 0, 65536); });
  ASSERT_TRUE(WaitUntil([&] { return NotReadyDevices().size() >= 2; }, std::chrono::seconds(5)));

  // The device manager makes both nodes; the /dev/block one is taken.
  const int number = NotReadyDevices()[0];
  const std::string name = "loop" + std::to_string(number);
  unsigned major_number = 0, minor_number = 0;
  ASSERT_EQ(sscanf(ReadFileOrEmpty("/sys/block/" + name + "/dev").c_str(), "%u:%u", &major_number,
                   &minor_number),
            2);
  ASSERT_TRUE(MakeBlockNode("/dev/" + name, makedev(major_number, minor_number)));
  ASSERT_TRUE(MakeBlockNode("/dev/block/" + name, makedev(major_number, minor_number)));
  caller.join();

  ASSERT_TRUE(device.ok()) << device.error();
  EXPECT_EQ(device->name, "/dev/block/" + name);
  EXPECT_THAT(LoopDevicesBackedBy(token_), ElementsAre(name));
  EXPECT_EQ(ReadDevice(device->name, 65536), content);
}

// Ids of the loop devices that exist, from their /dev nodes.
std::set<int> ExistingLoopDevices() {
  std::set<int> ids;
  for (const auto& entry : fs::directory_iterator("/dev")) {
    const std::string name = entry.path().filename();
    int id = 0;
    if (android::base::StartsWith(name, "loop") && android::base::ParseInt(name.substr(4), &id) &&
        entry.is_block_file()) {
      ids.insert(id);
    }
  }
  return ids;
}

// A fake /sys decides which existing devices look bound; the control node
// and the devices are the host's.
TEST(PreAllocateLoopDevicesTest, CountsIdleDevicesAndAllocatesTheRest) {
  MEND_RUN_IN_SANDBOX(WithFakeSys());
  ASSERT_TRUE(SysIsFake());
  LogRecorder logs;
  // Opening the control node loads the driver, which makes its first devices.
  android::base::unique_fd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  ASSERT_NE(control.get(), -1) << strerror(errno);
  const std::set<int> existing = ExistingLoopDevices();
  for (int id = 0; id < 4; ++id) {
    if (!existing.count(id)) GTEST_SKIP() << "loop" << id << " does not exist on this host";
  }
  const std::string found_none =
      "Found 0 idle loopback devices that were pre-allocated by kernel. Allocated 0 more.";

  // Nothing wanted: nothing is asked of the driver.
  ASSERT_TRUE(PreAllocateLoopDevices(0).ok());
  EXPECT_THAT(logs.Messages(INFO), ElementsAre(found_none));
  EXPECT_THAT(logs.Messages(WARNING), IsEmpty());

  // loop0 and loop1 bound: skipped; loop2 and loop3 are the idle ones.
  logs.Clear();
  WriteTreeFile("/sys/block/loop0/loop/backing_file", "/a\n");
  WriteTreeFile("/sys/block/loop1/loop/backing_file", "/b\n");
  ASSERT_TRUE(PreAllocateLoopDevices(2).ok());
  EXPECT_THAT(logs.Messages(WARNING),
              ElementsAre("Loop device 0 already in use", "Loop device 1 already in use"));
  EXPECT_THAT(logs.Messages(INFO),
              ElementsAre("Found 2 idle loopback devices that were pre-allocated by kernel. "
                          "Allocated 0 more."));

  // Every existing device bound: two new ones are made (and removed again).
  logs.Clear();
  for (int id = 0; id <= *existing.rbegin(); ++id) {
    fs::create_directories("/sys/block/loop" + std::to_string(id) + "/loop");
  }
  auto allocated = PreAllocateLoopDevices(2);
  std::set<int> created;
  for (int id : ExistingLoopDevices()) {
    if (!existing.count(id)) created.insert(id);
  }
  for (int id : created) ioctl(control.get(), LOOP_CTL_REMOVE, id);

  ASSERT_TRUE(allocated.ok()) << allocated.error();
  EXPECT_EQ(created.size(), 2u);
  EXPECT_THAT(logs.Messages(INFO),
              ElementsAre("Found 0 idle loopback devices that were pre-allocated by kernel. "
                          "Allocated 2 more."));
}

}  // namespace
}  // namespace mend_test
