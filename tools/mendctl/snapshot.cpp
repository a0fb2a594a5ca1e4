#include "snapshot.h"

#include <android-base/file.h>
#include <cutils/properties.h>
#include <ziparchive/zip_archive.h>

#include <algorithm>
#include <filesystem>

#include "mend_json.h"
#include "mend_paths.h"
#include "mend_state_files.h"

namespace mendctl {
namespace {

using android::init::ConfigLine;
using android::init::MendRepairMessage;
using android::init::MendRepairSp;
using android::init::ZipReadStep;
namespace mend = android::mend;

std::string ConfigReadProblem(const android::init::ZipEntryRead& read) {
  const std::string code = read.zip_error < 0 ? ErrorCodeString(read.zip_error) : "";
  switch (read.failed_at) {
    case ZipReadStep::kDone:
      return read.text.empty() ? "config.txt is empty" : "";
    case ZipReadStep::kOpenFile:
      return "the file cannot be opened";
    case ZipReadStep::kOpenArchive:
      return "not a zip archive (" + code + ")";
    case ZipReadStep::kFindEntry:
      return "no config.txt in the archive";
    case ZipReadStep::kExtract:
      return "config.txt cannot be extracted (" + code + ")";
  }
  return "";
}

// Loads a JSON-lines state file the way the daemon does: a line that is no
// JSON gives a default record, a later line of a name replaces an earlier
// one. A line the daemon would end on is noted and skipped.
template <typename Record, typename Problem, typename Convert>
bool LoadLines(const std::string& device_path, const DeviceRoot& root, Problem problem_of,
               Convert convert, std::map<std::string, Record>* records,
               std::vector<FatalInput>* fatal) {
  int number = 0;
  return android::init::forEachLine(root.At(device_path), [&](const std::string& line) {
    ++number;
    Record record;
    Json::Value json;
    if (android::init::parseJsonLine(line, &json)) {
      if (auto problem = problem_of(json)) {
        fatal->push_back({device_path + ":" + std::to_string(number), *problem});
        return;
      }
      record = convert(json);
    }
    (*records)[record.update_package_name] = record;
  });
}

std::string Property(const char* name, const char* fallback) {
  char value[PROPERTY_VALUE_MAX];
  property_get(name, value, fallback);
  return value;
}

}  // namespace

PackageFile ReadPackageFile(const std::string& device_path, const std::string& file_path,
                            std::vector<FatalInput>* fatal) {
  PackageFile file;
  file.path = device_path;
  const auto read = android::init::readZipEntry(file_path, mend::kConfigEntryName);
  file.config_problem = ConfigReadProblem(read);
  if (!file.config_problem.empty()) return file;

  // Only the last definition of a key counts, as in the daemon's parser.
  std::map<std::string, ConfigLine> last;
  for (const ConfigLine& line : android::init::readConfigLines(read.text)) last[line.key] = line;
  for (const auto& key : android::init::kConfigKeys) {
    auto it = last.find(key.name);
    if (!key.is_number || it == last.end()) continue;
    if (!android::init::convertsToConfigNumber(it->second.value)) {
      file.config_problem =
          std::string(key.name) + "=" + it->second.value + " is not a number the daemon can read";
      fatal->push_back(
          {device_path + " config.txt:" + std::to_string(it->second.line), file.config_problem});
      return file;
    }
  }
  android::init::MendRepairPackage package = android::init::parseRepairConfig(read.text);
  if (package.update_package_name.empty()) {
    file.config_problem = "config.txt names no update_package_name";
    return file;
  }
  package.image_path = device_path;
  file.package = package;
  return file;
}

Snapshot ReadSnapshot(const DeviceRoot& root) {
  Snapshot snapshot;
  std::error_code error;
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(root.At(mend::kPackageDir), error)) {
    names.push_back(entry.path().filename().string());
  }
  snapshot.package_dir_read = !error;
  if (error) {
    snapshot.fatal.push_back(
        {mend::kPackageDir, "the package directory cannot be read: " + error.message()});
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = mend::kPackageDir + name;
    snapshot.packages.push_back(ReadPackageFile(path, root.At(path), &snapshot.fatal));
  }

  snapshot.records_read = LoadLines(mend::kSharedPrefsFile, root, android::init::spJsonProblem,
                                    android::init::spFromJson, &snapshot.records, &snapshot.fatal);
  snapshot.app_messages_read =
      LoadLines(mend::kAppMsgFile, root, android::init::messageJsonProblem,
                android::init::messageFromJson, &snapshot.app_messages, &snapshot.fatal);
  snapshot.native_messages_read =
      LoadLines(mend::kNativeMsgFile, root, android::init::messageJsonProblem,
                android::init::messageFromJson, &snapshot.native_messages, &snapshot.fatal);

  snapshot.build_id = Property(mend::kPropBuildDisplayId, "unknown");
  snapshot.support = Property(mend::kPropSupport, "-1");
  snapshot.persist_support = Property(mend::kPropPersistSupport, "-1");

  std::string mountinfo;
  android::base::ReadFileToString(root.At("/proc/self/mountinfo"), &mountinfo);
  snapshot.mounts = ParseMountInfo(mountinfo);
  snapshot.devices = ReadBlockDevices(root);
  if (root.IsRealRoot()) {
    snapshot.kernel_tables_read = true;
    for (BlockDevice& device : snapshot.devices) {
      if (device.IsDm()) ReadLiveTable(&device);
    }
  }
  return snapshot;
}

}  // namespace mendctl
