#include "package_verifier.h"

#include <openssl/evp.h>

#include "ext4_inodes.h"
#include "file_io.h"
#include "parse.h"
#include "rsa_key.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

// Keys are a few KiB; anything much larger is not one.
constexpr size_t kMaxKeyFileSize = 64 * 1024;

// Looks up the module directories in the image's filesystem.
void CheckModules(Inspection* inspection) {
  const PackageFile& package = inspection->package;
  auto inodes = Ext4Inodes::Open(package.fd.get(), package.image->data_offset,
                                 inspection->verity->desc->image_size);
  std::string unreadable = inodes.ok() ? "" : inodes.error().message();
  CheckModuleDirectories(&inspection->config, [&](const std::string& path) {
    if (!unreadable.empty()) return true;
    auto directory = inodes->IsDirectory(path);
    if (!directory.ok()) unreadable = directory.error().message();
    return !directory.ok() || *directory;
  });
  if (!unreadable.empty()) {
    inspection->notes.push_back("module_path directories not checked: " + unreadable);
  }
}

}  // namespace

std::string Inspection::FailureReason() const {
  if (!avb_error.empty()) return avb_error;
  if (!problems.empty()) return problems.front();
  for (const ConfigIssue& issue : config.issues) {
    if (issue.is_error) return "config.txt: " + issue.message;
  }
  return "";
}

VerityParams Inspection::Params() const {
  const AvbHashtreeDescriptor& desc = *verity->desc;
  VerityParams params;
  params.data_size = desc.image_size;
  params.tree_offset = desc.tree_offset;
  params.data_block_size = desc.data_block_size;
  params.hash_block_size = desc.hash_block_size;
  params.hash_algorithm = verity->hash_algorithm;
  params.salt = ParseHex(verity->salt).value_or(std::vector<uint8_t>());
  params.root_digest = ParseHex(verity->root_digest).value_or(std::vector<uint8_t>());
  return params;
}

Json::Value U64(uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); }

std::string DigestHex(const char* name, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_get_digestbyname(name), nullptr);
  digest.resize(length);
  return ToHex(digest);
}

void AddConfig(const Inspection& inspection, Report* report) {
  if (!inspection.package.config_text) return;
  Report& config = report->Section("config", "config.txt");
  Report& values = config.Section("values", "values");
  for (const auto& [key, value] : inspection.config.values) values.Add(key, key, value);
  Json::Value errors(Json::arrayValue), warnings(Json::arrayValue);
  for (const ConfigIssue& issue : inspection.config.issues) {
    (issue.is_error ? errors : warnings).append(issue.message);
  }
  config.Add("errors", "error", errors).Add("warnings", "warning", warnings);
}

void AddProblems(const Inspection& inspection, Report* report) {
  Json::Value problems(Json::arrayValue), notes(Json::arrayValue);
  for (const auto& problem : inspection.problems) problems.append(problem);
  for (const auto& note : inspection.notes) notes.append(note);
  report->Add("problems", "problem", problems).Add("notes", "note", notes);
}

Result<std::vector<uint8_t>> LoadTrustedKey(const std::string& path) {
  auto text = ReadInput(path, kMaxKeyFileSize);
  if (!text.ok()) return text.error();
  if (text->find("-----BEGIN") != std::string::npos) {
    auto key = RsaKey::FromPem(*text, path);
    if (!key.ok()) return key.error();
    return key->public_key_blob();
  }
  std::vector<uint8_t> blob(text->begin(), text->end());
  if (avbformat::PublicKeyModulusLength(blob.data(), blob.size()) == 0) {
    return Error() << path << " is neither a PEM key nor a public key blob";
  }
  return blob;
}

Result<Inspection> InspectPackage(const std::string& path,
                                  const std::optional<std::vector<uint8_t>>& trusted_key,
                                  bool strict) {
  auto package = OpenPackage(path);
  if (!package.ok()) return package.error();
  Inspection inspection;
  inspection.package = std::move(*package);
  const PackageFile& zip = inspection.package;
  if (!zip.config_text) {
    inspection.problems.push_back("the package has no config.txt, so the daemon ignores it");
  } else {
    inspection.config = CheckPackageConfig(*zip.config_text, strict);
  }
  if (zip.image) {
    if (zip.image->method != 0) {
      inspection.problems.push_back(
          "update_payload.img is compressed; the daemon reads it as stored bytes");
    }
    if (zip.image->data_offset > INT32_MAX) {
      inspection.problems.push_back(
          "the image data starts beyond 2 GiB, which the daemon cannot address");
    }
    inspection.metadata =
        ReadImageMetadata(zip.fd.get(), zip.image->data_offset, zip.image->uncompressed_size);
  }
  inspection.key = trusted_key.value_or(inspection.metadata.public_key);

  // The daemon's own code decides about footer, signature, key and descriptor.
  const std::string key_hex = ToHex(inspection.key);
  auto file = android::rpk::RpkFile::OpenWithPublicKey(path, key_hex);
  if (!file.ok()) {
    inspection.avb_error = file.error().message();
    return inspection;
  }
  auto verity = file->VerifyRpkVerity(key_hex);
  if (!verity.ok()) {
    inspection.avb_error = verity.error().message();
    return inspection;
  }
  inspection.verity = std::move(*verity);
  CheckModules(&inspection);
  return inspection;
}

}  // namespace rpktool
