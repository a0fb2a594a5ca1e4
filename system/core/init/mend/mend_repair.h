#pragma once

#include <list>

#include "mend_package.h"

namespace android {
namespace init {

// Applies single packages: eligibility checks, image mount, module overlay
// and the success report.
class MendRepairManager {
 public:
  static MendRepairManager* GetInstance();

  // Mounts the package at /mnt/rvx/<name> and returns one module per entry of
  // its module_path; empty when it was refused or could not be mounted.
  std::list<MendRepairModule> startMount(MendRepairPackage package);
  // Lays one read-only overlay over each repaired directory and returns the
  // modules with is_overlay_success set, grouped by directory.
  std::list<MendRepairModule> startOverlay(std::list<MendRepairModule> modules);
  // Reports the package as repaired. Always true.
  bool execMendPackageRepair(MendRepairPackage package);

 private:
  MendRepairManager() = default;
};

}  // namespace init
}  // namespace android
