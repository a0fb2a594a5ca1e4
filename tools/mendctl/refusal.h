#pragma once

// Why a package is not in force, as status and plan explain it, and the
// daemon's rules applied to the files in the order a run applies them.

#include <map>
#include <optional>
#include <string>

#include "device_root.h"
#include "snapshot.h"

namespace mendctl {

enum class Refusal {
  kNotSelectedInThisMode,
  kNoConfig,
  kNoStateRecord,
  kVersionMismatch,
  kCancelRequested,
  kBootFailedLimit,
  kBuildMismatch,
  kBuildListEmpty,
  kImageInvalid,
  kNotMounted,
};
const char* RefusalName(Refusal refusal);

struct Verdict {
  Refusal refusal;
  std::string reason;
};

// Verifies package images offline as a run would: the signature against the
// trusted key with the daemon's own code, then every block against the hash
// tree (the daemon's trial pass reads them all); each file once.
class ImageChecker {
 public:
  explicit ImageChecker(const DeviceRoot& root) : root_(root) {}
  // The daemon's verification error for the package at `device_path`, or ""
  // when its image verifies.
  const std::string& Check(const std::string& device_path);

 private:
  const DeviceRoot& root_;
  std::map<std::string, std::string> errors_;
};

// How a run judges one package: in a mode (plan) or whatever its mode
// (status), with the failed-boot count the mount step compares.
struct RuleInput {
  const Snapshot& snapshot;
  const PackageFile& file;
  std::optional<bool> async_run;
  int32_t boot_failed_count = 0;
};

// Why the scan leaves the package out of every run (no usable config, the
// daemon switched off, a cancellation, no state record), or nullopt.
std::optional<Verdict> ScanRefusal(const Snapshot& snapshot, const PackageFile& file);

// The first rule that refuses the package, image verification included, or
// nullopt when a run would go on to mount it.
std::optional<Verdict> FirstRefusal(const RuleInput& input, ImageChecker& images);

// The record that the mount step reads for a package name, if any.
const android::init::MendRepairSp* RecordByName(const Snapshot& snapshot, const std::string& name);

}  // namespace mendctl
