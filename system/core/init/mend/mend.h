#pragma once

#include <map>
#include <string>

#include "mend_package.h"

namespace android {
namespace init {

// Packages found by the scan that have a state record and were not
// cancelled, keyed by package file path. Filled by the scan thread only.
extern std::map<std::string, MendRepairPackage> mendRepairList;
// config.txt text of every readable package, keyed by package file path.
extern std::map<std::string, std::string> otaPkgMap;

// Start routine of the scan thread: loads messages and state, reads every
// package's config and fills mendRepairList. Returns null.
void* execThreadRun(void* arg);

// Mounts, overlays, judges and reports the packages of one run; reboots when
// a repair failed after modules were mounted.
void reallyStartRepair(std::map<std::string, MendRepairPackage> repairMap);

// The daemon. Constructing it runs the package scan (when supported).
class MendManager {
 public:
  static MendManager* GetInstance();

  // Repairs the packages whose is_async_exec is not 1.
  void startSyncMendRepair();
  // Repairs the packages whose is_async_exec is 1, then waits for the end of
  // boot and records it as good.
  void startASyncMendRepair();

 private:
  MendManager();
  void runRepair(bool async);
};

}  // namespace init
}  // namespace android
