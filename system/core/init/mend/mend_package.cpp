#include "mend_package.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <ziparchive/zip_archive.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <sstream>

#include "mend_json.h"

namespace android {
namespace init {

std::vector<std::string> MendRepairUtil::split(const std::string& text, char /*delimiter*/) {
  std::vector<std::string> fields;
  std::istringstream stream(text);
  std::string field;
  while (std::getline(stream, field, ';')) {
    fields.push_back(field);
  }
  return fields;
}

std::string MendRepairUtil::repairStatus2JsonString(STATUS_REPAIR status) {
  Json::Value root;
  root["status"] = static_cast<int>(status);
  return toCompactJson(root);
}

bool compareModByTaskId(const MendRepairModule& a, const MendRepairModule& b) {
  return a.parent_package.task_id < b.parent_package.task_id;
}

std::vector<ConfigLine> readConfigLines(const std::string& text) {
  std::vector<ConfigLine> lines;
  std::istringstream stream(text);
  std::string line;
  int number = 0;
  // Lines without "=" or with nothing after it define nothing.
  while (std::getline(stream, line, '\n')) {
    ++number;
    size_t eq = line.find('=');
    if (eq == std::string::npos || eq + 1 == line.size()) continue;
    lines.push_back(ConfigLine{line.substr(0, eq), line.substr(eq + 1), number});
  }
  return lines;
}

bool convertsToConfigNumber(const std::string& value) {
  // std::stoi's rules: strtol, then a range check against int.
  const char* begin = value.c_str();
  char* end = nullptr;
  errno = 0;
  const long number = strtol(begin, &end, 10);
  return end != begin && errno != ERANGE && number >= INT_MIN && number <= INT_MAX;
}

MendRepairPackage parseRepairConfig(const std::string& text) {
  // A later line of the same key overrides an earlier one.
  std::map<std::string, std::string> pairs;
  for (const ConfigLine& line : readConfigLines(text)) pairs[line.key] = line.value;
  auto text_of = [&pairs](const char* key, std::string* out) {
    auto it = pairs.find(key);
    if (it != pairs.end()) *out = it->second;
  };
  // std::stoi raises on a value without a leading number; nothing catches it.
  auto int_of = [&pairs](const char* key, auto* out) {
    auto it = pairs.find(key);
    if (it != pairs.end()) *out = std::stoi(it->second, nullptr, 10);
  };

  MendRepairPackage package;
  text_of("update_package_name", &package.update_package_name);
  text_of("update_version_name", &package.update_version_name);
  int_of("update_version_code", &package.update_version_code);
  text_of("module_num", &package.module_num);
  text_of("module_name", &package.module_name);
  text_of("module_path", &package.module_path);
  text_of("fix_method", &package.fix_method);
  text_of("ro_build_display_id", &package.ro_build_display_id);
  int_of("trigger_rollback_count", &package.trigger_rollback_count);
  int_of("structure_version", &package.structure_version);
  int_of("is_async_exec", &package.is_async_exec);
  return package;
}

ZipEntryRead readZipEntry(const std::string& path, const char* entry_name) {
  ZipEntryRead read;
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() == -1) {
    read.failed_at = ZipReadStep::kOpenFile;
    return read;
  }
  ZipArchiveHandle handle = nullptr;
  ZipEntry entry;
  if ((read.zip_error = OpenArchiveFd(fd.get(), path.c_str(), &handle, false)) < 0) {
    read.failed_at = ZipReadStep::kOpenArchive;
  } else if ((read.zip_error = FindEntry(handle, entry_name, &entry)) < 0) {
    read.failed_at = ZipReadStep::kFindEntry;
  } else {
    std::vector<uint8_t> buffer(entry.uncompressed_length);
    read.zip_error = ExtractToMemory(handle, &entry, buffer.data(), entry.uncompressed_length);
    if (read.zip_error != 0) {
      read.failed_at = ZipReadStep::kExtract;
    } else {
      read.text.assign(buffer.begin(), buffer.end());
    }
  }
  // The handle is closed even when opening failed; the descriptor stays ours
  // and unique_fd closes it with errno kept.
  CloseArchive(handle);
  return read;
}

}  // namespace init
}  // namespace android
