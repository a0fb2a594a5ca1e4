// How the loop code finds its device nodes: waiting for a node that the
// device manager has not made yet (cold boot) and preferring /dev/block.

#include <android-base/chrono_utils.h>
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
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
using android::base::WARNING;
using android::rpk::loop::CreateLoopDevice;
using android::rpk::loop::LoopbackRepairDeviceUniqueFd;
using ::testing::ElementsAre;

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
  // No loop device nodes at all: the free device never becomes openable.
  ASSERT_TRUE(MountOwnDev());
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
  const std::string content = Pattern(64 * 1024);
  const std::string path = BackingFile(content);
  ASSERT_TRUE(MountOwnDev());
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

}  // namespace
}  // namespace mend_test
