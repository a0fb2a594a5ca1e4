#include "mend_rules.h"

#include <algorithm>

#include "mend_paths.h"

namespace android {
namespace init {

bool isSupportSwitchOn(const std::string& product, const std::string& persist) {
  return product == "1" && persist == "1";
}

bool isAsyncPackage(const MendRepairPackage& package) { return package.is_async_exec == 1; }

bool isCancelRequested(const std::map<std::string, MendRepairSp>& records,
                       const MendRepairPackage& package) {
  for (const auto& [name, record] : records) {
    if (record.need_cancel && isRecordOf(record, package)) return true;
  }
  return false;
}

std::optional<int64_t> recordTaskId(const std::map<std::string, MendRepairSp>& records,
                                    const MendRepairPackage& package) {
  std::optional<int64_t> task_id;
  for (const auto& [name, record] : records) {
    if (isRecordOf(record, package)) task_id = record.task_id;
  }
  return task_id;
}

int32_t countedBootFailures(const MendRepairSp& record) {
  return record.is_boot_success ? record.boot_failed_count : record.boot_failed_count + 1;
}

MountRefusal mountRefusal(const MendRepairPackage& package, int32_t boot_failed_count,
                          const std::string& current_build) {
  if (boot_failed_count > package.trigger_rollback_count) return MountRefusal::kBootFailedLimit;
  const std::vector<std::string> builds = MendRepairUtil::split(package.ro_build_display_id, ';');
  if (builds.empty()) return MountRefusal::kBuildListEmpty;
  if (std::find(builds.begin(), builds.end(), current_build) == builds.end()) {
    return MountRefusal::kBuildMismatch;
  }
  return MountRefusal::kNone;
}

std::string lowerDirOf(const MendRepairModule& module) {
  return android::mend::kMountRoot + module.parent_package.update_package_name + module.module_path;
}

std::vector<std::string> overlayLowerDirs(const std::list<MendRepairModule>& group) {
  std::list<MendRepairModule> byTask = group;
  byTask.sort(compareModByTaskId);  // stable: equal task ids keep their order
  std::vector<std::string> dirs;
  for (const MendRepairModule& module : byTask) dirs.push_back(lowerDirOf(module));
  return dirs;
}

}  // namespace init
}  // namespace android
