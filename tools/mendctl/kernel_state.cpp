#include "kernel_state.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <libdm/dm.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace mendctl {
namespace {

using android::base::Split;
using android::base::StartsWith;
using android::base::Trim;

bool IsOctal(char c) { return c >= '0' && c <= '7'; }

// mountinfo writes blanks, tabs, newlines and backslashes in paths as \ooo.
std::string Unescape(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && IsOctal(field[i + 1]) &&
        IsOctal(field[i + 2]) && IsOctal(field[i + 3])) {
      out += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

std::string ReadTrimmed(const std::string& path) {
  std::string text;
  return android::base::ReadFileToString(path, &text) ? Trim(text) : "";
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

uint64_t ReadNumber(const std::string& path) {
  uint64_t value = 0;
  android::base::ParseUint(ReadTrimmed(path), &value);
  return value;
}

}  // namespace

std::vector<std::string> Mount::LowerDirs() const {
  for (const std::string& option : Split(super_options, ",")) {
    if (StartsWith(option, "lowerdir=")) return Split(option.substr(9), ":");
  }
  return {};
}

std::vector<Mount> ParseMountInfo(const std::string& text) {
  std::vector<Mount> mounts;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    // id parent major:minor root mount-point options [optional...] - type source super
    const std::vector<std::string> fields = Split(line, " ");
    size_t dash = 6;
    while (dash < fields.size() && fields[dash] != "-") ++dash;
    if (dash + 2 >= fields.size()) continue;
    Mount mount;
    mount.device = fields[2];
    mount.mount_point = Unescape(fields[4]);
    mount.fs_type = fields[dash + 1];
    mount.source = Unescape(fields[dash + 2]);
    if (dash + 3 < fields.size()) mount.super_options = Unescape(fields[dash + 3]);
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

std::vector<BlockDevice> ReadBlockDevices(const DeviceRoot& root) {
  std::vector<BlockDevice> devices;
  for (const std::string& name : ListDir(root.At("/sys/block"))) {
    const bool dm = StartsWith(name, "dm-");
    if (!dm && !StartsWith(name, "loop")) continue;
    const std::string dir = root.At("/sys/block/" + name);
    BlockDevice device;
    device.name = name;
    device.number = ReadTrimmed(dir + "/dev");
    if (dm) {
      device.dm_name = ReadTrimmed(dir + "/dm/name");
      device.slaves = ListDir(dir + "/slaves");
    } else {
      // The loop directory exists only while the device is bound.
      device.backing_file = ReadTrimmed(dir + "/loop/backing_file");
      if (device.backing_file.empty()) continue;
      device.offset = ReadNumber(dir + "/loop/offset");
      device.size_limit = ReadNumber(dir + "/loop/sizelimit");
    }
    devices.push_back(std::move(device));
  }
  return devices;
}

bool ReadLiveTable(BlockDevice* device) {
  using TargetInfo = android::dm::DeviceMapper::TargetInfo;
  android::dm::DeviceMapper& dm = android::dm::DeviceMapper::Instance();
  std::vector<TargetInfo> table;
  std::vector<TargetInfo> status;
  if (!dm.GetTableInfo(device->dm_name, &table) || !dm.GetTableStatus(device->dm_name, &status) ||
      table.size() != 1 || status.size() != 1) {
    return false;
  }
  const char* type = table[0].spec.target_type;
  device->target_type.assign(type, strnlen(type, sizeof(table[0].spec.target_type)));
  device->table = table[0].data;
  device->status = Trim(status[0].data);
  return true;
}

const BlockDevice* FindDevice(const std::vector<BlockDevice>& devices, const std::string& key) {
  for (const BlockDevice& device : devices) {
    if (device.name == key || device.number == key) return &device;
  }
  return nullptr;
}

}  // namespace mendctl
