#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <ziparchive/zip_archive.h>

#include <filesystem>
#include <vector>

#include "mend.h"
#include "mend_log.h"
#include "mend_message.h"
#include "mend_paths.h"
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
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() == -1) {
    MEND_LOG("Failed to open fd %s ", path.c_str());
    return "";
  }
  std::string text;
  ZipArchiveHandle handle = nullptr;
  if (OpenArchiveFd(fd.get(), path.c_str(), &handle, false) < 0) {
    MEND_LOG("Failed to open OpenArchiveFd %s", path.c_str());
  } else {
    ZipEntry entry;
    if (FindEntry(handle, entryName, &entry) < 0) {
      MEND_LOG("not found config file %s ", entryName);
    } else {
      std::vector<uint8_t> buffer(entry.uncompressed_length);
      if (ExtractToMemory(handle, &entry, buffer.data(), entry.uncompressed_length) != 0) {
        MEND_LOG("Failed to extract config file from package");
      } else {
        text.assign(buffer.begin(), buffer.end());
      }
    }
  }
  // The handle is closed even when opening failed; the descriptor stays ours
  // and unique_fd closes it with errno kept.
  CloseArchive(handle);
  return text;
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

bool isCancelled(const MendRepairPackage& package) {
  for (const auto& [name, record] : MendSharedPrefsManager::GetInstance()->getSpList()) {
    if (record.need_cancel && isRecordOf(record, package)) {
      return true;
    }
  }
  return false;
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
    if (isCancelled(package)) {
      MEND_LOG("%s need cancel", package.update_package_name.c_str());
      MendSharedPrefsManager::GetInstance()->updateCanDelete(package, true);
      continue;
    }

    bool found = false;
    for (const auto& [name, record] : spMap) {
      if (isRecordOf(record, package)) {
        package.task_id = record.task_id;
        found = true;
      }
    }
    if (found) {
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
