#include "arg_parser.h"

#include <cstdio>
#include <sstream>

namespace rpktool {

using android::base::Error;
using android::base::Result;

ArgParser::ArgParser(std::string usage, std::string description)
    : usage_(std::move(usage)), description_(std::move(description)) {}

void ArgParser::AddOption(const std::string& name, const std::string& metavar,
                          const std::string& help, std::string* value, bool required) {
  options_.push_back({name, metavar, help, value, nullptr, required, false});
}

void ArgParser::AddFlag(const std::string& name, const std::string& help, bool* value) {
  options_.push_back({name, "", help, nullptr, value, false, false});
}

void ArgParser::SetPositionals(const std::string& metavar, const std::string& help, size_t min,
                               size_t max, std::vector<std::string>* values) {
  positional_metavar_ = metavar;
  positional_help_ = help;
  positional_min_ = min;
  positional_max_ = max;
  positionals_ = values;
}

ArgParser::Option* ArgParser::Find(const std::string& name) {
  for (auto& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

Result<bool> ArgParser::Parse(const std::vector<std::string>& args) {
  bool only_positionals = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (only_positionals || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      if (!positionals_ || positionals_->size() >= positional_max_) {
        return Error() << "unexpected argument '" << arg << "'";
      }
      positionals_->push_back(arg);
      continue;
    }
    if (arg == "--") {
      only_positionals = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      fputs(Help().c_str(), stdout);
      return false;
    }
    const size_t eq = arg.find('=');
    const std::string name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    Option* option = Find(name);
    if (!option) return Error() << "unknown option --" << name;
    if (option->seen) return Error() << "--" << name << " is given twice";
    option->seen = true;
    if (option->flag) {
      if (eq != std::string::npos) return Error() << "--" << name << " takes no value";
      *option->flag = true;
      continue;
    }
    if (eq != std::string::npos) {
      *option->value = arg.substr(eq + 1);
    } else if (i + 1 < args.size()) {
      *option->value = args[++i];
    } else {
      return Error() << "--" << name << " needs a value (" << option->metavar << ")";
    }
  }
  for (const auto& option : options_) {
    if (option.required && !option.seen) return Error() << "--" << option.name << " is required";
  }
  const size_t given = positionals_ ? positionals_->size() : 0;
  if (given < positional_min_) return Error() << positional_metavar_ << " is required";
  return true;
}

std::string ArgParser::Help() const {
  std::ostringstream out;
  out << "usage: " << usage_ << "\n\n" << description_ << "\n";
  if (positionals_ || !options_.empty()) out << "\n";
  if (positionals_) {
    out << "  " << positional_metavar_ << "\n      " << positional_help_ << "\n";
  }
  for (const auto& option : options_) {
    out << "  --" << option.name;
    if (!option.metavar.empty()) out << " " << option.metavar;
    out << "\n      " << option.help << "\n";
  }
  out << "  --help\n      Show this text.\n";
  return out.str();
}

}  // namespace rpktool
