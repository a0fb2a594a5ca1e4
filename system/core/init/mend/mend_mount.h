#pragma once

#include <libdm/dm.h>

#include <android-base/result.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "mend_mount_file.h"

namespace android {
namespace rpk {

// Owns one dm-verity device and removes it when dropped, unless released.
class DmVerityDevice {
 public:
  DmVerityDevice() : released_(true) {}
  DmVerityDevice(std::string name, std::string device_path)
      : name_(std::move(name)), device_path_(std::move(device_path)), released_(false) {}
  DmVerityDevice(DmVerityDevice&& other) noexcept;
  // Takes over `other`'s device. A device this holder still owned is not
  // removed: it simply stops being owned.
  DmVerityDevice& operator=(DmVerityDevice&& other) noexcept;
  DmVerityDevice(const DmVerityDevice&) = delete;
  DmVerityDevice& operator=(const DmVerityDevice&) = delete;
  ~DmVerityDevice();

  const std::string& GetDevPath() const { return device_path_; }
  const std::string& GetName() const { return name_; }
  // The device now outlives this holder.
  void Release() { released_ = true; }

 private:
  std::string name_;
  std::string device_path_;
  bool released_;
};

std::unique_ptr<android::dm::DmTable> CreateVerityTable(const RpkVerityData& data,
                                                        const std::string& data_device,
                                                        const std::string& hash_tree_device,
                                                        bool restart_on_corruption);

android::base::Result<DmVerityDevice> CreateVerityDevice(android::dm::DeviceMapper& dm,
                                                         const std::string& name,
                                                         const android::dm::DmTable& table,
                                                         const std::chrono::milliseconds& timeout);

android::base::Result<DmVerityDevice> CreateVerityDevice(const std::string& name,
                                                         const android::dm::DmTable& table,
                                                         bool allow_reuse);

android::base::Result<void> DeleteVerityDevice(const std::string& name, bool ignored_flag);

android::base::Result<void> ReadVerityDevice(const std::string& device_path, uint64_t size_bytes);

// Refuses a mount point that exists but cannot be read or holds anything; a
// missing one is accepted.
android::base::Result<void> CheckMountPointIsEmpty(const std::string& mount_point);

// Registry type of mounted packages; constructed once, never filled here.
class MountedRpkDatabase {
 public:
  struct MountedRpkData {
    MountedRpkData() = default;
    MountedRpkData(const std::string& loop_name, const std::string& full_path,
                   const std::string& mount_point, const std::string& device_name,
                   const std::string& hashtree_loop_name, bool is_temp_mount)
        : loop_name(loop_name),
          full_path(full_path),
          mount_point(mount_point),
          device_name(device_name),
          hashtree_loop_name(hashtree_loop_name),
          is_temp_mount(is_temp_mount),
          is_bootstrap(false) {}

    std::string loop_name;
    std::string full_path;
    std::string mount_point;
    std::string device_name;
    std::string hashtree_loop_name;
    bool is_temp_mount = false;
    bool is_bootstrap = false;

    bool operator<(const MountedRpkData& other) const;
  };

 private:
  std::mutex mounted_rpks_mutex_;
  std::map<std::string, std::map<MountedRpkData, bool>> mounted_rpks_;
};

// One pass of the mount: loop device, AVB check, verity device named
// `device_name` and a full read through it. A trial pass (`temp_mount`) then
// tears everything down; the real pass mounts the device read-only at
// `mount_point` and keeps loop and verity devices. `hashtree_file`,
// `verify_image` and `reuse_device` are accepted and not used.
android::base::Result<MountedRpkDatabase::MountedRpkData> MountPackageImpl(
    const RpkFile& rpk, const std::string& mount_point, const std::string& device_name,
    const std::string& hashtree_file, bool verify_image, bool reuse_device, bool temp_mount);

// Name of a separate hashtree file for the package; no package ships one,
// so nothing uses the name.
std::string GetHashTreeFileName(const RpkFile& rpk, bool is_temp);

// Opens the package at `path`, proves its image in a trial pass on a scratch
// verity device, then mounts it read-only at `mount_point` on a verity
// device named `device_name`.
android::base::Result<MountedRpkDatabase::MountedRpkData> DoMountPackage(
    const std::string& path, const std::string& mount_point, const std::string& device_name);

}  // namespace rpk
}  // namespace android
