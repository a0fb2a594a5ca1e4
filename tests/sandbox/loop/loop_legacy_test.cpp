// The path for kernels without LOOP_CONFIGURE, reached by making the
// request fail the way an older kernel fails it, and the failures of each of
// its steps.

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <linux/fs.h>

#include <cerrno>

#include "loop_fixture.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

using android::base::WARNING;
using android::rpk::loop::CreateLoopDevice;
using ::testing::IsEmpty;

class LoopLegacyTest : public LoopTest {
 protected:
  void SetUp() override {
    LoopTest::SetUp();
    // Kernels before LOOP_CONFIGURE reject the unknown request.
    if (!HasFatalFailure()) {
      ASSERT_TRUE(FailIoctl(LOOP_CONFIGURE, EINVAL));
    }
  }
};

TEST_F(LoopLegacyTest, BindsInSeparateSteps) {
  const std::string content = Pattern(128 * 1024);
  const std::string path = BackingFile(content);

  auto device = CreateLoopDevice(path, 16384, 32768);
  ASSERT_TRUE(device.ok()) << device.error();
  EXPECT_TRUE(logs_.Has(WARNING, "ConfigureLoopDevice end 2"));
  EXPECT_FALSE(logs_.Has(WARNING, "ConfigureLoopDevice end 1"));

  auto status = LoopStatus(device->name);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->lo_offset, 16384u);
  EXPECT_EQ(status->lo_sizelimit, 32768u);
  EXPECT_EQ(status->lo_flags & (LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR),
            uint32_t{LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR});
  EXPECT_EQ(BlockAttribute(device->name, "queue/logical_block_size"), "4096");
  EXPECT_EQ(ReadDevice(device->name, 32768), content.substr(16384, 32768));
}

TEST_F(LoopLegacyTest, EachFailedStepDetachesButBlockSizeIsOptional) {
  const std::string content = Pattern(64 * 1024);
  const std::string path = BackingFile(content);

  // A refused block size leaves 512-byte sectors, which still work.
  ASSERT_TRUE(FailIoctl(LOOP_SET_BLOCK_SIZE, EINVAL));
  {
    auto device = CreateLoopDevice(path, 0, 65536);
    ASSERT_TRUE(device.ok()) << device.error();
    EXPECT_TRUE(logs_.Has(WARNING, "Failed to LOOP_SET_BLOCK_SIZE: Invalid argument"));
    EXPECT_TRUE(logs_.Has(WARNING, "ConfigureLoopDevice end 2"));
    EXPECT_EQ(BlockAttribute(device->name, "queue/logical_block_size"), "512");
    EXPECT_EQ(ReadDevice(device->name, 65536), content);
  }
  EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());

  // Each later step fails in turn (filters only add up), after the file was
  // bound: the error names the step and carries its errno, and the device
  // is detached again.
  struct Step {
    unsigned long request;
    int error;
    const char* message;
  };
  for (const Step& step : {Step{BLKFLSBUF, EIO, "Failed to flush buffers on the loop device"},
                           Step{LOOP_SET_STATUS64, EPERM, "Failed to LOOP_SET_STATUS64"},
                           Step{LOOP_SET_FD, EBADF, "Failed to LOOP_SET_FD"}}) {
    SCOPED_TRACE(step.message);
    logs_.Clear();
    ASSERT_TRUE(FailIoctl(step.request, step.error));
    auto device = CreateLoopDevice(path, 0, 65536);
    ASSERT_FALSE(device.ok());
    EXPECT_EQ(device.error().code(), step.error);
    EXPECT_EQ(device.error().message(), std::string(step.message) + ": " + strerror(step.error));
    EXPECT_TRUE(logs_.Has(WARNING, step.message));
    EXPECT_THAT(LoopDevicesBackedBy(token_), IsEmpty());
  }
}

}  // namespace
}  // namespace mend_test
