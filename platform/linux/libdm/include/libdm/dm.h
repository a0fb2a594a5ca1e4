#pragma once

#include <linux/dm-ioctl.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "dm_table.h"
#include "dm_target.h"

namespace android {
namespace dm {

enum class DmDeviceState { INVALID, SUSPENDED, ACTIVE };

// Process-wide handle on the kernel's device-mapper control node
// (/dev/mapper/control), opened read-only: the kernel asks for CAP_SYS_ADMIN,
// not write access, for every request, and read-only callers can share it. Device nodes are the kernel's own /dev/dm-<minor>,
// which devtmpfs creates and removes with the device, so no device manager
// is needed.
class DeviceMapper final {
 public:
  // One target of a loaded table as the kernel reports it back: its spec
  // (sector range and type) and either its table parameters or its status.
  struct TargetInfo {
    dm_target_spec spec{};
    std::string data;
  };

  static DeviceMapper& Instance();

  // INVALID when there is no such device; ACTIVE when it has a live table
  // and is not suspended; SUSPENDED otherwise (also before any table).
  DmDeviceState GetState(const std::string& name) const;

  // Creates `name` with a fresh uuid, loads and activates `table`, and waits
  // up to `timeout_ms` for the device node, whose path goes to `path`. On
  // any failure the new device is removed again.
  bool CreateDevice(const std::string& name, const DmTable& table, std::string* path,
                    const std::chrono::milliseconds& timeout_ms);
  // Creates `name` with a fresh uuid and no table (state SUSPENDED).
  bool CreateEmptyDevice(const std::string& name);
  // Loads `table` into the inactive slot of an existing device and resumes
  // it, which makes the table live. The device is kept on failure.
  bool LoadTableAndActivate(const std::string& name, const DmTable& table);
  // Suspends (SUSPENDED) or resumes (ACTIVE) an existing device.
  bool ChangeState(const std::string& name, DmDeviceState state);
  // Sets `path` to the node of an existing device and waits up to
  // `timeout_ms` for it to exist (a timeout of 0 or less does not wait).
  bool WaitForDevice(const std::string& name, const std::chrono::milliseconds& timeout_ms,
                     std::string* path);
  // Removes the device, then waits up to `timeout_ms` for its node to go.
  bool DeleteDevice(const std::string& name, const std::chrono::milliseconds& timeout_ms);
  // Removes the device without waiting.
  bool DeleteDevice(const std::string& name);

  bool GetDeviceNumber(const std::string& name, dev_t* dev) const;
  // "/dev/dm-<minor>" of an existing device.
  bool GetDmDevicePathByName(const std::string& name, std::string* path) const;
  // The live table as the kernel prints it (devices as major:minor,
  // optional words in the kernel's order).
  bool GetTableInfo(const std::string& name, std::vector<TargetInfo>* table) const;
  // The status text of each live target (for verity "V" or "C").
  bool GetTableStatus(const std::string& name, std::vector<TargetInfo>* table) const;

  // The single device below a dm device ("/dev/block/dm-N" gives
  // "/dev/block/<slave>"), or nullopt at the bottom of a stack, for paths
  // outside /dev/block/ and when the device has no or several slaves.
  std::optional<std::string> GetParentBlockDeviceByPath(const std::string& path);

  DeviceMapper(const DeviceMapper&) = delete;
  DeviceMapper& operator=(const DeviceMapper&) = delete;

 private:
  DeviceMapper();
  bool CreateDeviceWithFreshUuid(const std::string& name);
  bool QueryTable(const std::string& name, bool table_lines, std::vector<TargetInfo>* table) const;

  int fd_ = -1;
};

}  // namespace dm
}  // namespace android
