#include "status.h"

#include <android-base/strings.h>

#include <algorithm>
#include <set>

#include "mend_json.h"
#include "mend_package.h"
#include "mend_paths.h"
#include "mend_rules.h"

namespace mendctl {
namespace {

using android::init::MendRepairUtil;
namespace mend = android::mend;

std::optional<int> ReportedStatus(const Snapshot& snapshot, const std::string& name,
                                  std::string* reason) {
  auto it = snapshot.native_messages.find(name);
  if (it == snapshot.native_messages.end()) return std::nullopt;
  Json::Value content;
  if (!android::init::parseJsonLine(it->second.response_content, &content) || !content.isObject() ||
      !content["status"].isInt()) {
    return std::nullopt;
  }
  if (content["reason"].isString()) *reason = content["reason"].asString();
  return content["status"].asInt();
}

// Directories where the package named `name` is a lower layer of an overlay.
std::vector<std::string> OverlaidDirs(const Snapshot& snapshot, const std::string& name) {
  std::vector<std::string> dirs;
  for (const Mount& mount : snapshot.mounts) {
    if (mount.fs_type != "overlay") continue;
    const std::vector<std::string> lower = mount.LowerDirs();
    const std::string own = mend::kMountRoot + name + mount.mount_point;
    if (std::find(lower.begin(), lower.end(), own) != lower.end() &&
        std::find(dirs.begin(), dirs.end(), mount.mount_point) == dirs.end()) {
      dirs.push_back(mount.mount_point);
    }
  }
  return dirs;
}

// Fills what the kernel shows of the package's image: its mount, the dm and
// loop devices below it, and the state of dm-verity.
void FillKernelState(const Snapshot& snapshot, PackageStatus* status) {
  const Mount* mount = PackageMount(snapshot, *status->name);
  if (mount == nullptr) return;
  const BlockDevice* dm = FindDevice(snapshot.devices, mount->device);
  const BlockDevice* loop = dm != nullptr ? LoopUnder(snapshot, *dm) : nullptr;
  // Of two package files with one name, the one on the loop device is mounted.
  if (loop != nullptr && status->file && loop->backing_file != *status->file) return;
  status->mounted = true;
  if (dm != nullptr) status->dm_device = dm->name;
  if (loop != nullptr) status->loop_device = loop->name;
  if (dm != nullptr && !dm->status.empty()) {
    status->verity = dm->status[0] == 'C' ? "corrupted" : "ok";
  }
}

// The directories the package repairs where it is not a lower layer.
std::vector<std::string> NotOverlaid(const PackageFile& file, const PackageStatus& status) {
  std::vector<std::string> missing;
  for (const std::string& dir : MendRepairUtil::split(file.package->module_path, ';')) {
    if (std::find(status.overlaid.begin(), status.overlaid.end(), dir) == status.overlaid.end()) {
      missing.push_back(dir);
    }
  }
  return missing;
}

std::optional<Verdict> WhyNotInForce(const Snapshot& snapshot, const PackageStatus& status,
                                     const PackageFile* file, const std::string& reported_reason,
                                     ImageChecker& images) {
  if (status.in_force) return std::nullopt;
  if (file == nullptr) {
    return Verdict{Refusal::kNoConfig,
                   std::string("no package in ") + mend::kPackageDir + " carries this name"};
  }
  RuleInput input{snapshot, *file, std::nullopt};
  if (status.record != nullptr) input.boot_failed_count = status.record->boot_failed_count;
  if (auto refused = FirstRefusal(input, images)) return refused;
  if (status.mounted) {
    return Verdict{Refusal::kNotMounted, "mounted, but not overlaid on " +
                                             android::base::Join(status.not_overlaid, ", ")};
  }
  if (!reported_reason.empty()) return Verdict{Refusal::kNotMounted, reported_reason};
  return Verdict{Refusal::kNotMounted, "not mounted; the daemon's log (tag mend_log) tells why"};
}

PackageStatus JudgeOne(const Snapshot& snapshot, const std::optional<std::string>& name,
                       const PackageFile* file, ImageChecker& images) {
  PackageStatus status;
  status.name = name;
  if (file != nullptr) status.file = file->path;
  if (!name) {
    status.refusal = Verdict{Refusal::kNoConfig, file->config_problem};
    return status;
  }
  status.record = RecordByName(snapshot, *name);
  auto app = snapshot.app_messages.find(*name);
  auto native = snapshot.native_messages.find(*name);
  if (file != nullptr && file->package) {
    const auto& package = *file->package;
    status.version_code = package.update_version_code;
    status.task_id = android::init::recordTaskId(snapshot.records, package);
    status.mode = android::init::isAsyncPackage(package) ? "async" : "sync";
    status.trigger_rollback_count = package.trigger_rollback_count;
  } else if (status.record != nullptr) {
    status.version_code = status.record->update_version_code;
    status.task_id = status.record->task_id;
  } else if (native != snapshot.native_messages.end()) {
    status.version_code = native->second.update_version_code;
  } else if (app != snapshot.app_messages.end()) {
    status.version_code = app->second.update_version_code;
  }
  std::string reported_reason;
  status.repair_status = ReportedStatus(snapshot, *name, &reported_reason);
  FillKernelState(snapshot, &status);
  status.overlaid = OverlaidDirs(snapshot, *name);
  if (file != nullptr && file->package) status.not_overlaid = NotOverlaid(*file, status);
  status.in_force =
      status.mounted && file != nullptr && file->package && status.not_overlaid.empty();
  status.refusal = WhyNotInForce(snapshot, status, file, reported_reason, images);
  return status;
}

}  // namespace

const char* StatusName(int status) {
  switch (status) {
    case android::init::REPAIR_START_SUCCESS:
      return "REPAIR_START_SUCCESS";
    case android::init::REPAIR_BOOT_FAILED_LIMIT:
      return "REPAIR_BOOT_FAILED_LIMIT";
    case android::init::REPAIR_OS_VERSION_MISMATCH:
      return "REPAIR_OS_VERSION_MISMATCH";
    case android::init::REPAIR_MOUNT_FAILED:
      return "REPAIR_MOUNT_FAILED";
    case android::init::REPAIR_OVERLAY_FAILED:
      return "REPAIR_OVERLAY_FAILED";
    case android::init::REPAIR_BUILD_LIST_EMPTY:
      return "REPAIR_BUILD_LIST_EMPTY";
  }
  return nullptr;
}

const Mount* PackageMount(const Snapshot& snapshot, const std::string& name) {
  const Mount* found = nullptr;
  for (const Mount& mount : snapshot.mounts) {
    if (mount.mount_point == mend::kMountRoot + name) found = &mount;
  }
  return found;
}

const BlockDevice* LoopUnder(const Snapshot& snapshot, const BlockDevice& dm) {
  if (dm.slaves.size() != 1) return nullptr;
  return FindDevice(snapshot.devices, dm.slaves[0]);
}

StatusReport JudgeStatus(const Snapshot& snapshot, ImageChecker& images) {
  StatusReport report;
  std::set<std::string> named;
  for (const PackageFile& file : snapshot.packages) {
    std::optional<std::string> name;
    if (file.package) name = file.package->update_package_name;
    if (name) named.insert(*name);
    report.packages.push_back(JudgeOne(snapshot, name, &file, images));
  }
  std::set<std::string> others;
  for (const auto& [name, record] : snapshot.records) others.insert(name);
  for (const auto& [name, message] : snapshot.native_messages) others.insert(name);
  for (const auto& [name, message] : snapshot.app_messages) others.insert(name);
  for (const std::string& name : others) {
    if (!named.count(name)) report.packages.push_back(JudgeOne(snapshot, name, nullptr, images));
  }
  for (const Mount& mount : snapshot.mounts) {
    if (mount.fs_type == "overlay")
      report.overlays.push_back({mount.mount_point, mount.LowerDirs()});
  }
  return report;
}

}  // namespace mendctl
