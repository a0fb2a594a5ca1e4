#include <android-base/logging.h>

#include "package_verifier.h"
#include "parse.h"
#include "verbs.h"

namespace rpktool {

namespace {

void AddBadBlock(const BadBlock& bad, Report* report) {
  Report& block = report->Section("bad_block", "bad block");
  block.Add("kind", "kind", bad.is_data ? "data" : "hash")
      .Add("index", "index", U64(bad.index))
      .Add("image_offset", "image offset", U64(bad.image_offset));
  if (bad.is_data) {
    block.Add("zero_at_signing", "zeros at signing", bad.zero_at_signing);
  } else {
    block.Add("level", "level", bad.level).Add("levels", "levels", bad.level_count);
  }
  block.Add("description", "description", DescribeBadBlock(bad));
}

// Checks every block of the tree and the data; returns why it fails, if it does.
std::string CheckTree(const Inspection& inspection, unsigned threads, Report* report) {
  Report& tree = report->Section("hash_tree", "hash tree");
  tree.Add("checked", "checked", inspection.verity.has_value());
  if (!inspection.verity) return "";
  const VerityParams params = inspection.Params();
  const AvbHashtreeDescriptor& desc = *inspection.verity->desc;
  tree.Add("hash_algorithm", "algorithm", params.hash_algorithm)
      .Add("salt", "salt", ToHex(params.salt))
      .Add("root_digest", "root digest", ToHex(params.root_digest))
      .Add("image_size", "data size", U64(desc.image_size))
      .Add("tree_offset", "tree offset", U64(desc.tree_offset))
      .Add("tree_size", "tree size", U64(desc.tree_size));
  std::string failure;
  if (desc.dm_verity_version != 1) {
    failure = "dm-verity version " + std::to_string(desc.dm_verity_version) +
              " is not the format this tool checks (1)";
  } else {
    const PackageFile& zip = inspection.package;
    Progress progress("verifying", params.data_size);
    auto checked = CheckHashTree(zip.fd.get(), zip.image->data_offset, zip.image->uncompressed_size,
                                 params, threads, &progress);
    progress.Finish();
    if (!checked.ok()) {
      failure = "hash tree: " + checked.error().message();
    } else {
      tree.Add("data_blocks", "data blocks", U64(checked->data_blocks))
          .Add("zero_blocks", "zero blocks at signing", U64(checked->zero_blocks));
      if (checked->bad_block) {
        AddBadBlock(*checked->bad_block, &tree);
        failure = DescribeBadBlock(*checked->bad_block);
      } else if (checked->tree_size != desc.tree_size) {
        failure = "the descriptor's tree size " + std::to_string(desc.tree_size) +
                  " is not the tree's " + std::to_string(checked->tree_size);
      }
    }
  }
  tree.Add("ok", "ok", failure.empty())
      .Add("error", "error", failure.empty() ? Json::Value() : failure);
  return failure;
}

}  // namespace

void RunVerify(const Arguments& args, Report* report) {
  unsigned threads = 1;
  if (!ParseJobs(args, &threads, report)) return;
  std::optional<std::vector<uint8_t>> trusted_key;
  std::string key_source = "embedded in the package (no --key: only the signature is checked)";
  if (args.Has("key")) {
    auto key = LoadTrustedKey(args.Get("key"));
    if (!key.ok()) return report->Fail(FailureKind::kInput, key.error().message());
    trusted_key = *key;
    key_source = "trusted key " + args.Get("key");
  }
  // The daemon's code logs as it goes; keep it quiet unless asked.
  android::base::SetMinimumLogSeverity(args.Flag("verbose") ? android::base::VERBOSE
                                                            : android::base::FATAL);
  const std::string path = args.positionals[0];
  auto inspection = InspectPackage(path, trusted_key, args.Flag("strict"));
  if (!inspection.ok()) return report->Fail(FailureKind::kInput, inspection.error().message());

  report->Add("package", "package", path);
  report->Section("key", "key")
      .Add("source", "source", key_source)
      .Add("size", "size", U64(inspection->key.size()))
      .Add("sha256", "sha256", inspection->key.empty() ? "" : DigestHex("sha256", inspection->key));
  const avbformat::Algorithm* algorithm =
      inspection->metadata.check
          ? avbformat::FindAlgorithm(inspection->metadata.check->header.algorithm_type)
          : nullptr;
  report->Section("avb", "signed metadata")
      .Add("ok", "accepted", inspection->avb_error.empty())
      .Add("error", "error", inspection->avb_error.empty() ? Json::Value() : inspection->avb_error)
      .Add("algorithm", "algorithm", algorithm ? algorithm->name : "");
  const std::string tree_failure = CheckTree(*inspection, threads, report);
  AddConfig(*inspection, report);
  AddProblems(*inspection, report);
  std::string failure = inspection->avb_error;
  if (failure.empty()) failure = tree_failure;
  if (failure.empty()) failure = inspection->FailureReason();
  report->Add("ok", "result", failure.empty(), failure.empty() ? "OK" : "FAILED");
  if (!failure.empty()) {
    report->Add("failure", "failure", failure);
    report->Fail(FailureKind::kVerification, "FAILED: " + failure);
  }
}

}  // namespace rpktool
