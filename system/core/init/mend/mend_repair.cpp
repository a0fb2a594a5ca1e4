#include "mend_repair.h"

#include <cutils/properties.h>
#include <json/json.h>

#include <filesystem>

#include "mend_json.h"
#include "mend_log.h"
#include "mend_message.h"
#include "mend_mount.h"
#include "mend_paths.h"
#include "mend_rules.h"
#include "mend_shared_prefs.h"

namespace android {
namespace init {
namespace {

using android::mend::kMountRoot;

void reportStatus(const MendRepairPackage& package, STATUS_REPAIR status) {
  MendMessageManager::GetInstance()->writeMessage(package, false, 256,
                                                  MendRepairUtil::repairStatus2JsonString(status));
}

// Reports a refusal and marks the package: the boot-failure refusal updates
// the repair status first, the build refusals the deletable mark first.
void reportRefusal(const MendRepairPackage& package, MountRefusal refusal,
                   const std::string& current) {
  MendSharedPrefsManager* prefs = MendSharedPrefsManager::GetInstance();
  switch (refusal) {
    case MountRefusal::kNone:
      return;
    case MountRefusal::kBootFailedLimit:
      MEND_LOG("boot failed more than %d ", package.trigger_rollback_count);
      reportStatus(package, REPAIR_BOOT_FAILED_LIMIT);
      prefs->updateRepairStatus(package, false);
      prefs->updateCanDelete(package, true);
      return;
    case MountRefusal::kBuildListEmpty:
      MEND_LOG("build version list size is 0");
      reportStatus(package, REPAIR_BUILD_LIST_EMPTY);
      break;
    case MountRefusal::kBuildMismatch:
      MEND_LOG("os version is not match : %s ,current is : %s ",
               package.ro_build_display_id.c_str(), current.c_str());
      reportStatus(package, REPAIR_OS_VERSION_MISMATCH);
      break;
  }
  prefs->updateCanDelete(package, true);
  prefs->updateRepairStatus(package, false);
}

}  // namespace

MendRepairManager* MendRepairManager::GetInstance() {
  static MendRepairManager instance;
  return &instance;
}

std::list<MendRepairModule> MendRepairManager::startMount(MendRepairPackage package) {
  MEND_LOG("startMount : %s", package.update_package_name.c_str());
  std::list<MendRepairModule> modules;
  char current[PROPERTY_VALUE_MAX];
  property_get(android::mend::kPropBuildDisplayId, current, "unknown");
  const MountRefusal refusal = mountRefusal(
      package, MendSharedPrefsManager::GetInstance()->readSp(package).boot_failed_count, current);
  if (refusal != MountRefusal::kNone) {
    reportRefusal(package, refusal, current);
    MEND_LOG("check package failed");
    return modules;
  }

  const std::string mountPoint = kMountRoot + package.update_package_name;
  // The throwing form: an error other than "already there" ends the daemon.
  std::filesystem::create_directory(mountPoint);
  MEND_LOG("preMountSingleRepairPackage : %s , %s , %s", package.image_path.c_str(),
           mountPoint.c_str(), package.update_package_name.c_str());
  auto mounted = android::rpk::DoMountPackage(package.image_path, mountPoint,
                                              package.update_package_name);
  if (!mounted.ok()) {
    const std::string reason = mounted.error().message();
    MEND_LOG("preMountSingleRepairPackage : DoMountPackage error : %s ", reason.c_str());
    Json::Value status;
    status["status"] = static_cast<int>(REPAIR_MOUNT_FAILED);
    status["reason"] = reason;
    MendMessageManager::GetInstance()->writeMessage(package, false, 256, toCompactJson(status));
    // Not marked deletable: a package that failed to mount may mount next time.
    MendSharedPrefsManager::GetInstance()->updateRepairStatus(package, false);
    MEND_LOG("mount package failed");
    return modules;
  }

  for (const std::string& path : MendRepairUtil::split(package.module_path, ';')) {
    modules.push_back(MendRepairModule{package, path, false});
  }
  if (modules.empty()) MEND_LOG("module_path is empty");
  return modules;
}

bool MendRepairManager::execMendPackageRepair(MendRepairPackage package) {
  MEND_LOG("execMendPackageRepir");
  const std::string repaired = MendRepairUtil::repairStatus2JsonString(REPAIR_START_SUCCESS);
  MendMessageManager::GetInstance()->writeMsgResponse(package, repaired);
  MendMessageManager::GetInstance()->writeMessage(package, false, 256, repaired);
  MendSharedPrefsManager::GetInstance()->updateRepairStatus(package, true);
  return true;
}

}  // namespace init
}  // namespace android
