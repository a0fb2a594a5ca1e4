#pragma once

// The verbs of rpktool, as one table: each verb's options, help and the
// function that runs it. The command-line parser, --help, the manual's
// synopsis and the shell completion all come from this table.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "parse.h"
#include "report.h"

namespace rpktool {

// What the command line gave a verb.
struct Arguments {
  std::map<std::string, std::string> values;  // options with a value
  std::set<std::string> flags;
  std::vector<std::string> positionals;

  std::string Get(const std::string& name) const;  // "" when not given
  bool Has(const std::string& name) const { return values.count(name) != 0; }
  bool Flag(const std::string& name) const { return flags.count(name) != 0; }
};

// What the shell completes after an option or for a positional argument.
enum class Completion { kNone, kFile, kDirectory, kChoices };

struct Option {
  const char* name;     // without "--"
  const char* metavar;  // nullptr for a flag
  const char* help;
  bool required = false;
  Completion completion = Completion::kNone;
  const char* choices = "";  // blank-separated, for kChoices
};

struct Verb {
  const char* name;
  const char* summary;
  const char* usage;  // after "rpktool "
  const char* description;
  std::vector<Option> options;
  const char* positional = nullptr;  // metavar of the one positional argument
  const char* positional_help = "";
  void (*run)(const Arguments& args, Report* report) = nullptr;
};

const std::vector<Verb>& Verbs();
const Verb* FindVerb(const std::string& name);

void RunMake(const Arguments& args, Report* report);
void RunExtractPublicKey(const Arguments& args, Report* report);
void RunInfo(const Arguments& args, Report* report);
void RunVerify(const Arguments& args, Report* report);

// --jobs, or the number of online CPUs.
bool ParseJobs(const Arguments& args, unsigned* threads, Report* report);

// The command line of one verb; a usage failure when it is wrong.
struct ParsedCommand {
  Arguments args;
  bool help = false;
};
bool ParseCommand(const Verb& verb, const std::vector<std::string>& words, ParsedCommand* out,
                  std::string* error);
std::string VerbHelp(const Verb& verb);
std::string ToolUsage();
// A bash completion script for every verb and option.
std::string BashCompletion();

}  // namespace rpktool
