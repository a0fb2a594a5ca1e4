#pragma once

// Judges a package's config.txt by the daemon's own reading of it and lists
// what would go wrong on a device: errors (the package never applies, the
// daemon would end while scanning it, or it breaks the device) and warnings
// (the daemon accepts it but it is likely not what was meant; errors too
// when strict).

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace rpktool {

struct ConfigIssue {
  bool is_error;
  std::string message;
};

struct PackageConfig {
  std::map<std::string, std::string> values;  // as the daemon sees them
  std::vector<ConfigIssue> issues;

  bool HasErrors() const;
  std::string Get(const std::string& key) const;
  // The module_path entries, split as the daemon splits them.
  std::vector<std::string> ModulePaths() const;
};

PackageConfig CheckPackageConfig(const std::string& text, bool strict = false);

// Adds an error for every module_path entry that `is_directory` (given the
// entry's path inside the image) denies: the device's overlay of it would
// fail and the device restart.
void CheckModuleDirectories(PackageConfig* config,
                            const std::function<bool(const std::string&)>& is_directory);

}  // namespace rpktool
