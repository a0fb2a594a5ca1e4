#include "plan.h"

#include <filesystem>
#include <list>
#include <map>
#include <set>

#include "mend_mount.h"
#include "mend_paths.h"
#include "mend_rules.h"

namespace mendctl {
namespace {

using android::init::MendRepairModule;
using android::init::MendRepairPackage;
using android::init::MendRepairUtil;
namespace fs = std::filesystem;
namespace mend = android::mend;

bool TakenByRun(const Snapshot& snapshot, const PackageFile& file, bool async) {
  return !ScanRefusal(snapshot, file) && android::init::isAsyncPackage(*file.package) == async;
}

// The failed boots the mount step compares: the run counts one for each of
// its packages on their record before it mounts anything.
int32_t PredictedBootFailures(const Snapshot& snapshot, const MendRepairPackage& package,
                              int taken) {
  const android::init::MendRepairSp* record = RecordByName(snapshot, package.update_package_name);
  if (record == nullptr) return 0;
  android::init::MendRepairSp counted = *record;
  for (int i = 0; i < taken; ++i)
    counted.boot_failed_count = android::init::countedBootFailures(counted);
  return counted.boot_failed_count;
}

std::optional<Verdict> MountPointRefusal(const Snapshot& snapshot, const DeviceRoot& root,
                                         const std::string& name,
                                         const std::set<std::string>& mounted_in_run) {
  const std::string mount_point = mend::kMountRoot + name;
  if (mounted_in_run.count(name)) {
    return Verdict{Refusal::kNotMounted, "a package of this name is mounted earlier in the run, " +
                                             mount_point + " is then not empty"};
  }
  // A mount of this boot is gone at the next; what lies in the directory
  // itself stays.
  if (PackageMount(snapshot, name) != nullptr) return std::nullopt;
  if (auto empty = android::rpk::CheckMountPointIsEmpty(root.At(mount_point)); !empty.ok()) {
    return Verdict{Refusal::kNotMounted, empty.error().message()};
  }
  return std::nullopt;
}

PlannedRun PlanRun(const Snapshot& snapshot, const DeviceRoot& root, ImageChecker& images,
                   bool async) {
  PlannedRun run;
  run.async = async;
  std::map<std::string, int> taken;
  for (const PackageFile& file : snapshot.packages) {
    if (TakenByRun(snapshot, file, async)) ++taken[file.package->update_package_name];
  }
  std::set<std::string> mounted;
  std::list<MendRepairModule> modules;
  for (const PackageFile& file : snapshot.packages) {
    PlannedPackage planned{std::nullopt, file.path, std::nullopt};
    RuleInput input{snapshot, file, async};
    if (file.package) {
      planned.name = file.package->update_package_name;
      input.boot_failed_count =
          PredictedBootFailures(snapshot, *file.package, taken[*planned.name]);
    }
    planned.refusal = FirstRefusal(input, images);
    if (!planned.refusal && !snapshot.fatal.empty()) {
      const FatalInput& fatal = snapshot.fatal.front();
      planned.refusal =
          Verdict{Refusal::kNotMounted,
                  "the run ends before it mounts anything: " + fatal.where + ": " + fatal.what};
    }
    if (!planned.refusal)
      planned.refusal = MountPointRefusal(snapshot, root, *planned.name, mounted);
    if (!planned.refusal) {
      mounted.insert(*planned.name);
      MendRepairPackage package = *file.package;
      package.task_id = *android::init::recordTaskId(snapshot.records, package);
      for (const std::string& dir : MendRepairUtil::split(package.module_path, ';')) {
        modules.push_back(MendRepairModule{package, dir, false});
      }
    }
    run.packages.push_back(std::move(planned));
  }
  std::map<std::string, std::list<MendRepairModule>> groups;
  for (const MendRepairModule& module : modules) groups[module.module_path].push_back(module);
  for (const auto& [dir, group] : groups) {
    OverlayStack stack{dir, android::init::overlayLowerDirs(group)};
    stack.lower.push_back(dir);
    run.stacks.push_back(std::move(stack));
  }
  return run;
}

bool IsOverlaidNow(const Snapshot& snapshot, const std::string& dir) {
  for (const Mount& mount : snapshot.mounts) {
    if (mount.fs_type == "overlay" && mount.mount_point == dir) return true;
  }
  return false;
}

bool Exists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

// Package layers of one stack whose images are mounted now, top first, and
// what each shows of the directory.
void AddShadowed(const Snapshot& snapshot, const DeviceRoot& root, const PlannedRun& run,
                 const OverlayStack& stack, std::vector<ShadowedFile>* out) {
  struct Layer {
    std::string name, file, dir;
  };
  std::vector<Layer> layers;
  for (size_t i = 0; i + 1 < stack.lower.size(); ++i) {
    const std::string& lower = stack.lower[i];
    const size_t root_size = sizeof(mend::kMountRoot) - 1;
    const std::string name = lower.substr(root_size, lower.size() - root_size - stack.path.size());
    if (PackageMount(snapshot, name) == nullptr) continue;
    for (const PlannedPackage& package : run.packages) {
      if (!package.refusal && package.name == name) layers.push_back({name, package.file, lower});
    }
  }
  const bool dir_readable = !IsOverlaidNow(snapshot, stack.path);
  for (size_t i = 0; i < layers.size(); ++i) {
    const std::string top = root.At(layers[i].dir);
    std::error_code error;
    for (fs::recursive_directory_iterator it(top, error), end; !error && it != end;
         it.increment(error)) {
      if (it->is_directory(error)) continue;
      const std::string relative = it->path().string().substr(top.size());
      std::string hides;
      for (size_t j = i + 1; j < layers.size() && hides.empty(); ++j) {
        if (Exists(root.At(layers[j].dir) + relative)) hides = layers[j].name;
      }
      if (hides.empty() && dir_readable && Exists(root.At(stack.path) + relative)) {
        hides = stack.path;
      }
      if (hides.empty()) continue;
      ShadowedFile shadowed{stack.path + relative, layers[i].name, layers[i].file, hides};
      bool known = false;
      for (const ShadowedFile& seen : *out) {
        known |= seen.path == shadowed.path && seen.name == shadowed.name && seen.hides == hides;
      }
      if (!known) out->push_back(std::move(shadowed));
    }
  }
}

}  // namespace

Plan MakePlan(const Snapshot& snapshot, const DeviceRoot& root, ImageChecker& images) {
  Plan plan;
  for (bool async : {false, true}) plan.runs.push_back(PlanRun(snapshot, root, images, async));
  for (const PlannedRun& run : plan.runs) {
    for (const OverlayStack& stack : run.stacks)
      AddShadowed(snapshot, root, run, stack, &plan.shadowed);
  }
  return plan;
}

}  // namespace mendctl
