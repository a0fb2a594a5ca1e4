// Polling for a path to appear; needs no devices, so it runs on the host.

#include <android-base/chrono_utils.h>
#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "log_recorder.h"
#include "mend_mount_utils.h"

namespace mend_test {
namespace {

using android::base::INFO;
using android::rpk::WaitForPath;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class WaitForPathTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return std::string(dir_.path) + "/" + name; }

  TemporaryDir dir_;
  LogRecorder logs_;
};

TEST_F(WaitForPathTest, LogsHowLongAPathTookToAppear) {
  const std::string path = Path("late");
  std::thread maker([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    android::base::WriteStringToFile("", path);
  });
  auto waited = WaitForPath(path, std::chrono::seconds(5));
  maker.join();
  EXPECT_TRUE(waited.ok()) << waited.error();
  const std::vector<std::string> lines = logs_.Messages(INFO);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_THAT(lines[0], MatchesRegex("wait for '" + path + "' took [0-9]+ms"));
  EXPECT_GE(std::atoi(lines[0].substr(lines[0].rfind(' ') + 1).c_str()), 40);
}

TEST_F(WaitForPathTest, TimesOutWithTheErrnoOfTheLastLookup) {
  const std::string path = Path("never");
  android::base::Timer timer;
  auto waited = WaitForPath(path, std::chrono::milliseconds(60));
  EXPECT_GE(timer.duration(), std::chrono::milliseconds(60));
  EXPECT_LT(timer.duration(), std::chrono::milliseconds(1000));
  ASSERT_FALSE(waited.ok());
  EXPECT_EQ(waited.error().code(), ENOENT);
  EXPECT_THAT(waited.error().message(),
              MatchesRegex("wait for '" + path +
                           "' timed out and took [0-9]+ms: No such file or directory"));
  EXPECT_THAT(logs_.Records(), IsEmpty());
}

}  // namespace
}  // namespace mend_test
