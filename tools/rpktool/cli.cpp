// Parsing, help and shell completion, all from the verb table.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "parallel.h"
#include "verbs.h"

namespace rpktool {

namespace {

const OptionSpec* FindOption(const VerbSpec& verb, const std::string& name) {
  for (const OptionSpec& option : verb.options) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

// Bash words that complete what follows `option`.
std::string CompletionWords(Completion completion, const char* choices) {
  switch (completion) {
    case Completion::kFile: return "compgen -f -- \"$cur\"";
    case Completion::kDirectory: return "compgen -d -- \"$cur\"";
    case Completion::kChoices: return std::string("compgen -W \"") + choices + "\" -- \"$cur\"";
    case Completion::kNone: break;
  }
  return "";
}

}  // namespace

bool ParseUnsigned(const std::string& text, int base, uint64_t max, uint64_t* out) {
  if (text.empty() || !isxdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = strtoull(text.c_str(), &end, base);
  if (*end != '\0' || errno == ERANGE || value > max) return false;
  *out = value;
  return true;
}

bool ParseJobs(const Arguments& args, unsigned* threads, Report* report) {
  *threads = DefaultThreadCount();
  uint64_t jobs = 0;
  if (!args.Has("jobs")) return true;
  if (!ParseUnsigned(args.Get("jobs"), 10, 1024, &jobs) || jobs == 0) {
    report->Fail(FailureKind::kUsage, "--jobs: '" + args.Get("jobs") + "' is not a thread count");
    return false;
  }
  *threads = static_cast<unsigned>(jobs);
  return true;
}

std::string Arguments::Get(const std::string& name) const {
  const auto it = values.find(name);
  return it == values.end() ? std::string() : it->second;
}

bool ParseCommand(const VerbSpec& verb, const std::vector<std::string>& words,
                  ParsedCommand* out, std::string* error) {
  Arguments& args = out->args;
  bool only_positionals = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (only_positionals || word.size() < 2 || word.compare(0, 2, "--") != 0) {
      if (!verb.positional || !args.positionals.empty()) {
        *error = "unexpected argument '" + word + "'";
        return false;
      }
      args.positionals.push_back(word);
      continue;
    }
    if (word == "--") {
      only_positionals = true;
      continue;
    }
    if (word == "--help") {
      out->help = true;
      return true;
    }
    const size_t eq = word.find('=');
    const std::string name = word.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
    const OptionSpec* option = FindOption(verb, name);
    if (!option) {
      *error = "unknown option --" + name;
    } else if (args.Has(name) || args.Flag(name)) {
      *error = "--" + name + " is given twice";
    } else if (!option->metavar) {
      if (eq != std::string::npos) *error = "--" + name + " takes no value";
      args.flags.insert(name);
    } else if (eq != std::string::npos) {
      args.values[name] = word.substr(eq + 1);
    } else if (i + 1 < words.size()) {
      args.values[name] = words[++i];
    } else {
      *error = "--" + name + " needs a value (" + option->metavar + ")";
    }
    if (!error->empty()) return false;
  }
  for (const OptionSpec& option : verb.options) {
    if (option.required && !args.Has(option.name)) {
      *error = std::string("--") + option.name + " is required";
      return false;
    }
  }
  if (verb.positional && args.positionals.empty()) {
    *error = std::string(verb.positional) + " is required";
    return false;
  }
  return true;
}

std::string VerbHelp(const VerbSpec& verb) {
  std::ostringstream out;
  out << "usage: rpktool " << verb.usage << "\n\n" << verb.description << "\n\n";
  if (verb.positional) out << "  " << verb.positional << "\n      " << verb.positional_help << "\n";
  for (const OptionSpec& option : verb.options) {
    out << "  --" << option.name << (option.metavar ? std::string(" ") + option.metavar : "")
        << "\n      ";
    for (const char* c = option.help; *c; ++c) out << (*c == '\n' ? std::string("\n      ") : std::string(1, *c));
    out << "\n";
  }
  out << "  --help\n      Show this text.\n";
  return out.str();
}

std::string ToolUsage() {
  std::ostringstream out;
  out << "usage: rpktool VERB [options]\n"
         "       rpktool --version\n\n"
         "Builds, signs, inspects and verifies repair packages (a zip with config.txt and\n"
         "an AVB-signed ext4 image, update_payload.img).\n\nverbs:\n";
  for (const VerbSpec& verb : Verbs()) {
    std::string name = verb.name;
    name.resize(21, ' ');
    out << "  " << name << verb.summary << "\n";
  }
  out << "\n'rpktool VERB --help' describes each verb. Exit codes: 0 success, 1 failure,\n"
         "2 bad usage.\n";
  return out.str();
}

std::string BashCompletion() {
  std::ostringstream out;
  out << "# bash completion for rpktool; generated by 'rpktool completion bash'\n"
         "_rpktool() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  if (( COMP_CWORD == 1 )); then\n"
         "    COMPREPLY=($(compgen -W \"";
  for (const VerbSpec& verb : Verbs()) out << verb.name << " ";
  out << "--help --version\" -- \"$cur\"))\n"
         "    return\n"
         "  fi\n"
         "  case ${COMP_WORDS[1]} in\n";
  for (const VerbSpec& verb : Verbs()) {
    out << "    " << verb.name << ")\n      case $prev in\n";
    std::string options = "--help";
    for (const OptionSpec& option : verb.options) {
      options += std::string(" --") + option.name;
      if (!option.metavar) continue;
      const std::string words = CompletionWords(option.completion, option.choices);
      out << "        --" << option.name << ") "
          << (words.empty() ? "" : "COMPREPLY=($(" + words + ")); ") << "return ;;\n";
    }
    out << "      esac\n"
        << "      COMPREPLY=($(compgen -W \"" << options << "\" -- \"$cur\"))\n";
    if (verb.positional) {
      out << "      [[ $cur == -* ]] || COMPREPLY+=($(compgen -f -- \"$cur\"))\n";
    }
    out << "      ;;\n";
  }
  out << "  esac\n"
         "}\n"
         "complete -o filenames -F _rpktool rpktool\n";
  return out.str();
}

}  // namespace rpktool
