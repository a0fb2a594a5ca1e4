#pragma once

// What the kernel shows of mounts and block devices: mountinfo, and the
// sysfs entries of device-mapper and loop devices.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device_root.h"

namespace mendctl {

struct Mount {
  std::string device;  // "major:minor" of the mounted device
  std::string mount_point;
  std::string fs_type;
  std::string source;
  std::string super_options;

  // An overlay's lower directories as mounted, top first.
  std::vector<std::string> LowerDirs() const;
};

// The mounts of one mountinfo text, in mount order; malformed lines are
// skipped.
std::vector<Mount> ParseMountInfo(const std::string& text);

struct BlockDevice {
  std::string name;    // kernel name: "dm-0", "loop3"
  std::string number;  // "major:minor"
  // Device-mapper devices: their name, the devices below, and, when asked,
  // the live table's single target.
  std::string dm_name;
  std::vector<std::string> slaves;
  std::string target_type;
  std::string table;   // the target's parameters as the kernel prints them
  std::string status;  // the target's status ("V" or "C" for verity)
  // Loop devices while bound: the file and the region of it they show.
  std::string backing_file;
  uint64_t offset = 0;
  uint64_t size_limit = 0;  // 0: up to the end of the file

  bool IsDm() const { return name.rfind("dm-", 0) == 0; }
};

// The dm and loop devices that sysfs lists under /sys/block.
std::vector<BlockDevice> ReadBlockDevices(const DeviceRoot& root);

// Fills the live table and status of `device` from the device-mapper control
// node (status requests only). False when the kernel does not answer.
bool ReadLiveTable(BlockDevice* device);

// The device with kernel name or number `key`, or null.
const BlockDevice* FindDevice(const std::vector<BlockDevice>& devices, const std::string& key);

}  // namespace mendctl
