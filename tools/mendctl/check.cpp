#include "check.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

#include "mend_paths.h"
#include "mend_rules.h"
#include "tree_check.h"

namespace mendctl {
namespace {

using android::base::StartsWith;
namespace mend = android::mend;

// Names that make a device-mapper device ours: the packages' and the trial
// pass's scratch device.
std::set<std::string> KnownNames(const Snapshot& snapshot) {
  std::set<std::string> names = {mend::kTrialDeviceName};
  for (const PackageFile& file : snapshot.packages) {
    if (file.package) names.insert(file.package->update_package_name);
  }
  for (const auto& [name, record] : snapshot.records) names.insert(name);
  for (const auto& [name, message] : snapshot.native_messages) names.insert(name);
  for (const auto& [name, message] : snapshot.app_messages) names.insert(name);
  return names;
}

bool IsOurs(const BlockDevice& device, const std::set<std::string>& names) {
  if (device.IsDm()) return names.count(device.dm_name) > 0;
  return StartsWith(device.backing_file, mend::kPackageDir);
}

bool IsMounted(const Snapshot& snapshot, const BlockDevice& device) {
  for (const Mount& mount : snapshot.mounts) {
    if (mount.device == device.number && StartsWith(mount.mount_point, mend::kMountRoot)) {
      return true;
    }
  }
  return false;
}

bool HasPackageNamed(const Snapshot& snapshot, const std::string& name, const int64_t* version) {
  for (const PackageFile& file : snapshot.packages) {
    if (file.package && file.package->update_package_name == name &&
        (version == nullptr || file.package->update_version_code == *version)) {
      return true;
    }
  }
  return false;
}

void StateProblems(const Snapshot& snapshot, std::vector<Problem>* out) {
  for (const auto& [name, record] : snapshot.records) {
    if (!HasPackageNamed(snapshot, name, &record.update_version_code)) {
      out->push_back({"record_without_package", name,
                      "no package in " + std::string(mend::kPackageDir) + " has version " +
                          std::to_string(record.update_version_code)});
    }
  }
  for (const PackageFile& file : snapshot.packages) {
    if (file.package && !android::init::recordTaskId(snapshot.records, *file.package)) {
      out->push_back({"package_without_record", file.package->update_package_name,
                      file.path + " has no state record of version " +
                          std::to_string(file.package->update_version_code)});
    }
  }
}

void MountProblems(const Snapshot& snapshot, const StatusReport& status,
                   std::vector<Problem>* out) {
  std::set<std::string> repaired_dirs;
  for (const PackageFile& file : snapshot.packages) {
    if (!file.package) continue;
    for (const auto& dir : android::init::MendRepairUtil::split(file.package->module_path, ';')) {
      repaired_dirs.insert(dir);
    }
  }
  for (const Mount& mount : snapshot.mounts) {
    if (StartsWith(mount.mount_point, mend::kMountRoot)) {
      const std::string name = mount.mount_point.substr(sizeof(mend::kMountRoot) - 1);
      if (!HasPackageNamed(snapshot, name, nullptr)) {
        out->push_back({"mount_without_package", name,
                        mount.mount_point + " (" + mount.source + ") has no package of that name"});
      }
    }
    if (mount.fs_type != "overlay") continue;
    const std::vector<std::string> lower = mount.LowerDirs();
    const bool involves_us = repaired_dirs.count(mount.mount_point) > 0 ||
                             std::any_of(lower.begin(), lower.end(), [](const std::string& dir) {
                               return StartsWith(dir, mend::kMountRoot);
                             });
    if (!involves_us) continue;
    for (size_t i = 0; i < lower.size(); ++i) {
      const bool own_dir = i + 1 == lower.size() && lower[i] == mount.mount_point;
      const bool package_copy = StartsWith(lower[i], mend::kMountRoot) &&
                                android::base::EndsWith(lower[i], mount.mount_point);
      if (!own_dir && !package_copy) {
        out->push_back({"overlay_foreign", mount.mount_point,
                        "lower layer " + lower[i] +
                            " is neither a package's copy nor the "
                            "directory itself"});
      }
    }
  }
  for (const PackageStatus& package : status.packages) {
    if (!package.name) continue;
    const std::string& name = *package.name;
    if (package.mounted && !package.not_overlaid.empty()) {
      out->push_back({"overlay_missing", name,
                      "mounted, but no lower layer of an overlay on " +
                          android::base::Join(package.not_overlaid, ", ")});
    }
    if (package.verity == "corrupted") {
      out->push_back({"verity_corrupted", name,
                      "the kernel found a corrupted block on " + package.dm_device.value_or("")});
    }
    if (package.repair_status && *package.repair_status != 1 && package.mounted) {
      out->push_back({"reported_failed_but_mounted", name,
                      "native.msg reports " + std::to_string(*package.repair_status) +
                          " but the image is mounted"});
    }
    if (package.repair_status == 1 && !package.in_force) {
      out->push_back({"reported_repaired_not_in_force", name,
                      std::string("native.msg reports 1 but the package is not in force: ") +
                          (package.refusal ? RefusalName(package.refusal->refusal) : "unknown")});
    }
  }
}

void DeviceProblems(const Snapshot& snapshot, std::vector<Problem>* out) {
  const std::set<std::string> names = KnownNames(snapshot);
  for (const BlockDevice& device : snapshot.devices) {
    if (!IsOurs(device, names)) continue;
    bool used = IsMounted(snapshot, device);
    if (!device.IsDm()) {
      // A loop device is in use while a mounted dm device of ours sits on it.
      for (const BlockDevice& dm : snapshot.devices) {
        if (dm.IsDm() && IsOurs(dm, names) && IsMounted(snapshot, dm) &&
            std::count(dm.slaves.begin(), dm.slaves.end(), device.name)) {
          used = true;
        }
      }
    }
    if (!used) {
      out->push_back({"leaked_device", device.IsDm() ? device.dm_name : device.name,
                      device.name + (device.IsDm() ? "" : " over " + device.backing_file) +
                          " exists but nothing of ours is mounted on it"});
    }
  }
}

// The geometry of a verity table line, when data and hash share a device.
std::optional<TreeGeometry> ParseVerityTable(const std::string& table, std::string* device) {
  const std::vector<std::string> words = android::base::Split(table, " ");
  if (words.size() < 10 || words[1] != words[2]) return std::nullopt;
  TreeGeometry geometry;
  *device = words[1];
  if (!android::base::ParseUint(words[3], &geometry.data_block_size) ||
      !android::base::ParseUint(words[4], &geometry.hash_block_size) ||
      !android::base::ParseUint(words[5], &geometry.data_blocks) ||
      !android::base::ParseUint(words[6], &geometry.hash_start_block)) {
    return std::nullopt;
  }
  geometry.algorithm = words[7];
  geometry.root_digest = words[8];
  geometry.salt = words[9];
  return geometry;
}

std::optional<BadBlock> VerifyDevice(const Snapshot& snapshot, const DeviceRoot& root,
                                     const BlockDevice& dm, std::string* error) {
  std::string data_device;
  const auto geometry = ParseVerityTable(dm.table, &data_device);
  const BlockDevice* loop = geometry ? FindDevice(snapshot.devices, data_device) : nullptr;
  if (loop == nullptr || loop->backing_file.empty()) {
    *error = "its table names no loop device over a file: " + dm.table;
    return std::nullopt;
  }
  android::base::unique_fd fd(open(root.At(loop->backing_file).c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
    *error = "cannot read " + loop->backing_file + ": " + strerror(errno);
    return std::nullopt;
  }
  const uint64_t file_size = static_cast<uint64_t>(st.st_size);
  const uint64_t rest = file_size > loop->offset ? file_size - loop->offset : 0;
  const uint64_t length = loop->size_limit != 0 ? std::min(loop->size_limit, rest) : rest;
  auto bad = FindBadBlock(fd.get(), loop->offset, length, *geometry);
  if (!bad.ok()) {
    *error = bad.error().message();
    return std::nullopt;
  }
  return *bad;
}

}  // namespace

std::vector<Problem> FindProblems(const Snapshot& snapshot, const StatusReport& status) {
  std::vector<Problem> problems;
  StateProblems(snapshot, &problems);
  MountProblems(snapshot, status, &problems);
  DeviceProblems(snapshot, &problems);
  return problems;
}

std::vector<Problem> VerifyDevices(const Snapshot& snapshot, const DeviceRoot& root,
                                   std::vector<std::string>* errors) {
  std::vector<Problem> problems;
  const std::set<std::string> names = KnownNames(snapshot);
  for (const BlockDevice& dm : snapshot.devices) {
    if (!dm.IsDm() || !IsOurs(dm, names) || dm.target_type != "verity") continue;
    std::string error;
    if (auto bad = VerifyDevice(snapshot, root, dm, &error)) {
      problems.push_back({"verity_corrupted", dm.dm_name, dm.name + ": " + bad->description});
    } else if (!error.empty()) {
      errors->push_back(dm.name + " (" + dm.dm_name + "): " + error);
    }
  }
  return problems;
}

}  // namespace mendctl
