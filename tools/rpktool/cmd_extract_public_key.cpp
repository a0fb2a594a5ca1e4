#include <android-base/file.h>
#include <unistd.h>

#include "output_file.h"
#include "rsa_key.h"
#include "verbs.h"

namespace rpktool {

void RunExtractPublicKey(const Arguments& args, Report* report) {
  const std::string output = args.Get("output");
  if (output != "-") {
    if (auto safe = CheckOutputPath(output, {{"--key", args.Get("key")}}); !safe.ok()) {
      return report->Fail(FailureKind::kOutput, safe.error().message());
    }
  }
  auto key = RsaKey::Load(args.Get("key"));
  if (!key.ok()) return report->Fail(FailureKind::kInput, key.error().message());
  const std::vector<uint8_t> blob = key->public_key_blob();
  if (output == "-") {
    if (!android::base::WriteFully(STDOUT_FILENO, blob.data(), blob.size())) {
      report->Fail(FailureKind::kOutput, "cannot write to standard output");
    }
    return;
  }
  auto written = WriteOutput(output, std::string(blob.begin(), blob.end()));
  if (!written.ok()) report->Fail(FailureKind::kOutput, written.error().message());
}

}  // namespace rpktool
