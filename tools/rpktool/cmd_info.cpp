#include <cstdio>

#include "arg_parser.h"
#include "commands.h"
#include "image_metadata.h"
#include "package_reader.h"
#include "package_report.h"

namespace rpktool {

namespace {
constexpr char kVerb[] = "info";
}  // namespace

int RunInfo(const std::vector<std::string>& args) {
  bool json = false;
  std::vector<std::string> paths;
  ArgParser parser(
      "rpktool info [--json] ZIP",
      "Shows a package without verifying it: its zip members, config.txt (with what the\n"
      "daemon would make of it), where the image lies in the zip, the AVB footer, the\n"
      "vbmeta header, the embedded key, the descriptors and the dm-verity table the\n"
      "daemon would load. Exits 1 when the AVB metadata cannot be read completely.");
  parser.AddFlag("json", "Print one JSON object instead of text.", &json);
  parser.SetPositionals("ZIP", "The package.", 1, 1, &paths);
  auto parsed = parser.Parse(args);
  if (!parsed.ok()) {
    ReportError(kVerb, parsed.error().message() + " (see rpktool info --help)");
    return kExitUsage;
  }
  if (!*parsed) return kExitOk;

  auto package = OpenPackage(paths[0]);
  if (!package.ok()) {
    ReportError(kVerb, package.error().message());
    return kExitFailure;
  }
  std::optional<ImageMetadata> metadata;
  if (package->image) {
    metadata = ReadImageMetadata(package->fd.get(), package->image->data_offset,
                            package->image->uncompressed_size);
  }
  const Json::Value report = DescribePackage(*package, metadata ? &*metadata : nullptr);
  if (json) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    printf("%s\n", Json::writeString(builder, report).c_str());
  } else {
    fputs(RenderPackageText(report).c_str(), stdout);
  }
  return metadata && metadata->problem.empty() ? kExitOk : kExitFailure;
}

}  // namespace rpktool
