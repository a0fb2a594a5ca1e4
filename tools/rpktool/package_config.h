#pragma once

// Reads a package's config.txt the way the daemon does and lists what would
// go wrong on the device: errors (the package can never be applied, or the
// daemon would end while scanning it) and warnings (likely mistakes).

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
};

PackageConfig ParsePackageConfig(const std::string& text);

// Splits at ';' as the daemon does: empty inner fields are kept, a
// trailing ';' adds nothing.
std::vector<std::string> SplitConfigList(const std::string& text);

}  // namespace rpktool
