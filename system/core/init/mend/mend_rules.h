#pragma once

// The decisions a run takes about a package, without their reports and state
// writes: the daemon acts on them, and the status tool predicts and explains
// runs with the same functions.

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mend_package.h"
#include "mend_shared_prefs.h"

namespace android {
namespace init {

// Whether the two support properties switch the daemon on: both exactly "1".
bool isSupportSwitchOn(const std::string& product, const std::string& persist);

// Whether the asynchronous run (and only it) takes the package.
bool isAsyncPackage(const MendRepairPackage& package);

// Whether the application asked to cancel exactly this name and version.
bool isCancelRequested(const std::map<std::string, MendRepairSp>& records,
                       const MendRepairPackage& package);

// The task id of the package's state record (same name and version; the last
// in map order), or nullopt when it has none and is left out of the run.
std::optional<int64_t> recordTaskId(const std::map<std::string, MendRepairSp>& records,
                                    const MendRepairPackage& package);

// The failed-boot count a run stores for a record when it takes its package:
// a boot that was never confirmed counts as failed.
int32_t countedBootFailures(const MendRepairSp& record);

// Why the mount step refuses a package, checked in this order.
enum class MountRefusal { kNone, kBootFailedLimit, kBuildListEmpty, kBuildMismatch };
MountRefusal mountRefusal(const MendRepairPackage& package, int32_t boot_failed_count,
                          const std::string& current_build);

// The directory of a module inside its mounted package.
std::string lowerDirOf(const MendRepairModule& module);
// The lower directories of one overlay, top first: the group's modules by
// task id (ties keep their order); the directory itself is not included.
std::vector<std::string> overlayLowerDirs(const std::list<MendRepairModule>& group);

}  // namespace init
}  // namespace android
