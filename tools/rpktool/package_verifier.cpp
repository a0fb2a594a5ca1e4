#include "package_verifier.h"

#include "file_io.h"
#include "hex.h"
#include "image_metadata.h"
#include "mend_mount_file.h"
#include "package_config.h"
#include "package_reader.h"
#include "progress.h"
#include "public_key_blob.h"
#include "rsa_key.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

// Keys are a few KiB; anything much larger is not one.
constexpr size_t kMaxKeyFileSize = 64 * 1024;

Result<VerityParams> ParamsFrom(const android::rpk::RpkVerityData& data) {
  VerityParams params;
  params.image_size = data.desc->image_size;
  params.tree_offset = data.desc->tree_offset;
  params.tree_size = data.desc->tree_size;
  params.data_block_size = data.desc->data_block_size;
  params.hash_block_size = data.desc->hash_block_size;
  params.hash_algorithm = data.hash_algorithm;
  auto salt = ParseHex(data.salt);
  auto root = ParseHex(data.root_digest);
  if (!salt.ok() || !root.ok()) return Error() << "salt or root digest is not hex";
  params.salt = *salt;
  params.root_digest = *root;
  return params;
}

}  // namespace

bool VerifyOutcome::ok() const { return FailureReason().empty(); }

std::string VerifyOutcome::FailureReason() const {
  if (!avb_error.empty()) return avb_error;
  if (!tree_error.empty()) return tree_error;
  if (tree && tree->bad_block) return DescribeBadBlock(*tree->bad_block);
  if (!config_errors.empty()) return "config.txt: " + config_errors.front();
  if (!problems.empty()) return problems.front();
  return "";
}

Result<std::vector<uint8_t>> LoadTrustedKey(const std::string& path) {
  auto text = ReadSmallFile(path, kMaxKeyFileSize);
  if (!text.ok()) return text.error();
  if (text->find("-----BEGIN") != std::string::npos) {
    auto key = RsaKey::LoadPem(path);
    if (!key.ok()) return key.error();
    return EncodePublicKeyBlob(*key);
  }
  std::vector<uint8_t> blob(text->begin(), text->end());
  auto parsed = ParsePublicKeyBlob(blob.data(), blob.size());
  if (!parsed.ok()) {
    return Error() << path << " is neither a PEM key nor a public key blob (" << parsed.error()
                   << ")";
  }
  return blob;
}

Result<VerifyOutcome> VerifyPackage(const VerifyRequest& request) {
  auto package = OpenPackage(request.package_path);
  if (!package.ok()) return package.error();
  VerifyOutcome outcome;

  if (!package->config_text) {
    outcome.problems.push_back("the package has no config.txt, so the daemon ignores it");
  } else {
    const PackageConfig config = ParsePackageConfig(*package->config_text);
    for (const auto& issue : config.issues) {
      (issue.is_error ? outcome.config_errors : outcome.config_warnings).push_back(issue.message);
    }
  }
  if (package->image && package->image->method != 0) {
    outcome.problems.push_back("update_payload.img is compressed; the daemon reads it as stored bytes");
  }

  std::optional<ImageMetadata> metadata;
  if (package->image) {
    metadata = ReadImageMetadata(package->fd.get(), package->image->data_offset,
                            package->image->uncompressed_size);
    if (metadata->header) {
      const AvbAlgorithm* algorithm = FindAlgorithmByType(metadata->header->algorithm_type);
      outcome.algorithm = algorithm ? algorithm->name : "unknown";
    }
  }
  if (request.trusted_key) {
    outcome.key = *request.trusted_key;
  } else if (metadata) {
    outcome.key = metadata->public_key;
  }

  // The daemon's own code decides about footer, signature, key and descriptor.
  const std::string key_hex = ToHex(outcome.key);
  auto file = android::rpk::RpkFile::OpenWithPublicKey(request.package_path, key_hex);
  if (!file.ok()) {
    outcome.avb_error = file.error().message();
    return outcome;
  }
  auto verity = file->VerifyRpkVerity(key_hex);
  if (!verity.ok()) {
    outcome.avb_error = verity.error().message();
    return outcome;
  }
  outcome.dm_verity_version = verity->desc->dm_verity_version;
  auto params = ParamsFrom(*verity);
  if (!params.ok()) {
    outcome.tree_error = params.error().message();
    return outcome;
  }
  outcome.verity = *params;
  if (outcome.dm_verity_version != 1) {
    outcome.tree_error = "dm-verity version " + std::to_string(outcome.dm_verity_version) +
                         " is not the format this tool checks (1)";
    return outcome;
  }

  if (!file->GetImageOffset() || *file->GetImageOffset() < 0 || !file->GetImageSize()) {
    outcome.tree_error = "the image's place in the zip is out of the daemon's range";
    return outcome;
  }
  Progress progress("verifying", params->image_size, request.show_progress);
  auto tree = CheckHashTree(package->fd.get(), static_cast<uint64_t>(*file->GetImageOffset()),
                            *file->GetImageSize(), *params, request.threads, &progress);
  progress.Finish();
  if (!tree.ok()) {
    outcome.tree_error = "hash tree: " + tree.error().message();
  } else {
    outcome.tree = *tree;
  }
  return outcome;
}

}  // namespace rpktool
