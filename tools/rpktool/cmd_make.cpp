#include <cctype>
#include <cstdlib>

#include "ext4_image.h"
#include "file_io.h"
#include "image_layout.h"
#include "output_file.h"
#include "package_builder.h"
#include "package_config.h"
#include "parse.h"
#include "verbs.h"

namespace rpktool {

namespace {

// Inputs are small text files; anything larger is not one.
constexpr size_t kMaxInputSize = 1 << 20;
// Times ext4 can store (signed 32 bits widened by two bits).
constexpr uint64_t kMaxEpoch = (uint64_t{1} << 34) - 1;

// Bytes, optionally with a K, M or G suffix (powers of 1024).
bool ParseSize(const std::string& text, uint64_t* out) {
  const size_t power =
      text.empty() ? std::string::npos : std::string("KMG").find(toupper(text.back()));
  const uint64_t unit = power == std::string::npos ? 1 : uint64_t{1} << (10 * (power + 1));
  uint64_t value = 0;
  if (!ParseUnsigned(unit == 1 ? text : text.substr(0, text.size() - 1), 10, UINT64_MAX / unit,
                     &value)) {
    return false;
  }
  *out = value * unit;
  return true;
}

// Fills what the options ask for beyond the paths; a usage failure
// otherwise.
bool ParseOptions(const Arguments& args, MakeRequest* request, Report* report) {
  auto bad = [report](const std::string& option, const std::string& what) {
    report->Fail(FailureKind::kUsage, "--" + option + ": " + what);
    return false;
  };
  if (args.Has("algorithm")) {
    request->algorithm = avbformat::FindAlgorithm(args.Get("algorithm"));
    if (!request->algorithm) {
      return bad("algorithm", "unknown algorithm '" + args.Get("algorithm") + "'");
    }
  }
  if (args.Has("salt")) {
    auto salt = ParseHex(args.Get("salt"));
    if (!salt.ok()) return bad("salt", salt.error().message());
    request->salt = *salt;
  }
  uint64_t value = 0;
  if (args.Has("partition-size")) {
    if (!ParseSize(args.Get("partition-size"), &value)) {
      return bad("partition-size", "'" + args.Get("partition-size") + "' is not a size");
    }
    if (auto checked = CheckPartitionSize(value); !checked.ok()) {
      return bad("partition-size", checked.error().message());
    }
    request->partition_size = value;
  }
  for (const char* id : {"owner", "group"}) {
    if (!args.Has(id)) continue;
    if (!ParseUnsigned(args.Get(id), 10, UINT32_MAX, &value)) return bad(id, "not a number");
    (std::string(id) == "owner" ? request->stamp.uid : request->stamp.gid) =
        static_cast<uint32_t>(value);
  }
  if (args.Has("mode-mask")) {
    if (!ParseUnsigned(args.Get("mode-mask"), 8, 07777, &value)) {
      return bad("mode-mask", "not an octal mode");
    }
    request->stamp.mode_mask = static_cast<uint32_t>(value);
  }
  if (const char* epoch = getenv("SOURCE_DATE_EPOCH"); epoch && *epoch) {
    if (!ParseUnsigned(epoch, 10, kMaxEpoch, &value)) {
      report->Fail(FailureKind::kUsage, "SOURCE_DATE_EPOCH is not a number of seconds");
      return false;
    }
    request->fixed_time = static_cast<int64_t>(value);
  }
  return ParseJobs(args, &request->threads, report);
}

// config.txt and the tree as a device would see them; false when the
// package must not be built.
bool CheckInputs(const Arguments& args, const PackageConfig& config, const SourceTree& tree,
                 Report* report) {
  const std::string config_path = args.Get("config");
  for (const ConfigIssue& issue : config.issues) {
    if (!issue.is_error) report->Warn(config_path + ": " + issue.message);
  }
  std::vector<std::string> errors;
  for (const ConfigIssue& issue : config.issues) {
    if (issue.is_error) errors.push_back(issue.message);
  }
  if (tree.entries == 0) errors.push_back("the tree " + args.Get("root") + " is empty");
  Json::Value list(Json::arrayValue);
  for (const auto& error : errors) list.append(error);
  report->Add("errors", "error", list);
  if (errors.empty()) return true;
  if (args.Flag("force")) {
    for (const auto& error : errors) report->Warn("ignored with --force: " + error);
    return true;
  }
  std::string message = config_path + " or the tree has errors (fix them or pass --force):";
  for (const auto& error : errors) message += "\n  " + error;
  report->Fail(FailureKind::kConfig, message);
  return false;
}

void Describe(const std::string& output, const MakeResult& made, const Arguments& args,
              Report* report) {
  const ImageLayout& layout = made.layout;
  auto u64 = [](uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); };
  report->Add("package", "package", output)
      .Add("image_offset", "image offset in zip", u64(made.image_data_offset))
      .Add("image_size", "image size", u64(layout.image_size))
      .Add("filesystem_size", "ext4 filesystem size", u64(layout.fs_size))
      .Add("hash_algorithm", "hash tree algorithm", made.algorithm->hash)
      .Add("tree_offset", "hash tree offset", u64(layout.fs_size))
      .Add("tree_size", "hash tree size", u64(layout.tree.tree_size))
      .Add("salt", "salt", ToHex(made.salt))
      .Add("root_digest", "root digest", ToHex(made.root_digest))
      .Add("algorithm", "vbmeta algorithm", made.algorithm->name)
      .Add("vbmeta_offset", "vbmeta offset", u64(layout.vbmeta_offset))
      .Add("vbmeta_size", "vbmeta size", u64(layout.vbmeta_size));
  if (args.Flag("verbose")) {
    Json::Value commands(Json::arrayValue);
    for (const auto& command : made.mke2fs_commands) commands.append(command);
    report->Add("mke2fs_commands", "mke2fs", commands);
  }
}

}  // namespace

void RunMake(const Arguments& args, Report* report) {
  MakeRequest request;
  request.source_dir = args.Get("root");
  request.output_path = args.Get("output");
  if (!ParseOptions(args, &request, report)) return;
  if (args.Get("config") == "-" && args.Get("key") == "-") {
    return report->Fail(FailureKind::kUsage, "--config and --key cannot both be standard input");
  }
  std::vector<NamedInput> inputs = {{"--config", args.Get("config")}, {"--key", args.Get("key")}};
  if (args.Has("overrides")) inputs.push_back({"--overrides", args.Get("overrides")});
  if (auto safe = CheckOutputPath(request.output_path, inputs, request.source_dir); !safe.ok()) {
    return report->Fail(FailureKind::kOutput, safe.error().message());
  }

  auto config_text = ReadInput(args.Get("config"), kMaxInputSize);
  if (!config_text.ok()) return report->Fail(FailureKind::kInput, config_text.error().message());
  request.config_text = *config_text;
  auto tree = ScanSourceTree(request.source_dir);
  if (!tree.ok()) return report->Fail(FailureKind::kInput, tree.error().message());
  request.tree = *tree;
  if (args.Has("overrides")) {
    auto text = ReadInput(args.Get("overrides"), kMaxInputSize);
    if (!text.ok()) return report->Fail(FailureKind::kInput, text.error().message());
    auto overrides = ParseOverrides(*text);
    if (!overrides.ok()) {
      return report->Fail(FailureKind::kInput,
                          args.Get("overrides") + ": " + overrides.error().message());
    }
    request.overrides = *overrides;
  }
  auto key = RsaKey::Load(args.Get("key"));
  if (!key.ok()) return report->Fail(FailureKind::kInput, key.error().message());
  request.key = &*key;

  PackageConfig config = CheckPackageConfig(request.config_text, args.Flag("strict"));
  CheckModuleDirectories(&config, [&](const std::string& path) {
    return IsDirectoryInTree(request.source_dir, path);
  });
  if (!CheckInputs(args, config, request.tree, report)) return;
  if (tree->not_root_owned > 0 && !request.stamp.uid && !request.stamp.gid) {
    report->Warn(std::to_string(tree->not_root_owned) +
                 " entries of the tree are not owned by root:root (e.g. " + tree->not_root_example +
                 "); the image keeps their owners (see --owner, --group)");
  }

  FailureKind kind;
  auto made = MakePackage(request, &kind);
  if (!made.ok()) return report->Fail(kind, made.error().message());
  Describe(request.output_path, *made, args, report);
}

}  // namespace rpktool
