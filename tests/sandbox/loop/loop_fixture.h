#pragma once

#include <gtest/gtest.h>

#include <string>

#include "loop_test_env.h"
#include "sandboxed_test.h"

namespace mend_test {

// In the sandbox: a scratch ext4 at /tmp/ext4 for backing files, a token
// that names them, and a captured log. After each test no loop device may
// still be bound to one of the test's backing files.
class LoopTest : public ::testing::Test {
 protected:
  static constexpr char kExt4Dir[] = "/tmp/ext4";

  void SetUp() override {
    if (!InSandbox()) return;
    token_ = UniqueToken();
    ASSERT_TRUE(MountExt4(kExt4Dir, &ext4_image_));
  }

  void TearDown() override {
    if (!InSandbox() || SysIsFake()) return;
    const std::vector<std::string> left = LoopDevicesBackedBy(token_);
    EXPECT_EQ(left, std::vector<std::string>{})
        << "loop devices left bound to this test's backing files";
    // They are this test's own: detach them rather than leave them to the host.
    for (const std::string& name : left) DetachLoopDevice(name);
  }

  // A backing file named after the test's token in `dir`.
  std::string BackingFile(const std::string& content, const std::string& dir = kExt4Dir,
                          const std::string& suffix = "img") {
    const std::string path = dir + "/" + token_ + suffix;
    WriteFileOrDie(path, content);
    return path;
  }

  // Warnings of the loop code, in order.
  std::vector<std::string> Warnings() const { return logs_.Messages(android::base::WARNING); }

  std::string token_;
  std::string ext4_image_;
  LogRecorder logs_;
};

}  // namespace mend_test
