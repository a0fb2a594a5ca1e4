#pragma once

// Offline check of a package: the daemon's own open-and-verify code for the
// AVB footer, signature, key and hashtree descriptor, then a full check of
// the hash tree against every data block, then the config.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hash_tree_checker.h"

namespace rpktool {

struct VerifyRequest {
  std::string package_path;
  // The trusted key blob; without it the key embedded in the package is
  // used, which checks the signature but not who made it.
  std::optional<std::vector<uint8_t>> trusted_key;
  unsigned threads = 1;
  bool show_progress = true;
};

struct VerifyOutcome {
  std::vector<uint8_t> key;           // the key the daemon code was given
  std::string avb_error;              // the daemon code's error, empty when it accepted
  std::string algorithm;              // vbmeta signing algorithm, when known
  std::optional<VerityParams> verity; // what the daemon code took from the descriptor
  uint32_t dm_verity_version = 0;
  std::optional<TreeCheckResult> tree;
  std::string tree_error;             // the tree could not be checked
  std::vector<std::string> config_errors;
  std::vector<std::string> config_warnings;
  std::vector<std::string> problems;  // other reasons the package would fail

  bool ok() const;
  // One line naming the first reason for failure; empty when ok().
  std::string FailureReason() const;
};

// Fails only when the package file cannot be read as a zip at all.
android::base::Result<VerifyOutcome> VerifyPackage(const VerifyRequest& request);

// A trusted key from a file: a key blob as the device stores it, or a PEM
// RSA key (converted to its blob).
android::base::Result<std::vector<uint8_t>> LoadTrustedKey(const std::string& path);

}  // namespace rpktool
