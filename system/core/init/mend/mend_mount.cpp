#include "mend_mount.h"

#include <android-base/logging.h>

namespace android {
namespace rpk {

using android::base::Error;
using android::base::Result;

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
  // Placeholder until the verity device code lands.
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
