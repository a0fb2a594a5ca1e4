#include "mend_shared_prefs.h"

#include <fstream>

#include "mend_json.h"
#include "mend_log.h"
#include "mend_rules.h"
#include "mend_state_files.h"

namespace android {
namespace init {
namespace {

// Mirror of shared_prefs.cfg, keyed by package name. Only ever touched by one
// thread at a time (the scan thread, while the main thread waits for it).
std::map<std::string, MendRepairSp> spMap;

// The record that the update operations change: the first, in map order,
// with the package's name and version code.
MendRepairSp* findMatchingRecord(const MendRepairPackage& package) {
  for (auto& [name, record] : spMap) {
    if (isRecordOf(record, package)) {
      return &record;
    }
  }
  return nullptr;
}

// Applies `change` to a copy of the matching record, stores the copy back and
// saves. False, and nothing written, when no record matches.
template <typename Change>
bool updateMatchingRecord(const MendRepairPackage& package, Change change) {
  if (spMap.empty()) return false;
  MendRepairSp* found = findMatchingRecord(package);
  if (found == nullptr) return false;
  MendRepairSp record = *found;
  change(record);
  spMap[package.update_package_name] = record;
  MendSharedPrefsManager::GetInstance()->saveSpFile();
  return true;
}

}  // namespace

Json::Value spToJson(const MendRepairSp& record) {
  Json::Value root;
  root["update_package_name"] = record.update_package_name;
  root["update_version_code"] = Json::Int64(record.update_version_code);
  root["image_path"] = record.image_path;
  root["is_repair_success"] = record.is_repair_success;
  root["is_boot_success"] = record.is_boot_success;
  root["boot_failed_count"] = record.boot_failed_count;
  root["need_cancel"] = record.need_cancel;
  root["task_id"] = Json::Int64(record.task_id);
  root["need_delete"] = record.need_delete;
  root["first_report"] = record.first_report;
  root["reboot_type"] = record.reboot_type;
  root["cancel_task_id"] = Json::Int64(record.cancel_task_id);
  root["is_async_repair"] = record.is_async_repair;
  return root;
}

// The members as the store reads them; the 64-bit members are converted as
// 32-bit ints.
using SpMember = JsonMember<MendRepairSp>;
const SpMember kSpMembers[] = {
    {"update_package_name", Json::stringValue,
     [](const Json::Value& v, MendRepairSp* r) { r->update_package_name = v.asString(); }},
    {"update_version_code", Json::intValue,
     [](const Json::Value& v, MendRepairSp* r) { r->update_version_code = v.asInt(); }},
    {"is_repair_success", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->is_repair_success = v.asBool(); }},
    {"boot_failed_count", Json::intValue,
     [](const Json::Value& v, MendRepairSp* r) { r->boot_failed_count = v.asInt(); }},
    {"is_boot_success", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->is_boot_success = v.asBool(); }},
    {"need_cancel", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->need_cancel = v.asBool(); }},
    {"task_id", Json::intValue,
     [](const Json::Value& v, MendRepairSp* r) { r->task_id = v.asInt(); }},
    {"need_delete", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->need_delete = v.asBool(); }},
    {"first_report", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->first_report = v.asBool(); }},
    {"image_path", Json::stringValue,
     [](const Json::Value& v, MendRepairSp* r) { r->image_path = v.asString(); }},
    {"reboot_type", Json::intValue,
     [](const Json::Value& v, MendRepairSp* r) { r->reboot_type = v.asInt(); }},
    {"cancel_task_id", Json::intValue,
     [](const Json::Value& v, MendRepairSp* r) { r->cancel_task_id = v.asInt(); }},
    {"is_async_repair", Json::booleanValue,
     [](const Json::Value& v, MendRepairSp* r) { r->is_async_repair = v.asBool(); }},
};

MendRepairSp spFromJson(const Json::Value& root) { return recordFromJson(root, kSpMembers); }

std::optional<std::string> spJsonProblem(const Json::Value& root) {
  return recordJsonProblem(root, kSpMembers);
}

MendSharedPrefsManager* MendSharedPrefsManager::GetInstance() {
  static MendSharedPrefsManager instance;
  return &instance;
}

void MendSharedPrefsManager::syncSpList() {
  bool opened = forEachLine(android::mend::kSharedPrefsFile, [](const std::string& line) {
    MendRepairSp record;
    Json::Value root;
    if (parseJsonLine(line, &root)) record = spFromJson(root);
    MEND_LOG("syncSpList=======%s", line.c_str());
    // A line that is not JSON lands here too, as a default record under "".
    spMap[record.update_package_name] = record;
  });
  if (!opened) MEND_LOG("Unable to open spfile");
}

std::map<std::string, MendRepairSp> MendSharedPrefsManager::getSpList() { return spMap; }

MendRepairSp MendSharedPrefsManager::readSp(MendRepairPackage package) {
  // Matched by name alone, unlike the update operations.
  auto it = spMap.find(package.update_package_name);
  return it == spMap.end() ? MendRepairSp() : it->second;
}

bool MendSharedPrefsManager::updateCanDelete(MendRepairPackage package, bool canDelete) {
  MEND_LOG("updateCanDelete : %b ", canDelete);
  return updateMatchingRecord(package, [&](MendRepairSp& record) { record.need_delete = canDelete; });
}

bool MendSharedPrefsManager::updateRepairStatus(MendRepairPackage package, bool success) {
  MEND_LOG("updateRepairStatus : %b ", success);
  return updateMatchingRecord(package,
                              [&](MendRepairSp& record) { record.is_repair_success = success; });
}

bool MendSharedPrefsManager::updateBootFailedCount(MendRepairPackage package) {
  MEND_LOG("updateBootFailedCount");
  return updateMatchingRecord(package, [&](MendRepairSp& record) {
    const int32_t old_count = record.boot_failed_count;
    record.boot_failed_count = countedBootFailures(record);
    MEND_LOG("updateBootFailedCount ======%s============%d==================%d",
             package.update_package_name.c_str(), record.boot_failed_count, old_count);
  });
}

int MendSharedPrefsManager::refreshAllBootStatus(bool bootSuccess) {
  MEND_LOG("refreshAllBootStatus : %b ,spMap.size() = %d", bootSuccess,
           static_cast<int>(spMap.size()));
  if (spMap.empty()) return 0;
  for (auto& [name, record] : spMap) {
    if (!record.is_repair_success) continue;
    record.is_boot_success = bootSuccess;
    if (bootSuccess) record.boot_failed_count = 0;
  }
  saveSpFile();
  return 0;
}

void MendSharedPrefsManager::saveSpFile() {
  MEND_LOG("saveSpFile");
  // An empty map never truncates the file the application wrote.
  if (spMap.empty()) return;
  std::ofstream out(android::mend::kSharedPrefsFile, std::ios::out | std::ios::trunc);
  for (const auto& [name, record] : spMap) {
    const std::string text = toCompactJson(spToJson(record));
    MEND_LOG("saveSpFile == %s", text.c_str());
    out << text << "\n";
  }
}

}  // namespace init
}  // namespace android
