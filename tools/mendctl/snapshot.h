#pragma once

// Everything the daemon and the kernel left behind, read once: the packages
// and their configs, the state records, the two message files, the
// properties, the mounts and the dm and loop devices. Read as the daemon
// reads it; where the daemon would end on an input, the input is noted and
// left out instead.

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device_root.h"
#include "kernel_state.h"
#include "mend_message.h"
#include "mend_package.h"
#include "mend_shared_prefs.h"

namespace mendctl {

// An input on which a run of the daemon ends before it mounts anything.
struct FatalInput {
  std::string where;  // file, and ":line" for a line of it
  std::string what;
};

struct PackageFile {
  std::string path;  // on the device, under the package directory
  std::optional<android::init::MendRepairPackage> package;  // its usable config
  std::string config_problem;                               // why it has none
};

struct Snapshot {
  bool package_dir_read = false;
  std::vector<PackageFile> packages;  // in path order, as the scan takes them
  bool records_read = false;
  std::map<std::string, android::init::MendRepairSp> records;
  bool app_messages_read = false;
  std::map<std::string, android::init::MendRepairMessage> app_messages;
  bool native_messages_read = false;
  std::map<std::string, android::init::MendRepairMessage> native_messages;

  std::string build_id = "unknown";
  std::string support = "-1";
  std::string persist_support = "-1";

  std::vector<Mount> mounts;
  std::vector<BlockDevice> devices;
  bool kernel_tables_read = false;  // devices carry their live tables

  std::vector<FatalInput> fatal;

  bool NothingRead() const {
    return !package_dir_read && !records_read && !app_messages_read && !native_messages_read;
  }
};

// The usable config of a package file, or why there is none; a number the
// daemon cannot convert is also noted in `fatal`.
PackageFile ReadPackageFile(const std::string& device_path, const std::string& file_path,
                            std::vector<FatalInput>* fatal);

Snapshot ReadSnapshot(const DeviceRoot& root);

}  // namespace mendctl
