#pragma once

// What the daemon would make of a package, offline: its own open-and-verify
// code decides about the footer, the vbmeta block, the signature, the key
// and the hashtree descriptor; the config is judged by its own reading; the
// module directories are looked up in the image. `info` stops there;
// `verify` also checks every block of the hash tree and the data.

#include <android-base/result.h>
#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hash_tree_checker.h"
#include "image_metadata.h"
#include "mend_mount_file.h"
#include "package_config.h"
#include "package_reader.h"
#include "report.h"

namespace rpktool {

struct Inspection {
  PackageFile package;
  ImageMetadata metadata;
  std::vector<uint8_t> key;  // the key the daemon code was given
  std::string avb_error;     // the daemon code's error, empty when it accepted
  std::optional<android::rpk::RpkVerityData> verity;  // when it accepted
  PackageConfig config;
  std::vector<std::string> problems;  // other reasons a device refuses the package
  std::vector<std::string> notes;     // what could not be checked

  // The first reason a device refuses the package; empty when none.
  std::string FailureReason() const;
  // The verity parameters the daemon's descriptor gives; needs `verity`.
  VerityParams Params() const;
};

// Fails only when the file cannot be read as a zip at all. Without
// `trusted_key` the key embedded in the package is used, which checks the
// signature but not who made it.
android::base::Result<Inspection> InspectPackage(
    const std::string& path, const std::optional<std::vector<uint8_t>>& trusted_key, bool strict);

// Parts of the info and verify reports that both show.
Json::Value U64(uint64_t value);
// Hex digest of `data` with hash `name` ("sha1", "sha256").
std::string DigestHex(const char* name, const std::vector<uint8_t>& data);

// The config's values as the daemon sees them, its errors and warnings.
void AddConfig(const Inspection& inspection, Report* report);
// Other reasons for refusal and what could not be checked.
void AddProblems(const Inspection& inspection, Report* report);

// A trusted key from a file: a key blob as the device stores it, or a PEM
// RSA key (converted to its blob).
android::base::Result<std::vector<uint8_t>> LoadTrustedKey(const std::string& path);

}  // namespace rpktool
