#include "mend.h"

#include <android-base/properties.h>
#include <cutils/android_reboot.h>
#include <cutils/properties.h>
#include <pthread.h>

#include <chrono>
#include <list>

#include "mend_log.h"
#include "mend_message.h"
#include "mend_paths.h"
#include "mend_repair.h"
#include "mend_rules.h"
#include "mend_shared_prefs.h"

namespace android {
namespace init {
namespace {

// A package counts as repaired when the overlay phase produced modules and
// none of its own modules failed. A package without modules of its own is
// therefore judged by the others' presence only.
bool isPackageOverlaySuccess(const MendRepairPackage& package,
                             const std::list<MendRepairModule>& overlayResult) {
  if (overlayResult.empty()) return false;
  for (const MendRepairModule& subMod : overlayResult) {
    MEND_LOG("1 isPackageOverlaySucces-subMod.parent_package.update_package_name = %s",
             subMod.parent_package.update_package_name.c_str());
    if (subMod.parent_package.update_package_name == package.update_package_name &&
        !subMod.is_overlay_success) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool MendRepairUtil::isMendSupported() {
  char product[PROPERTY_VALUE_MAX];
  char persist[PROPERTY_VALUE_MAX];
  property_get(android::mend::kPropSupport, product, "-1");
  property_get(android::mend::kPropPersistSupport, persist, "-1");
  MEND_LOG("mend: %s,persist:%s", product, persist);
  return isSupportSwitchOn(product, persist);
}

MendManager* MendManager::GetInstance() {
  static MendManager instance;
  return &instance;
}

MendManager::MendManager() {
  if (!MendRepairUtil::isMendSupported()) {
    MEND_LOG("mend is not supported");
    return;
  }
  pthread_t scan_thread;
  pthread_create(&scan_thread, nullptr, execThreadRun, nullptr);
  pthread_join(scan_thread, nullptr);
}

void MendManager::startSyncMendRepair() { runRepair(false); }

void MendManager::startASyncMendRepair() { runRepair(true); }

void MendManager::runRepair(bool async) {
  MEND_LOG(async ? "startASyncMendRepair" : "startSyncMendRepair");
  if (!MendRepairUtil::isMendSupported()) {
    MEND_LOG("mend is not supported");
    return;
  }
  MEND_LOG("mendRepairList.size() = %ld ", static_cast<long>(mendRepairList.size()));
  std::map<std::string, MendRepairPackage> tempRepairMap;
  for (const auto& pair : mendRepairList) {
    MEND_LOG("pair.second.is_async_exec = %d ", pair.second.is_async_exec);
    if (isAsyncPackage(pair.second) != async) continue;
    MendSharedPrefsManager::GetInstance()->updateBootFailedCount(pair.second);
    tempRepairMap[pair.first] = pair.second;
    MEND_LOG("1 tempRepairMap.size() = %ld ", static_cast<long>(tempRepairMap.size()));
  }
  MEND_LOG("2 tempRepairMap.size() = %ld ", static_cast<long>(tempRepairMap.size()));
  reallyStartRepair(tempRepairMap);
  if (!async) return;

  if (android::base::WaitForProperty(android::mend::kPropBootCompleted, "1",
                                     std::chrono::milliseconds::max())) {
    MendSharedPrefsManager::GetInstance()->refreshAllBootStatus(true);
  } else {
    MEND_LOG("wait boot compelted timeout");
  }
}

void reallyStartRepair(std::map<std::string, MendRepairPackage> repairMap) {
  if (repairMap.empty()) {
    MEND_LOG("nothing need to repair");
    return;
  }
  MendRepairManager* repair = MendRepairManager::GetInstance();

  std::list<MendRepairModule> allModules;
  for (const auto& [path, package] : repairMap) {
    std::list<MendRepairModule> modules = repair->startMount(package);
    allModules.splice(allModules.end(), modules);
  }

  const std::list<MendRepairModule> overlayResult = repair->startOverlay(allModules);

  bool anyFailed = false;
  for (const auto& [path, package] : repairMap) {
    if (isPackageOverlaySuccess(package, overlayResult)) {
      repair->execMendPackageRepair(package);
      continue;
    }
    MendMessageManager::GetInstance()->writeMessage(
        package, false, 256, MendRepairUtil::repairStatus2JsonString(REPAIR_OVERLAY_FAILED));
    MendSharedPrefsManager::GetInstance()->updateCanDelete(package, true);
    MendSharedPrefsManager::GetInstance()->updateRepairStatus(package, false);
    anyFailed = true;
  }

  // Half a repair is worse than none: once modules were mounted, a failure
  // restarts the device so that it boots without them.
  if (anyFailed && !allModules.empty()) {
    MEND_LOG("start reboot.");
    MEND_LOG("force reboot");
    if (android_reboot(ANDROID_RB_RESTART, 0, nullptr) == -1) {
      MEND_LOG("android_reboot api called failed.");
    }
  }
}

}  // namespace init
}  // namespace android
