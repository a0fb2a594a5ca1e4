#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace android {
namespace init {

// One repair package as read from its config.txt, plus where it lies and the
// task id of its state record.
struct MendRepairPackage {
  std::string update_package_name;
  std::string update_version_name;
  int64_t update_version_code = 0;
  std::string module_num;
  std::string module_name;
  std::string module_path;
  std::string fix_method;
  std::string ro_build_display_id;
  int32_t trigger_rollback_count = 0;
  int32_t structure_version = 0;
  std::string image_path;
  int64_t task_id = 0;
  int32_t is_async_exec = 0;
};

// One directory that a package overlays.
struct MendRepairModule {
  MendRepairPackage parent_package;
  std::string module_path;
  bool is_overlay_success = false;
};

// Repair outcomes as reported to the application.
enum STATUS_REPAIR : int32_t {
  REPAIR_START_SUCCESS = 1,
  REPAIR_BOOT_FAILED_LIMIT = -1,
  REPAIR_OS_VERSION_MISMATCH = -2,
  REPAIR_MOUNT_FAILED = -7,
  REPAIR_OVERLAY_FAILED = -8,
  REPAIR_BUILD_LIST_EMPTY = -9,
};

class MendRepairUtil {
 public:
  // Both feature properties must be exactly "1".
  static bool isMendSupported();
  // Cuts `text` at every ";". The delimiter argument is ignored on purpose:
  // every caller relies on ";".
  static std::vector<std::string> split(const std::string& text, char delimiter);
  // {"status":N}
  static std::string repairStatus2JsonString(STATUS_REPAIR status);
};

// Orders modules by their package's task id; equal ids compare false so that
// a stable sort keeps their arrival order.
bool compareModByTaskId(const MendRepairModule& a, const MendRepairModule& b);

// Parses the key=value text of a config.txt. A number that does not convert
// ends the daemon through the uncaught conversion error.
MendRepairPackage parseRepairConfig(const std::string& text);

// One line of a config text that defines something: key before the first
// "=", the non-empty rest as value, `line` counted from 1.
struct ConfigLine {
  std::string key;
  std::string value;
  int line = 0;
};
// The defining lines of a config text in file order, repeated keys included
// (parseRepairConfig keeps the last of each).
std::vector<ConfigLine> readConfigLines(const std::string& text);

// The keys parseRepairConfig applies, in the order it applies them; numbers
// are converted as base-10 int.
struct ConfigKey {
  const char* name;
  bool is_number;
};
inline constexpr ConfigKey kConfigKeys[] = {
    {"update_package_name", false}, {"update_version_name", false},
    {"update_version_code", true},  {"module_num", false},
    {"module_name", false},         {"module_path", false},
    {"fix_method", false},          {"ro_build_display_id", false},
    {"trigger_rollback_count", true}, {"structure_version", true},
    {"is_async_exec", true},
};

// Whether parseRepairConfig converts `value` of a number key without ending
// the daemon: a leading number (after blanks and a sign) within int range.
bool convertsToConfigNumber(const std::string& value);

// Reading one member out of a package zip, as the scan reads config.txt:
// where it stopped and, for the archive steps, the library's error code.
enum class ZipReadStep { kDone, kOpenFile, kOpenArchive, kFindEntry, kExtract };
struct ZipEntryRead {
  ZipReadStep failed_at = ZipReadStep::kDone;
  int32_t zip_error = 0;
  std::string text;  // the member's bytes when failed_at is kDone
};
ZipEntryRead readZipEntry(const std::string& path, const char* entry_name);

}  // namespace init
}  // namespace android
