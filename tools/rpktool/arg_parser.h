#pragma once

// Command-line options of one verb: "--name VALUE", "--name=VALUE", flags,
// positional arguments and a generated --help text.

#include <android-base/result.h>

#include <string>
#include <vector>

namespace rpktool {

class ArgParser {
 public:
  ArgParser(std::string usage, std::string description);

  void AddOption(const std::string& name, const std::string& metavar, const std::string& help,
                 std::string* value, bool required = false);
  void AddFlag(const std::string& name, const std::string& help, bool* value);
  void SetPositionals(const std::string& metavar, const std::string& help, size_t min, size_t max,
                      std::vector<std::string>* values);

  // Fills the targets. Returns false after printing the help text for
  // --help; fails with a message on bad arguments.
  android::base::Result<bool> Parse(const std::vector<std::string>& args);
  std::string Help() const;

 private:
  struct Option {
    std::string name;
    std::string metavar;  // empty for flags
    std::string help;
    std::string* value;
    bool* flag;
    bool required;
    bool seen;
  };

  Option* Find(const std::string& name);

  std::string usage_;
  std::string description_;
  std::vector<Option> options_;
  std::string positional_metavar_;
  std::string positional_help_;
  size_t positional_min_ = 0;
  size_t positional_max_ = 0;
  std::vector<std::string>* positionals_ = nullptr;
};

}  // namespace rpktool
