// rpktool: builds, signs, inspects and verifies repair packages.

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "file_io.h"

namespace {

constexpr char kUsage[] =
    "usage: rpktool VERB [options]\n"
    "\n"
    "Builds, signs, inspects and verifies repair packages (a zip with config.txt and\n"
    "an AVB-signed ext4 image, update_payload.img).\n"
    "\n"
    "verbs:\n"
    "  make                 build and sign a package from a directory tree\n"
    "  extract-public-key   write the trusted-key blob of an RSA key\n"
    "  info                 show a package's zip layout, config, AVB metadata and verity table\n"
    "  verify               check a package offline: signature, key, hash tree, config\n"
    "\n"
    "'rpktool VERB --help' describes each verb. Exit codes: 0 success, 1 failure,\n"
    "2 bad usage.\n";

}  // namespace

namespace rpktool {

void ReportError(const std::string& verb, const std::string& message) {
  fprintf(stderr, "rpktool %s: %s\n", verb.c_str(), message.c_str());
}

}  // namespace rpktool

int main(int argc, char** argv) {
  if (argc < 2) {
    fputs(kUsage, stderr);
    return rpktool::kExitUsage;
  }
  rpktool::RemovePendingFileOnSignals();
  const std::string verb = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (verb == "--help" || verb == "-h" || verb == "help") {
    fputs(kUsage, stdout);
    return rpktool::kExitOk;
  }
  if (verb == "make") return rpktool::RunMake(args);
  if (verb == "extract-public-key") return rpktool::RunExtractPublicKey(args);
  if (verb == "info") return rpktool::RunInfo(args);
  if (verb == "verify") return rpktool::RunVerify(args);
  fprintf(stderr, "rpktool: unknown verb '%s'\n\n%s", verb.c_str(), kUsage);
  return rpktool::kExitUsage;
}
