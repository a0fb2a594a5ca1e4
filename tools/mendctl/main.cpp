// mendctl: what the repair daemon left in force on this device, what it
// refused and why, and whether the mounted images are still intact. It only
// reads: no file is written, no device created, nothing mounted.
#include <android-base/logging.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "mend_paths.h"
#include "plan.h"
#include "report_json.h"
#include "report_text.h"
#include "snapshot.h"
#include "status.h"

namespace mendctl {
namespace {

constexpr int kOk = 0;
constexpr int kProblemFound = 1;
constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage: mendctl <verb> [options]\n"
    "\n"
    "What mend left in force on this device, what it refused and why.\n"
    "\n"
    "verbs:\n"
    "  status [--json] [NAME]   each package: state, last report, in force or why not\n"
    "  plan [--json]            what each run (mend, mend async) would do now\n"
    "  check [--json] [--verify]\n"
    "                           inconsistencies between files, mounts and devices;\n"
    "                           --verify also re-hashes every active verity image\n"
    "\n"
    "'mendctl <verb> --help' tells more. Exit status: 0 nothing found, 1 check found\n"
    "a problem, 2 usage error or nothing readable.\n";

constexpr char kStatusHelp[] =
    "usage: mendctl status [--json] [NAME]\n"
    "\n"
    "One entry per package known from /data/rvx/imgs/, shared_prefs.cfg, native.msg\n"
    "and app.msg: its state record, its last report, whether it is in force (mounted\n"
    "and a lower layer of every directory it repairs) and, if not, why (the refusal).\n"
    "With NAME, every field of the packages of that name.\n"
    "\n"
    "  --json   the entries as JSON (see docs/mendctl.md)\n";

constexpr char kPlanHelp[] =
    "usage: mendctl plan [--json]\n"
    "\n"
    "What the next boot's runs would do with the current files and properties, without\n"
    "mounting anything: each package in the order the run takes it, selected or not\n"
    "and why, then the overlay stack of each directory. With the package images\n"
    "mounted, also which files of a package layer hide files below it.\n"
    "\n"
    "  --json   the plan as JSON (see docs/mendctl.md)\n";

constexpr char kCheckHelp[] =
    "usage: mendctl check [--json] [--verify]\n"
    "\n"
    "One line per inconsistency between the state files, the packages, the mounts and\n"
    "the dm and loop devices; exit status 1 if there is any.\n"
    "\n"
    "  --json     the problems as JSON (see docs/mendctl.md)\n"
    "  --verify   also re-hash, in user space, the image under every active verity\n"
    "             device against its live table (reads each image once)\n";

struct Options {
  bool json = false;
  bool verify = false;
  std::vector<std::string> names;
};

int Usage(const char* text, const std::string& error) {
  if (!error.empty()) fprintf(stderr, "mendctl: %s\n", error.c_str());
  fputs(text, stderr);
  return kUsageError;
}

void Print(const std::string& text) { fwrite(text.data(), 1, text.size(), stdout); }

int Status(const Snapshot& snapshot, ImageChecker& images, const Options& options) {
  StatusReport report = JudgeStatus(snapshot, images);
  if (!options.names.empty()) {
    const std::string& wanted = options.names[0];
    std::vector<PackageStatus> chosen;
    for (const PackageStatus& package : report.packages) {
      if (package.name == wanted) chosen.push_back(package);
    }
    if (chosen.empty()) {
      fprintf(stderr, "mendctl: no package named %s\n", Printable(wanted).c_str());
      return kUsageError;
    }
    report.packages = chosen;
    if (!options.json) {
      for (size_t i = 0; i < chosen.size(); ++i) {
        Print((i ? "\n" : "") + PackageDetailText(chosen[i]));
      }
      return kOk;
    }
  }
  Print(options.json ? RenderJson(StatusJson(report)) : StatusText(report));
  return kOk;
}

int Check(const Snapshot& snapshot, const DeviceRoot& root, ImageChecker& images,
          const Options& options) {
  std::vector<Problem> problems = FindProblems(snapshot, JudgeStatus(snapshot, images));
  std::vector<std::string> errors;
  if (options.verify) {
    for (Problem& problem : VerifyDevices(snapshot, root, &errors)) problems.push_back(problem);
  }
  for (const std::string& error : errors) {
    fprintf(stderr, "mendctl: cannot verify %s\n", Printable(error).c_str());
  }
  Print(options.json ? RenderJson(CheckJson(problems)) : CheckText(problems));
  return problems.empty() && errors.empty() && snapshot.fatal.empty() ? kOk : kProblemFound;
}

int Run(int argc, char** argv) {
  if (argc < 2) return Usage(kUsage, "");
  const std::string verb = argv[1];
  if (verb == "--help" || verb == "-h" || verb == "help") {
    fputs(kUsage, stdout);
    return kOk;
  }
  const char* help = verb == "status"  ? kStatusHelp
                     : verb == "plan"  ? kPlanHelp
                     : verb == "check" ? kCheckHelp
                                       : nullptr;
  if (help == nullptr) return Usage(kUsage, "unknown verb '" + Printable(verb) + "'");
  Options options;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(help, stdout);
      return kOk;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--verify" && verb == "check") {
      options.verify = true;
    } else if (arg.rfind("-", 0) != 0 && verb == "status" && options.names.empty()) {
      options.names.push_back(arg);
    } else {
      return Usage(help, "unexpected argument '" + Printable(arg) + "'");
    }
  }

  const DeviceRoot root;
  const Snapshot snapshot = ReadSnapshot(root);
  if (snapshot.NothingRead()) {
    fprintf(stderr, "mendctl: nothing readable: neither %s nor the state and message files\n",
            android::mend::kPackageDir);
    return kUsageError;
  }
  for (const FatalInput& fatal : snapshot.fatal) {
    fprintf(stderr, "mendctl: %s: %s; mend ends when it reads this\n",
            Printable(fatal.where).c_str(), Printable(fatal.what).c_str());
  }
  ImageChecker images(root);
  if (verb == "status") return Status(snapshot, images, options);
  if (verb == "plan") {
    const Plan plan = MakePlan(snapshot, root, images);
    Print(options.json ? RenderJson(PlanJson(plan)) : PlanText(plan));
    return kOk;
  }
  return Check(snapshot, root, images, options);
}

}  // namespace
}  // namespace mendctl

int main(int argc, char** argv) {
  // The daemon's code logs what it does for the daemon's log; here it would
  // only clutter the answer.
  android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                              const char*, unsigned int, const char*) {});
  return mendctl::Run(argc, argv);
}
