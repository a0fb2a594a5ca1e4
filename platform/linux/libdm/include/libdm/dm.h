#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "dm_table.h"
#include "dm_target.h"

namespace android {
namespace dm {

enum class DmDeviceState { INVALID, SUSPENDED, ACTIVE };

// Process-wide handle on the kernel's device-mapper control node.
class DeviceMapper final {
 public:
  static DeviceMapper& Instance();

  DmDeviceState GetState(const std::string& name) const;

  // Creates `name`, loads and activates `table`, and waits up to `timeout`
  // for the device node, whose path goes to `path`.
  bool CreateDevice(const std::string& name, const DmTable& table, std::string* path,
                    const std::chrono::milliseconds& timeout_ms);
  bool LoadTableAndActivate(const std::string& name, const DmTable& table);
  bool WaitForDevice(const std::string& name, const std::chrono::milliseconds& timeout_ms,
                     std::string* path);
  bool DeleteDevice(const std::string& name, const std::chrono::milliseconds& timeout_ms);
  bool DeleteDevice(const std::string& name);

  // The single device below a dm device ("/dev/block/dm-N"), or nullopt at
  // the bottom of a stack.
  std::optional<std::string> GetParentBlockDeviceByPath(const std::string& path);

  DeviceMapper(const DeviceMapper&) = delete;
  DeviceMapper& operator=(const DeviceMapper&) = delete;

 private:
  DeviceMapper();
  int fd_ = -1;
};

}  // namespace dm
}  // namespace android
