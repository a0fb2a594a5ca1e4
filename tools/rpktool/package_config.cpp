#include "package_config.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <set>
#include <sstream>

namespace rpktool {

namespace {

const std::vector<std::string>& KnownKeys() {
  static const std::vector<std::string> kKeys = {
      "update_package_name", "update_version_name",    "update_version_code",
      "module_num",          "module_name",            "module_path",
      "fix_method",          "ro_build_display_id",    "trigger_rollback_count",
      "structure_version",   "is_async_exec"};
  return kKeys;
}

const std::set<std::string>& NumericKeys() {
  static const std::set<std::string> kKeys = {"update_version_code", "trigger_rollback_count",
                                              "structure_version", "is_async_exec"};
  return kKeys;
}

bool IsKnownKey(const std::string& key) {
  for (const auto& known : KnownKeys()) {
    if (key == known) return true;
  }
  return false;
}

std::string Trimmed(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

// The daemon converts with a base-10 string-to-int conversion that throws
// when no number leads the text or it is out of int range.
enum class IntParse { kOk, kTrailingText, kNotANumber, kOutOfRange };
IntParse ParseLeadingInt(const std::string& text, int* value) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  long parsed = strtol(begin, &end, 10);
  if (end == begin) return IntParse::kNotANumber;
  if (errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX) return IntParse::kOutOfRange;
  *value = static_cast<int>(parsed);
  std::string rest(end);
  return rest.empty() || rest == "\r" ? IntParse::kOk : IntParse::kTrailingText;
}

class Checker {
 public:
  explicit Checker(PackageConfig* config) : config_(config) {}

  void Error(const std::string& message) { config_->issues.push_back({true, message}); }
  void Warn(const std::string& message) { config_->issues.push_back({false, message}); }

  void ReadLines(const std::string& text);
  void CheckName();
  void CheckNumbers();
  void CheckModules();
  void CheckBuilds();

 private:
  PackageConfig* config_;
};

void Checker::ReadLines(const std::string& text) {
  if (text.find('\r') != std::string::npos) {
    Warn("config.txt has CR line endings; the daemon keeps the CR as part of every value");
  }
  std::istringstream stream(text);
  std::string line;
  std::set<std::string> seen;
  for (int number = 1; std::getline(stream, line, '\n'); ++number) {
    const std::string where = "line " + std::to_string(number) + ": ";
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
      if (!Trimmed(line).empty()) Warn(where + "no '=', the daemon ignores the line");
      continue;
    }
    const std::string key = line.substr(0, eq);
    const std::string value = line.substr(eq + 1);
    if (!IsKnownKey(key)) {
      if (IsKnownKey(Trimmed(key))) {
        Warn(where + "key '" + key + "' has blanks around it, so the daemon does not recognise it");
      } else {
        Warn(where + "unknown key '" + key + "' (the daemon ignores it)");
      }
    }
    if (value.empty()) {
      Warn(where + "'" + key + "=' has no value; the daemon ignores the line");
      continue;
    }
    if (!seen.insert(key).second) {
      Warn(where + "key '" + key + "' is given again; the last value wins");
    }
    config_->values[key] = value;
  }
}

void Checker::CheckName() {
  const std::string name = config_->Get("update_package_name");
  if (name.empty()) {
    Error("update_package_name is missing; the daemon ignores a package without a name");
    return;
  }
  if (name == "." || name == ".." || name.find('/') != std::string::npos) {
    Error("update_package_name '" + name + "' cannot name the mount point /mnt/rvx/<name>");
  }
  for (char c : name) {
    if (iscntrl(static_cast<unsigned char>(c)) || c == ' ') {
      Error("update_package_name contains blanks or control characters");
      break;
    }
  }
  if (name.size() > 127) {
    Error("update_package_name is longer than 127 characters, too long for a dm device name");
  }
}

void Checker::CheckNumbers() {
  for (const auto& key : NumericKeys()) {
    auto it = config_->values.find(key);
    if (it == config_->values.end()) {
      if (key == "update_version_code") {
        Warn("update_version_code is missing; the daemon uses 0");
      }
      continue;
    }
    int value = 0;
    switch (ParseLeadingInt(it->second, &value)) {
      case IntParse::kNotANumber:
        Error(key + "='" + it->second + "' is not a number; the daemon would end while scanning");
        continue;
      case IntParse::kOutOfRange:
        Error(key + "='" + it->second + "' is out of int range; the daemon would end while scanning");
        continue;
      case IntParse::kTrailingText:
        Warn(key + "='" + it->second + "' has trailing text; the daemon reads " +
             std::to_string(value));
        break;
      case IntParse::kOk:
        break;
    }
    if (key == "trigger_rollback_count" && value < 0) {
      Error("trigger_rollback_count is negative; the daemon refuses the package on every boot");
    }
    if (key == "is_async_exec" && value != 0 && value != 1) {
      Warn("is_async_exec=" + std::to_string(value) +
           " is neither 0 nor 1; the daemon treats it as 0 (synchronous run)");
    }
  }
}

void Checker::CheckModules() {
  const std::string paths = config_->Get("module_path");
  const std::vector<std::string> modules = SplitConfigList(paths);
  if (modules.empty()) {
    Error("module_path is missing; the package would overlay nothing and be reported as failed");
    return;
  }
  for (const auto& module : modules) {
    if (module.empty()) {
      Error("module_path '" + paths + "' has an empty entry; an empty module path ends the daemon");
    } else if (module[0] != '/') {
      Warn("module_path entry '" + module + "' is not an absolute path");
    }
  }
  const std::string count = config_->Get("module_num");
  if (!count.empty() && count != std::to_string(modules.size())) {
    Warn("module_num=" + count + " but module_path names " + std::to_string(modules.size()) +
         " module(s)");
  }
}

void Checker::CheckBuilds() {
  const std::vector<std::string> builds = SplitConfigList(config_->Get("ro_build_display_id"));
  if (builds.empty()) {
    Error("ro_build_display_id is missing; the daemon refuses the package on every build");
    return;
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

std::vector<std::string> SplitConfigList(const std::string& text) {
  std::vector<std::string> fields;
  std::istringstream stream(text);
  std::string field;
  while (std::getline(stream, field, ';')) fields.push_back(field);
  return fields;
}

PackageConfig ParsePackageConfig(const std::string& text) {
  PackageConfig config;
  Checker checker(&config);
  if (Trimmed(text).empty()) {
    checker.Error("config.txt is empty; the daemon ignores the package");
    return config;
  }
  checker.ReadLines(text);
  checker.CheckName();
  checker.CheckNumbers();
  checker.CheckModules();
  checker.CheckBuilds();
  return config;
}

}  // namespace rpktool
