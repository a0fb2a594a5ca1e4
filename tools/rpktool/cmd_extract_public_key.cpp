#include <android-base/file.h>
#include <unistd.h>

#include "arg_parser.h"
#include "commands.h"
#include "file_io.h"
#include "public_key_blob.h"
#include "rsa_key.h"

namespace rpktool {

namespace {
constexpr char kVerb[] = "extract-public-key";
}  // namespace

int RunExtractPublicKey(const std::vector<std::string>& args) {
  std::string key, output;
  ArgParser parser(
      "rpktool extract-public-key --key PEM --output FILE",
      "Writes the public key blob of PEM (a private or public RSA key) to FILE: the\n"
      "bytes a device trusts as /system/etc/security/rpk_public_key. FILE '-' writes\n"
      "to standard output.");
  parser.AddOption("key", "PEM", "RSA key, 2048, 4096 or 8192 bits.", &key, true);
  parser.AddOption("output", "FILE", "Where to write the blob.", &output, true);
  auto parsed = parser.Parse(args);
  if (!parsed.ok()) {
    ReportError(kVerb, parsed.error().message() + " (see rpktool extract-public-key --help)");
    return kExitUsage;
  }
  if (!*parsed) return kExitOk;

  auto rsa = RsaKey::LoadPem(key);
  if (!rsa.ok()) {
    ReportError(kVerb, rsa.error().message());
    return kExitFailure;
  }
  auto blob = EncodePublicKeyBlob(*rsa);
  if (!blob.ok()) {
    ReportError(kVerb, blob.error().message());
    return kExitFailure;
  }
  if (output == "-") {
    if (!android::base::WriteFully(STDOUT_FILENO, blob->data(), blob->size())) {
      ReportError(kVerb, "cannot write to standard output");
      return kExitFailure;
    }
    return kExitOk;
  }
  auto written = WriteFileAtomically(output, std::string(blob->begin(), blob->end()));
  if (!written.ok()) {
    ReportError(kVerb, written.error().message());
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace rpktool
