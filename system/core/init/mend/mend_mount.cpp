#include "mend_mount.h"

#include <fcntl.h>
#include <unistd.h>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>

namespace android {
namespace rpk {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;
using android::dm::DeviceMapper;
using android::dm::DmDeviceState;
using android::dm::DmTable;
using android::dm::DmTargetVerity;

namespace {

constexpr uint64_t kSectorSize = 512;
constexpr std::chrono::milliseconds kDeleteTimeout(750);
constexpr std::chrono::milliseconds kCreateTimeout(1000);
constexpr size_t kVerityReadChunk = 4 * 1024 * 1024;
constexpr char kVerityModeRestart[] = "restart_on_corruption";

// Reads exactly `count` bytes unless the device fails or ends first. A
// premature end leaves EIO in errno: the device is shorter than its image.
bool ReadChunk(int fd, uint8_t* buffer, size_t count) {
  while (count > 0) {
    ssize_t n = TEMP_FAILURE_RETRY(read(fd, buffer, count));
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;
      return false;
    }
    buffer += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

DmVerityDevice::DmVerityDevice(DmVerityDevice&& other) noexcept
    : name_(std::move(other.name_)),
      device_path_(std::move(other.device_path_)),
      released_(other.released_) {
  other.released_ = true;
}

DmVerityDevice& DmVerityDevice::operator=(DmVerityDevice&& other) noexcept {
  name_ = other.name_;
  device_path_ = other.device_path_;
  released_ = other.released_;
  other.released_ = true;
  return *this;
}

DmVerityDevice::~DmVerityDevice() {
  if (released_) return;
  auto deleted = DeleteVerityDevice(name_, false);
  if (!deleted.ok()) LOG(ERROR) << deleted.error().message();
}

std::unique_ptr<DmTable> CreateVerityTable(const RpkVerityData& data,
                                           const std::string& data_device,
                                           const std::string& hash_tree_device,
                                           bool restart_on_corruption) {
  const AvbHashtreeDescriptor& desc = *data.desc;
  // A zero block size cannot come from a valid descriptor; the kernel
  // refuses the resulting table instead of this code dividing by zero.
  const uint64_t hash_start_block =
      (hash_tree_device == data_device && desc.hash_block_size != 0)
          ? desc.tree_offset / desc.hash_block_size
          : 0;
  const uint64_t num_data_blocks =
      desc.data_block_size != 0 ? desc.image_size / desc.data_block_size : 0;

  auto target = std::make_unique<DmTargetVerity>(
      0, desc.image_size / kSectorSize, desc.dm_verity_version, data_device, hash_tree_device,
      desc.data_block_size, desc.hash_block_size, static_cast<uint32_t>(num_data_blocks),
      static_cast<uint32_t>(hash_start_block), data.hash_algorithm, data.root_digest, data.salt);
  target->IgnoreZeroBlocks();
  if (restart_on_corruption) target->SetVerityMode(kVerityModeRestart);

  auto table = std::make_unique<DmTable>();
  table->AddTarget(std::move(target));
  table->set_readonly(true);
  return table;
}

Result<DmVerityDevice> CreateVerityDevice(DeviceMapper& dm, const std::string& name,
                                          const DmTable& table,
                                          const std::chrono::milliseconds& timeout) {
  std::string device_path;
  if (!dm.CreateDevice(name, table, &device_path, timeout)) {
    return Error() << "Couldn't create verity device.";
  }
  return DmVerityDevice(name, device_path);
}

Result<DmVerityDevice> CreateVerityDevice(const std::string& name, const DmTable& table,
                                          bool /*allow_reuse*/) {
  LOG(VERBOSE) << "Creating verity device " << name;
  DeviceMapper& dm = DeviceMapper::Instance();
  switch (dm.GetState(name)) {
    case DmDeviceState::INVALID:
      return CreateVerityDevice(dm, name, table, kCreateTimeout);
    case DmDeviceState::ACTIVE: {
      LOG(WARNING) << "Deleting existing active dm device " << name;
      auto deleted = DeleteVerityDevice(name, false);
      if (!deleted.ok()) return deleted.error();
      return CreateVerityDevice(dm, name, table, kCreateTimeout);
    }
    case DmDeviceState::SUSPENDED:
      break;
  }
  // A device that exists but is not active (left half-made by an earlier
  // run, or suspended) is given the new table and reused.
  if (!dm.LoadTableAndActivate(name, table)) {
    dm.DeleteDevice(name);
    return Error() << "Failed to activate dm device " << name;
  }
  std::string device_path;
  if (!dm.WaitForDevice(name, kCreateTimeout, &device_path)) {
    dm.DeleteDevice(name);
    return Error() << "Failed waiting for dm device " << name;
  }
  return DmVerityDevice(name, device_path);
}

Result<void> DeleteVerityDevice(const std::string& name, bool /*ignored_flag*/) {
  if (!DeviceMapper::Instance().DeleteDevice(name, kDeleteTimeout)) {
    return Error() << "Failed to delete dm-device " << name;
  }
  return {};
}

Result<void> ReadVerityDevice(const std::string& device_path, uint64_t size_bytes) {
  std::vector<uint8_t> buffer(kVerityReadChunk, 0);
  unique_fd fd(TEMP_FAILURE_RETRY(open(device_path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd.get() == -1) return ErrnoError() << "Can't open " << device_path;
  // dm-verity fails the read of any block whose hash does not match, so a
  // full pass proves the whole image; the data itself is not looked at.
  uint64_t remaining = size_bytes;
  while (remaining > 0) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(remaining, kVerityReadChunk));
    if (!ReadChunk(fd.get(), buffer.data(), chunk)) {
      return ErrnoError() << "Can't verify " << device_path << "corrupted";
    }
    remaining -= chunk;
  }
  return {};
}

bool MountedRpkDatabase::MountedRpkData::operator<(const MountedRpkData& other) const {
  return std::tie(loop_name, full_path, mount_point, device_name) <
         std::tie(other.loop_name, other.full_path, other.mount_point, other.device_name);
}

Result<MountedRpkDatabase::MountedRpkData> DoMountPackage(const std::string& path,
                                                          const std::string& mount_point,
                                                          const std::string& device_name) {
  auto file = RpkFile::Open(path);
  if (!file.ok()) return file.error();
  // Placeholder until the mount pipeline lands.
  return Error() << "first mount failed mount pipeline not built for " << mount_point << " "
                 << device_name;
}

}  // namespace rpk
}  // namespace android
