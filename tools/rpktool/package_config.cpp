#include "package_config.h"

#include <cstdlib>
#include <set>
#include <sstream>

#include "mend_package.h"
#include "mend_paths.h"
#include "report.h"

namespace rpktool {

namespace {

using android::init::ConfigLine;

// Longest dm device name (the kernel's name field holds 128 bytes).
constexpr size_t kMaxPackageNameLength = 127;

const android::init::ConfigKey* FindKey(const std::string& name) {
  for (const auto& key : android::init::kConfigKeys) {
    if (name == key.name) return &key;
  }
  return nullptr;
}

class Checker {
 public:
  Checker(PackageConfig* config, bool strict) : config_(config), strict_(strict) {}

  void Error(const std::string& message) { config_->issues.push_back({true, message}); }
  void Warn(const std::string& message) { config_->issues.push_back({strict_, message}); }

  void CheckBytes(const std::string& text);
  void ReadLines(const std::string& text);
  void CheckName();
  void CheckNumbers();
  void CheckModules();
  void CheckBuilds();

 private:
  PackageConfig* config_;
  bool strict_;
};

// Every byte is text: no NUL, no other control character than the line
// feed, valid UTF-8. Reports the first that is not.
void Checker::CheckBytes(const std::string& text) {
  int line = 1;
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const std::string where = "line " + std::to_string(line) + ": ";
    if (c == '\n') ++line;
    if ((c < 0x20 && c != '\n') || c == 0x7f) {
      char code[8];
      snprintf(code, sizeof(code), "0x%02x", c);
      Error(where + "control character " + code +
            (c == '\r' ? " (CR line endings?); the daemon keeps it as part of the value"
                       : "; the daemon keeps it as part of the value"));
      return;
    }
    const size_t length = Utf8Length(text, i);
    if (length == 0) {
      Error(where + "bytes that are not UTF-8");
      return;
    }
    i += length;
  }
}

void Checker::ReadLines(const std::string& text) {
  std::set<int> defining;
  for (const ConfigLine& line : android::init::readConfigLines(text)) {
    defining.insert(line.line);
    const std::string where = "line " + std::to_string(line.line) + ": ";
    if (!FindKey(line.key)) {
      std::istringstream words(line.key);
      std::string word;
      words >> word;
      Warn(where + "key '" + line.key + "' " +
           (FindKey(word) ? "has blanks around it, so the daemon does not recognise it"
                          : "is unknown; the daemon ignores it"));
    }
    if (!config_->values.emplace(line.key, line.value).second) {
      Error(where + "key '" + line.key + "' is given again; the daemon would use this value");
      config_->values[line.key] = line.value;
    }
  }
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!line.empty() && defining.count(number) == 0) {
      Warn("line " + std::to_string(number) + ": '" + line +
           "' has no '=' or no value, so it defines nothing");
    }
  }
}

void Checker::CheckName() {
  const std::string name = config_->Get("update_package_name");
  if (name.empty()) {
    Error("update_package_name is missing; the daemon ignores a package without a name");
  } else if (name == "." || name == ".." || name.find('/') != std::string::npos ||
             name.find(' ') != std::string::npos) {
    Error("update_package_name '" + name + "' cannot name the mount point /mnt/rvx/<name>");
  } else if (name.size() > kMaxPackageNameLength) {
    Error("update_package_name is longer than 127 bytes, too long for a dm device name");
  } else if (name == android::mend::kTrialDeviceName) {
    Error(
        "update_package_name 'tmp' is the daemon's trial device name; every later package on "
        "the device would fail");
  }
}

void Checker::CheckNumbers() {
  if (config_->values.count("update_version_code") == 0) {
    Warn("update_version_code is missing; the daemon uses 0");
  }
  for (const auto& key : android::init::kConfigKeys) {
    const auto it = config_->values.find(key.name);
    if (!key.is_number || it == config_->values.end()) continue;
    const std::string& text = it->second;
    if (!android::init::convertsToConfigNumber(text)) {
      Error(std::string(key.name) + "='" + text +
            "' is not a number in int range; the daemon would end while scanning");
      continue;
    }
    char* end = nullptr;
    const long value = strtol(text.c_str(), &end, 10);
    if (*end != '\0') {
      Warn(std::string(key.name) + "='" + text + "' has trailing text; the daemon reads " +
           std::to_string(value));
    }
    if (it->first == "trigger_rollback_count" && value < 0) {
      Warn("trigger_rollback_count is negative; the daemon refuses the package on every boot");
    }
    if (it->first == "is_async_exec" && value != 0 && value != 1) {
      Warn("is_async_exec=" + std::to_string(value) +
           " is neither 0 nor 1; the daemon treats it as 0 (synchronous run)");
    }
  }
}

void Checker::CheckModules() {
  const std::vector<std::string> modules = config_->ModulePaths();
  if (modules.empty()) {
    Error("module_path is missing; the package would overlay nothing and be reported as failed");
    return;
  }
  for (const auto& module : modules) {
    if (module.empty()) {
      Error("module_path has an empty entry; an empty module path ends the daemon");
    } else if (module[0] != '/' || ("/" + module + "/").find("/../") != std::string::npos ||
               ("/" + module + "/").find("/./") != std::string::npos) {
      Error("module_path entry '" + module + "' is not an absolute path without '.' or '..'");
    }
  }
  const std::string count = config_->Get("module_num");
  if (!count.empty() && count != std::to_string(modules.size())) {
    Warn("module_num=" + count + " but module_path names " + std::to_string(modules.size()) +
         " module(s)");
  }
}

void Checker::CheckBuilds() {
  const std::vector<std::string> builds =
      android::init::MendRepairUtil::split(config_->Get("ro_build_display_id"), ';');
  if (builds.empty()) {
    Warn("ro_build_display_id is missing; the daemon refuses the package on every build");
  }
  for (const auto& build : builds) {
    if (build.empty()) Warn("ro_build_display_id has an empty entry, which matches no build");
  }
}

}  // namespace

bool PackageConfig::HasErrors() const {
  for (const auto& issue : issues) {
    if (issue.is_error) return true;
  }
  return false;
}

std::string PackageConfig::Get(const std::string& key) const {
  auto it = values.find(key);
  return it == values.end() ? std::string() : it->second;
}

std::vector<std::string> PackageConfig::ModulePaths() const {
  return android::init::MendRepairUtil::split(Get("module_path"), ';');
}

PackageConfig CheckPackageConfig(const std::string& text, bool strict) {
  PackageConfig config;
  Checker checker(&config, strict);
  checker.CheckBytes(text);
  checker.ReadLines(text);
  if (config.values.empty()) {
    checker.Error("config.txt defines nothing; the daemon ignores the package");
    return config;
  }
  checker.CheckName();
  checker.CheckNumbers();
  checker.CheckModules();
  checker.CheckBuilds();
  return config;
}

void CheckModuleDirectories(PackageConfig* config,
                            const std::function<bool(const std::string&)>& is_directory) {
  for (const auto& module : config->ModulePaths()) {
    if (!module.empty() && module[0] == '/' && !is_directory(module)) {
      config->issues.push_back(
          {true, "module_path entry '" + module +
                     "' is not a directory in the image; its overlay would fail and the "
                     "device restart"});
    }
  }
}

}  // namespace rpktool
