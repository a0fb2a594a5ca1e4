#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace android {
namespace rpk {
namespace loop {

// Owns one configured loop device. Dropping it without CloseGood() detaches
// the backing file; after CloseGood() the kernel's auto-clear detaches it
// when the last user lets go.
class LoopbackRepairDeviceUniqueFd {
 public:
  LoopbackRepairDeviceUniqueFd() = default;
  LoopbackRepairDeviceUniqueFd(android::base::unique_fd fd, std::string name)
      : device_fd(std::move(fd)), name(std::move(name)) {}
  LoopbackRepairDeviceUniqueFd(LoopbackRepairDeviceUniqueFd&&) noexcept = default;
  // Detaches the device this holder owned before taking over `other`'s.
  LoopbackRepairDeviceUniqueFd& operator=(LoopbackRepairDeviceUniqueFd&& other) noexcept;
  LoopbackRepairDeviceUniqueFd(const LoopbackRepairDeviceUniqueFd&) = delete;
  LoopbackRepairDeviceUniqueFd& operator=(const LoopbackRepairDeviceUniqueFd&) = delete;
  ~LoopbackRepairDeviceUniqueFd();

  void CloseGood();
  void MaybeCloseBad();

  android::base::unique_fd device_fd;
  std::string name;
};

android::base::Result<void> PreAllocateLoopDevices(size_t num);

android::base::Result<LoopbackRepairDeviceUniqueFd> CreateLoopDevice(const std::string& target,
                                                                     uint32_t image_offset,
                                                                     size_t image_size);

android::base::Result<void> ConfigureLoopDevice(int device_fd, const std::string& target,
                                                uint32_t image_offset, size_t image_size);

android::base::Result<LoopbackRepairDeviceUniqueFd> CreateAndConfigureLoopDevice(
    const std::string& target, uint32_t image_offset, size_t image_size);

// Block queue tuning of a device node such as /dev/block/loop7.
android::base::Result<void> ConfigureScheduler(const std::string& device_path);
android::base::Result<void> ConfigureQueueDepth(const std::string& loop_device_path,
                                                const std::string& file_path);
android::base::Result<void> ConfigureReadAhead(const std::string& device_path);

}  // namespace loop
}  // namespace rpk
}  // namespace android
