#include <filesystem>
#include <optional>

#include "mend.h"
#include "mend_log.h"
#include "mend_message.h"
#include "mend_paths.h"
#include "mend_rules.h"
#include "mend_shared_prefs.h"

namespace android {
namespace init {

std::map<std::string, MendRepairPackage> mendRepairList;
std::map<std::string, std::string> otaPkgMap;

namespace {

using android::mend::kConfigEntryName;
using android::mend::kPackageDir;

// The config.txt text of the package zip at `path`, or "" when the file
// cannot be read as a package.
std::string readFileFromZip(const std::string& path, const char* entryName) {
  MEND_LOG("readFileFromZip : %s , %s", path.c_str(), entryName);
  const ZipEntryRead read = readZipEntry(path, entryName);
  switch (read.failed_at) {
    case ZipReadStep::kDone:
      break;
    case ZipReadStep::kOpenFile:
      MEND_LOG("Failed to open fd %s ", path.c_str());
      break;
    case ZipReadStep::kOpenArchive:
      MEND_LOG("Failed to open OpenArchiveFd %s", path.c_str());
      break;
    case ZipReadStep::kFindEntry:
      MEND_LOG("not found config file %s ", entryName);
      break;
    case ZipReadStep::kExtract:
      MEND_LOG("Failed to extract config file from package");
      break;
  }
  return read.text;
}

std::string parseRepairImage(const std::string& path) {
  MEND_LOG("parseRepairImage : %s", path.c_str());
  return readFileFromZip(path, kConfigEntryName);
}

// Phase 1: every directory entry is tried as a package. The iterator has no
// error sink, so a missing package directory ends the daemon.
void readPackageConfigs() {
  for (const auto& entry : std::filesystem::directory_iterator(kPackageDir)) {
    const std::string path = entry.path().string();
    MEND_LOG("current is %s", path.c_str());
    std::string config = parseRepairImage(path);
    if (config.empty()) continue;
    otaPkgMap[path] = config;
  }
}

// Phase 2: configs become packages; cancelled ones and ones without a state
// record are left out of the repair list.
void buildRepairList() {
  const std::map<std::string, MendRepairSp> spMap =
      MendSharedPrefsManager::GetInstance()->getSpList();
  MEND_LOG("execThreadRun-spMap.size = %ld , otaPkgMap.size = %ld",
           static_cast<long>(spMap.size()), static_cast<long>(otaPkgMap.size()));
  if (otaPkgMap.empty()) return;

  for (const auto& [path, config] : otaPkgMap) {
    MEND_LOG("parser,%s", config.c_str());
    MendRepairPackage package;
    if (config.empty()) {
      MEND_LOG("config content is empty");
    } else {
      package = parseRepairConfig(config);
    }
    if (package.update_package_name.empty()) continue;
    package.image_path = path;

    MEND_LOG("%s notAllowForRepair", package.update_package_name.c_str());
    if (isCancelRequested(MendSharedPrefsManager::GetInstance()->getSpList(), package)) {
      MEND_LOG("%s need cancel", package.update_package_name.c_str());
      MendSharedPrefsManager::GetInstance()->updateCanDelete(package, true);
      continue;
    }

    const std::optional<int64_t> task_id = recordTaskId(spMap, package);
    if (task_id) {
      package.task_id = *task_id;
      mendRepairList[package.image_path] = package;
    } else {
      MEND_LOG("%s not fount in sp", package.update_package_name.c_str());
    }
  }
}

}  // namespace

void* execThreadRun(void* /*arg*/) {
  MEND_LOG("start run thread");
  MendMessageManager::GetInstance()->syncMsgList();
  MendSharedPrefsManager::GetInstance()->syncSpList();
  readPackageConfigs();
  buildRepairList();
  return nullptr;
}

}  // namespace init
}  // namespace android
