// dm-verity devices on a real kernel: runs inside the virtual test device as
// root, over the reference packages' signed images attached to loop devices.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "avb_fixtures.h"
#include "log_recorder.h"
#include "mend_loop.h"
#include "mend_mount.h"
#include "verity_fixtures.h"

namespace {

using android::base::ERROR;
using android::base::unique_fd;
using android::base::WARNING;
using android::dm::DeviceMapper;
using android::dm::DmDeviceState;
using android::dm::DmTable;
using TargetInfo = android::dm::DeviceMapper::TargetInfo;
using android::rpk::CreateVerityDevice;
using android::rpk::CreateVerityTable;
using android::rpk::DeleteVerityDevice;
using android::rpk::DmVerityDevice;
using android::rpk::ReadVerityDevice;
using android::rpk::RpkVerityData;
using android::rpk::loop::CreateLoopDevice;
using android::rpk::loop::LoopbackRepairDeviceUniqueFd;
using mend_test::LogRecorder;

class VerityDeviceTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // A failed test must not leave a device for the next one to trip on.
    for (const auto& name : names_) {
      if (dm_.GetState(name) != DmDeviceState::INVALID) dm_.DeleteDevice(name);
    }
  }

  // Attaches the image of reference package `package` with the daemon's loop
  // code (the packages lie on the guest's ext4 /data) and takes its verity
  // parameters from the manifest.
  void Attach(const std::string& package) {
    package_ = package;
    data_ = mend_test::ManifestVerityData(package);
    auto loop = CreateLoopDevice("/data/pkgs/" + package + ".zip",
                                 mend_test::ManifestImageOffset(package),
                                 mend_test::ManifestImageSize(package));
    ASSERT_TRUE(loop.ok()) << loop.error();
    loop_ = std::move(*loop);
    struct stat st;
    ASSERT_EQ(stat(loop_.name.c_str(), &st), 0);
    loop_number_ = std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
  }

  std::unique_ptr<DmTable> Table(bool restart_on_corruption) const {
    return CreateVerityTable(data_, loop_.name, loop_.name, restart_on_corruption);
  }

  // A device name for this test, removed at the end whatever happens.
  std::string Name(const std::string& suffix = "") {
    std::string name = std::string("vm_") +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name() + suffix;
    std::replace(name.begin(), name.end(), '/', '_');
    names_.push_back(name);
    return name;
  }

  DmDeviceState State(const std::string& name) const { return dm_.GetState(name); }

  // The single line of the live table, or its status, as the kernel reports it.
  TargetInfo Reported(const std::string& name, bool table) const {
    std::vector<TargetInfo> targets;
    const bool ok = table ? dm_.GetTableInfo(name, &targets) : dm_.GetTableStatus(name, &targets);
    EXPECT_TRUE(ok);
    EXPECT_EQ(targets.size(), 1u);
    return targets.empty() ? TargetInfo{} : targets.front();
  }

  // The parameters the kernel prints for this package's table: the
  // manifest's line with the loop device as major:minor.
  std::string ExpectedParams(bool restart_on_corruption) const {
    std::string line = mend_test::ManifestPackage(package_)["hashtree"]["dm_table"].asString();
    line = line.substr(line.find(" verity ") + 8);
    line = android::base::StringReplace(line, "DEV", loop_number_, true);
    if (restart_on_corruption) {
      // The kernel prints the mode before ignore_zero_blocks, whatever the
      // order of the loaded line.
      line = android::base::StringReplace(line, " 1 ignore_zero_blocks",
                                          " 2 restart_on_corruption ignore_zero_blocks", false);
    }
    return line;
  }

  DeviceMapper& dm_ = DeviceMapper::Instance();
  std::string package_;
  RpkVerityData data_;
  LoopbackRepairDeviceUniqueFd loop_;
  std::string loop_number_;  // major:minor, as the kernel prints devices in tables
  std::vector<std::string> names_;
};

bool NodeExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

class SignedImageTest : public VerityDeviceTest,
                        public ::testing::WithParamInterface<const char*> {};

TEST_P(SignedImageTest, ReadsEndToEndAndIsRemovedWithItsHolder) {
  ASSERT_NO_FATAL_FAILURE(Attach(GetParam()));
  const std::string name = Name();
  std::string path;
  {
    auto device = CreateVerityDevice(name, *Table(false), false);
    ASSERT_TRUE(device.ok()) << device.error();
    path = device->GetDevPath();
    EXPECT_EQ(device->GetName(), name);
    std::string by_name;
    ASSERT_TRUE(dm_.GetDmDevicePathByName(name, &by_name));
    EXPECT_EQ(path, by_name);
    EXPECT_EQ(State(name), DmDeviceState::ACTIVE);

    auto read = ReadVerityDevice(path, data_.desc->image_size);
    EXPECT_TRUE(read.ok()) << read.error();
    EXPECT_EQ(Reported(name, false).data, "V");
  }
  EXPECT_EQ(State(name), DmDeviceState::INVALID);
  EXPECT_FALSE(NodeExists(path));
}

INSTANTIATE_TEST_SUITE_P(ReferencePackages, SignedImageTest,
                         ::testing::Values("valid_2048", "valid_sha512"));

TEST_F(VerityDeviceTest, CorruptedDataBlockFailsTheRead) {
  ASSERT_NO_FATAL_FAILURE(Attach("data_corrupt"));
  const std::string name = Name();
  auto device = CreateVerityDevice(name, *Table(false), false);
  ASSERT_TRUE(device.ok()) << device.error();

  auto read = ReadVerityDevice(device->GetDevPath(), data_.desc->image_size);
  ASSERT_FALSE(read.ok());
  EXPECT_EQ(read.error().message(),
            "Can't verify " + device->GetDevPath() + "corrupted: " + strerror(EIO));
  EXPECT_EQ(read.error().code(), EIO);
  EXPECT_EQ(Reported(name, false).data, "C");
}

TEST_F(VerityDeviceTest, KernelReportsTheTableAsBuilt) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  for (bool restart : {false, true}) {
    SCOPED_TRACE(restart ? "restart_on_corruption" : "trial");
    const std::string name = Name(restart ? "_real" : "_trial");
    auto device = CreateVerityDevice(name, *Table(restart), false);
    ASSERT_TRUE(device.ok()) << device.error();
    const TargetInfo line = Reported(name, true);
    EXPECT_EQ(line.spec.sector_start, 0u);
    EXPECT_EQ(line.spec.length, 8192u);
    EXPECT_STREQ(line.spec.target_type, "verity");
    EXPECT_EQ(line.data, ExpectedParams(restart));
  }
}

TEST_F(VerityDeviceTest, ActiveDeviceOfTheSameNameIsReplaced) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  const std::string name = Name();
  auto leftover = CreateVerityDevice(name, *Table(false), false);
  ASSERT_TRUE(leftover.ok()) << leftover.error();
  leftover->Release();

  LogRecorder log;
  auto device = CreateVerityDevice(name, *Table(true), false);
  ASSERT_TRUE(device.ok()) << device.error();
  EXPECT_EQ(log.Messages(WARNING),
            std::vector<std::string>{"Deleting existing active dm device " + name});
  EXPECT_EQ(Reported(name, true).data, ExpectedParams(true));
  EXPECT_TRUE(ReadVerityDevice(device->GetDevPath(), data_.desc->image_size).ok());
}

// An open device cannot be removed: neither to make room for a new device of
// its name nor by its dropped holder, which logs the failure.
TEST_F(VerityDeviceTest, OpenDeviceIsKept) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  const std::string name = Name();
  unique_fd busy;
  LogRecorder log;
  {
    auto leftover = CreateVerityDevice(name, *Table(false), false);
    ASSERT_TRUE(leftover.ok()) << leftover.error();
    busy.reset(open(leftover->GetDevPath().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_GE(busy.get(), 0);

    auto device = CreateVerityDevice(name, *Table(true), false);
    ASSERT_FALSE(device.ok());
    EXPECT_EQ(device.error().message(), "Failed to delete dm-device " + name);
    EXPECT_EQ(device.error().code(), 0);
    EXPECT_EQ(Reported(name, true).data, ExpectedParams(false));
    EXPECT_EQ(log.Count(ERROR, "Failed to delete dm-device " + name), 0u);
  }
  EXPECT_EQ(log.Count(ERROR, "Failed to delete dm-device " + name), 1u);
  EXPECT_EQ(State(name), DmDeviceState::ACTIVE);
}

// A device without a live table (never given one, or suspended) is reused as
// it is: same node, the new table, no warning.
TEST_F(VerityDeviceTest, DeviceWithoutALiveTableIsReused) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  for (bool suspended : {false, true}) {
    const std::string name = Name(suspended ? "_suspended" : "_empty");
    SCOPED_TRACE(name);
    if (suspended) {
      auto first = CreateVerityDevice(name, *Table(false), false);
      ASSERT_TRUE(first.ok()) << first.error();
      first->Release();
      ASSERT_TRUE(dm_.ChangeState(name, DmDeviceState::SUSPENDED));
    } else {
      ASSERT_TRUE(dm_.CreateEmptyDevice(name));
    }
    ASSERT_EQ(State(name), DmDeviceState::SUSPENDED);
    dev_t before;
    ASSERT_TRUE(dm_.GetDeviceNumber(name, &before));

    LogRecorder log;
    auto device = CreateVerityDevice(name, *Table(true), false);
    ASSERT_TRUE(device.ok()) << device.error();
    EXPECT_TRUE(log.Messages(WARNING).empty());
    dev_t after;
    ASSERT_TRUE(dm_.GetDeviceNumber(name, &after));
    EXPECT_EQ(after, before);
    EXPECT_EQ(State(name), DmDeviceState::ACTIVE);
    EXPECT_EQ(Reported(name, true).data, ExpectedParams(true));
    EXPECT_TRUE(ReadVerityDevice(device->GetDevPath(), data_.desc->image_size).ok());
  }
}

TEST_F(VerityDeviceTest, FailedCreationLeavesNoDevice) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  const std::string name = Name();
  // A verity device must be read-only, and its devices must exist; a
  // suspended device that refuses the table is removed too.
  auto writable = Table(false);
  writable->set_readonly(false);
  auto no_disk = CreateVerityTable(data_, "/dev/no-such-disk", "/dev/no-such-disk", false);
  struct Case {
    const DmTable& table;
    bool suspended_first;
    std::string message;
  } cases[] = {
      {*writable, false, "Couldn't create verity device."},
      {*no_disk, false, "Couldn't create verity device."},
      {*no_disk, true, "Failed to activate dm device " + name},
  };
  for (const Case& c : cases) {
    if (c.suspended_first) {
      ASSERT_TRUE(dm_.CreateEmptyDevice(name));
    }
    auto device = CreateVerityDevice(name, c.table, false);
    ASSERT_FALSE(device.ok());
    EXPECT_EQ(device.error().message(), c.message);
    EXPECT_EQ(device.error().code(), 0);
    EXPECT_EQ(State(name), DmDeviceState::INVALID);
  }
}

// Dropping a holder removes its device unless it was released; moving hands
// the device on, and assigning over a holder orphans the device it held.
TEST_F(VerityDeviceTest, HolderRemovesItsDeviceUnlessReleasedOrMovedFrom) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  const std::string moved = Name("_moved");
  {
    DmVerityDevice outer;
    {
      auto made = CreateVerityDevice(moved, *Table(false), false);
      ASSERT_TRUE(made.ok()) << made.error();
      DmVerityDevice inner(std::move(*made));
      outer = std::move(inner);
    }
    EXPECT_EQ(State(moved), DmDeviceState::ACTIVE) << "removed by a moved-from holder";
    EXPECT_EQ(outer.GetName(), moved);
  }
  EXPECT_EQ(State(moved), DmDeviceState::INVALID);

  const std::string released = Name("_released");
  {
    auto device = CreateVerityDevice(released, *Table(false), false);
    ASSERT_TRUE(device.ok()) << device.error();
    device->Release();
  }
  EXPECT_EQ(State(released), DmDeviceState::ACTIVE);
  EXPECT_TRUE(DeleteVerityDevice(released, false).ok());
  EXPECT_EQ(State(released), DmDeviceState::INVALID);

  const std::string first = Name("_first");
  const std::string second = Name("_second");
  {
    auto a = CreateVerityDevice(first, *Table(false), false);
    auto b = CreateVerityDevice(second, *Table(false), false);
    ASSERT_TRUE(a.ok() && b.ok());
    *a = std::move(*b);
    EXPECT_EQ(a->GetName(), second);
  }
  EXPECT_EQ(State(second), DmDeviceState::INVALID);
  EXPECT_EQ(State(first), DmDeviceState::ACTIVE);

  LogRecorder log;
  { DmVerityDevice empty; }
  EXPECT_TRUE(log.Records().empty());
}

TEST_F(VerityDeviceTest, DeletingAMissingDeviceFails) {
  auto deleted = DeleteVerityDevice("vm_no_such_device", false);
  ASSERT_FALSE(deleted.ok());
  EXPECT_EQ(deleted.error().message(), "Failed to delete dm-device vm_no_such_device");
  EXPECT_EQ(deleted.error().code(), 0);
}

// The device-mapper stand-in itself, where the daemon's code does not reach.
class DeviceMapperTest : public VerityDeviceTest {};

TEST_F(DeviceMapperTest, NamesMustFitTheKernelField) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  std::string path;
  const auto timeout = std::chrono::milliseconds(1000);
  EXPECT_FALSE(dm_.CreateDevice("", *Table(false), &path, timeout));
  const std::string too_long(128, 'n');
  EXPECT_FALSE(dm_.CreateDevice(too_long, *Table(false), &path, timeout));
  EXPECT_EQ(State(too_long), DmDeviceState::INVALID);

  const std::string prefix = Name();
  const std::string longest = prefix + std::string(127 - prefix.size(), 'n');
  names_.push_back(longest);
  EXPECT_TRUE(dm_.CreateDevice(longest, *Table(false), &path, timeout));
  EXPECT_EQ(State(longest), DmDeviceState::ACTIVE);
}

TEST_F(DeviceMapperTest, ParentOfAVerityDeviceIsItsLoopDevice) {
  ASSERT_NO_FATAL_FAILURE(Attach("valid_2048"));
  auto device = CreateVerityDevice(Name(), *Table(false), false);
  ASSERT_TRUE(device.ok()) << device.error();
  const std::string kernel_name = device->GetDevPath().substr(5);  // dm-N

  EXPECT_EQ(dm_.GetParentBlockDeviceByPath("/dev/block/" + kernel_name),
            "/dev/block/" + android::base::Basename(loop_.name));
  // The bottom of the stack, and paths outside /dev/block/, have none.
  EXPECT_EQ(dm_.GetParentBlockDeviceByPath("/dev/block/" + android::base::Basename(loop_.name)),
            std::nullopt);
  EXPECT_EQ(dm_.GetParentBlockDeviceByPath(device->GetDevPath()), std::nullopt);
  EXPECT_EQ(dm_.GetParentBlockDeviceByPath("/dev/block/dm-999"), std::nullopt);
}

}  // namespace
