#pragma once

#include <json/json.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "mend_package.h"

namespace android {
namespace init {

// Persisted state of one package, one JSON line of shared_prefs.cfg. The
// application creates the records; the daemon only loads and updates them.
struct MendRepairSp {
  std::string update_package_name;
  int64_t update_version_code = 0;
  std::string image_path;
  bool is_repair_success = false;
  bool is_boot_success = false;
  int32_t boot_failed_count = 0;
  bool need_cancel = false;
  int64_t task_id = 0;
  bool need_delete = false;
  bool first_report = false;
  int32_t reboot_type = 0;
  int64_t cancel_task_id = 0;
  bool is_async_repair = false;
};

// Whether `record` is the state of `package`: same name and same version code.
inline bool isRecordOf(const MendRepairSp& record, const MendRepairPackage& package) {
  return record.update_package_name == package.update_package_name &&
         record.update_version_code == package.update_version_code;
}

// Record <-> JSON object. Reading converts the 64-bit members as 32-bit
// ints; a member of the wrong type ends the daemon through the library error.
Json::Value spToJson(const MendRepairSp& record);
MendRepairSp spFromJson(const Json::Value& root);
// Why spFromJson would end the process on `root`, or nullopt when it reads.
std::optional<std::string> spJsonProblem(const Json::Value& root);

// The state store: one record per package name, mirrored whole to
// /data/rvx/files/shared_prefs.cfg after every change.
class MendSharedPrefsManager {
 public:
  static MendSharedPrefsManager* GetInstance();

  void syncSpList();
  std::map<std::string, MendRepairSp> getSpList();
  MendRepairSp readSp(MendRepairPackage package);
  bool updateCanDelete(MendRepairPackage package, bool canDelete);
  bool updateRepairStatus(MendRepairPackage package, bool success);
  bool updateBootFailedCount(MendRepairPackage package);
  int refreshAllBootStatus(bool bootSuccess);
  void saveSpFile();

 private:
  MendSharedPrefsManager() = default;
};

}  // namespace init
}  // namespace android
