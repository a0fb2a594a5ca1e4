#pragma once

// What a run of each mode would do with the current files and properties,
// without mounting anything: each package in the order the run takes it,
// selected or not and why, and the overlay stack of each directory.

#include <optional>
#include <string>
#include <vector>

#include "device_root.h"
#include "refusal.h"
#include "snapshot.h"
#include "status.h"

namespace mendctl {

struct PlannedPackage {
  std::optional<std::string> name;
  std::string file;
  std::optional<Verdict> refusal;  // null: selected, it would be mounted
};

struct PlannedRun {
  bool async = false;
  std::vector<PlannedPackage> packages;
  std::vector<OverlayStack> stacks;  // by directory
};

// A file of a mounted package layer that hides the same file below it.
struct ShadowedFile {
  std::string path;   // the file as seen in the repaired directory
  std::string name;   // the package whose layer shows it
  std::string file;   // that package's file
  std::string hides;  // the package below, or the directory itself
};

struct Plan {
  std::vector<PlannedRun> runs;  // sync, then async
  std::vector<ShadowedFile> shadowed;
};

// The runs of the next boot: this boot's mounts are gone by then, the files
// and properties are read as they are now.
Plan MakePlan(const Snapshot& snapshot, const DeviceRoot& root, ImageChecker& images);

}  // namespace mendctl
