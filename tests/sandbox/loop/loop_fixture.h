#pragma once

#include <gtest/gtest.h>

#include <string>

#include "loop_test_env.h"

namespace mend_test {

// In the sandbox: a scratch ext4 at /tmp/ext4 for backing files, a token
// that names them, and a captured log. After each test no loop device may
// still be bound to one of the test's backing files.
class LoopTest : public ::testing::Test {
 protected:
  static constexpr char kExt4Dir[] = "/tmp/ext4";

  void SetUp() override {
    ASSERT_TRUE(InSandbox()) << "run through tests/support/in_fresh_sandbox";
    token_ = UniqueToken();
    ASSERT_TRUE(MountExt4(kExt4Dir));
  }

  void TearDown() override {
    if (token_.empty()) return;  // not set up: there is nothing of ours to look for
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
    WriteWholeFile(path, content);
    return path;
  }

  std::string token_;
  LogRecorder logs_;
};

}  // namespace mend_test
