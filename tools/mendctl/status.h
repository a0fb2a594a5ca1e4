#pragma once

// One entry per package known from the package directory, the state records
// and the two message files: its state, its last report, and whether it is
// in force and if not why.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "refusal.h"
#include "snapshot.h"

namespace mendctl {

struct PackageStatus {
  std::optional<std::string> name;
  std::optional<int64_t> version_code;
  std::optional<int64_t> task_id;
  std::optional<std::string> file;
  std::optional<std::string> mode;  // "sync" or "async"
  std::optional<int> repair_status;
  bool in_force = false;
  std::optional<Verdict> refusal;
  const android::init::MendRepairSp* record = nullptr;
  std::optional<int32_t> trigger_rollback_count;
  bool mounted = false;
  std::optional<std::string> dm_device;
  std::optional<std::string> loop_device;
  std::optional<std::string> verity;  // "ok" or "corrupted"
  std::vector<std::string> overlaid;
  std::vector<std::string> not_overlaid;  // directories it repairs where it is no lower layer
};

struct OverlayStack {
  std::string path;
  std::vector<std::string> lower;  // top first, the directory itself last
};

struct StatusReport {
  std::vector<PackageStatus> packages;
  std::vector<OverlayStack> overlays;  // as mounted, in mount order
};

// The enumerator of a reported status value, or null for an unknown one.
const char* StatusName(int status);

StatusReport JudgeStatus(const Snapshot& snapshot, ImageChecker& images);

// The mount of the package image named `name`, if any.
const Mount* PackageMount(const Snapshot& snapshot, const std::string& name);

// The loop device under the dm device mounted by `mount`, if both are known.
const BlockDevice* LoopUnder(const Snapshot& snapshot, const BlockDevice& dm);

}  // namespace mendctl
