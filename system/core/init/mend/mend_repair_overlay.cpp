#include <android-base/logging.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "mend_log.h"
#include "mend_paths.h"
#include "mend_repair.h"
#include "mend_rules.h"

namespace android {
namespace init {
namespace {

// Access checks in the overlay use the caller's credentials, not the
// daemon's.
constexpr const char kOverrideCredsOff[] = "override_creds=off,";

// "/system/app" -> "overlayfs-system_app". The first character is always
// dropped; an empty path has none and ends the daemon (out of range).
std::string overlaySourceName(const std::string& path) {
  std::string flat = path;
  std::replace(flat.begin(), flat.end(), '/', '_');
  return "overlayfs-" + flat.substr(1);
}

// Mounts one overlay over `path` with the group's package copies stacked by
// task id above the directory itself. True when the mount succeeded.
bool overlayGroup(const std::string& path, const std::list<MendRepairModule>& group) {
  const std::string source = overlaySourceName(path);
  MEND_LOG("preOverlayImgsByModPath1 : %s , %s", source.c_str(), path.c_str());
  std::string joined;
  for (const std::string& lower : overlayLowerDirs(group)) {
    MEND_LOG("preOverlayImgsByModPath2 : %s", lower.c_str());
    joined += ":" + lower;
  }
  MEND_LOG("repairAfterMount : %s , %s", source.c_str(), path.c_str());
  const std::string lowerdir = "lowerdir=" + joined.substr(1) + ":" + path;
  const std::string options = kOverrideCredsOff + lowerdir;
  MEND_LOG("repairAfterMount option: %s ", options.c_str());

  int rc = mount(source.c_str(), path.c_str(), "overlay", MS_RDONLY, options.c_str());
  if (rc != 0 && errno == EINVAL) {
    // Kernels without the override_creds option refuse the whole option
    // text; the stack of lower layers is what the repair needs.
    MEND_LOG("repairAfterMount retry without override_creds");
    rc = mount(source.c_str(), path.c_str(), "overlay", MS_RDONLY, lowerdir.c_str());
  }
  if (rc != 0) {
    MEND_LOG("Mounted overlay failed : %d , %s", errno, strerror(errno));
    return false;
  }
  MEND_LOG("RPK repair ok");
  LOG(INFO) << " mount success";
  return true;
}

}  // namespace

std::list<MendRepairModule> MendRepairManager::startOverlay(std::list<MendRepairModule> modules) {
  MEND_LOG("startOverlay : %ld", static_cast<long>(modules.size()));
  std::list<MendRepairModule> result;
  if (modules.empty()) {
    MEND_LOG("nothing need to be overlay");
    return result;
  }
  std::map<std::string, std::list<MendRepairModule>> groups;
  for (const MendRepairModule& module : modules) {
    groups[module.module_path].push_back(module);
  }
  for (const auto& [path, group] : groups) {
    const bool mounted = overlayGroup(path, group);
    for (MendRepairModule module : group) {
      module.is_overlay_success = mounted;
      result.push_back(module);
    }
  }
  return result;
}

}  // namespace init
}  // namespace android
