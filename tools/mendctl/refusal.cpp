#include "refusal.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "mend_mount_file.h"
#include "mend_paths.h"
#include "mend_rules.h"
#include "tree_check.h"

namespace mendctl {
namespace {

using android::init::MendRepairPackage;
using android::init::MountRefusal;

std::optional<Verdict> MountStepRefusal(const RuleInput& input) {
  const MendRepairPackage& package = *input.file.package;
  switch (android::init::mountRefusal(package, input.boot_failed_count, input.snapshot.build_id)) {
    case MountRefusal::kNone:
      return std::nullopt;
    case MountRefusal::kBootFailedLimit:
      return Verdict{Refusal::kBootFailedLimit, std::to_string(input.boot_failed_count) +
                                                    " failed boots exceed " +
                                                    "trigger_rollback_count " +
                                                    std::to_string(package.trigger_rollback_count)};
    case MountRefusal::kBuildListEmpty:
      return Verdict{Refusal::kBuildListEmpty, "ro_build_display_id lists no build"};
    case MountRefusal::kBuildMismatch:
      return Verdict{Refusal::kBuildMismatch, "the running build " + input.snapshot.build_id +
                                                  " is not in " + package.ro_build_display_id};
  }
  return std::nullopt;
}

// The trial pass reads the whole image through dm-verity; a block that
// fails that read fails the mount. The same check in user space.
std::string HashTreeError(const std::string& path, const android::rpk::RpkFile& file,
                          const android::rpk::RpkVerityData& verity) {
  const AvbHashtreeDescriptor& desc = *verity.desc;
  if (desc.data_block_size == 0 || desc.hash_block_size == 0) return "invalid block sizes";
  TreeGeometry geometry;
  geometry.data_blocks = desc.image_size / desc.data_block_size;
  geometry.data_block_size = desc.data_block_size;
  geometry.hash_block_size = desc.hash_block_size;
  geometry.hash_start_block = desc.tree_offset / desc.hash_block_size;
  geometry.algorithm = verity.hash_algorithm;
  geometry.root_digest = verity.root_digest;
  geometry.salt = verity.salt;
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return "cannot read " + path + ": " + strerror(errno);
  auto bad = FindBadBlock(fd.get(), static_cast<uint64_t>(*file.GetImageOffset()),
                          *file.GetImageSize(), geometry);
  if (!bad.ok()) return bad.error().message();
  return *bad && (*bad)->read_fails ? (*bad)->description : "";
}

}  // namespace

const char* RefusalName(Refusal refusal) {
  switch (refusal) {
    case Refusal::kNotSelectedInThisMode:
      return "not_selected_in_this_mode";
    case Refusal::kNoConfig:
      return "no_config";
    case Refusal::kNoStateRecord:
      return "no_state_record";
    case Refusal::kVersionMismatch:
      return "version_mismatch";
    case Refusal::kCancelRequested:
      return "cancel_requested";
    case Refusal::kBootFailedLimit:
      return "boot_failed_limit";
    case Refusal::kBuildMismatch:
      return "build_mismatch";
    case Refusal::kBuildListEmpty:
      return "build_list_empty";
    case Refusal::kImageInvalid:
      return "image_invalid";
    case Refusal::kNotMounted:
      return "not_mounted";
  }
  return "";
}

const std::string& ImageChecker::Check(const std::string& device_path) {
  auto it = errors_.find(device_path);
  if (it != errors_.end()) return it->second;
  std::string& error = errors_[device_path];
  // In the daemon's order: the image member first, then the trusted key.
  auto key = android::rpk::ReadPublicKeyHex(root_.At(android::mend::kTrustedKeyFile));
  auto file = android::rpk::RpkFile::OpenWithPublicKey(root_.At(device_path),
                                                       key.ok() ? *key : std::string());
  if (!file.ok()) {
    error = file.error().message();
  } else if (!key.ok()) {
    error = key.error().message();
  } else if (auto verified = file->VerifyRpkVerity(*key); !verified.ok()) {
    error = verified.error().message();
  } else {
    error = HashTreeError(root_.At(device_path), *file, *verified);
  }
  return error;
}

const android::init::MendRepairSp* RecordByName(const Snapshot& snapshot, const std::string& name) {
  auto it = snapshot.records.find(name);
  return it == snapshot.records.end() ? nullptr : &it->second;
}

std::optional<Verdict> ScanRefusal(const Snapshot& snapshot, const PackageFile& file) {
  if (!file.package) return Verdict{Refusal::kNoConfig, file.config_problem};
  const MendRepairPackage& package = *file.package;
  if (!android::init::isSupportSwitchOn(snapshot.support, snapshot.persist_support)) {
    return Verdict{Refusal::kNotSelectedInThisMode,
                   std::string("mend is switched off: ") + android::mend::kPropSupport + "=" +
                       snapshot.support + ", " + android::mend::kPropPersistSupport + "=" +
                       snapshot.persist_support};
  }
  if (android::init::isCancelRequested(snapshot.records, package)) {
    return Verdict{Refusal::kCancelRequested, "the application asked to cancel this version"};
  }
  if (!android::init::recordTaskId(snapshot.records, package)) {
    if (const auto* record = RecordByName(snapshot, package.update_package_name)) {
      return Verdict{Refusal::kVersionMismatch, "the state record is for version " +
                                                    std::to_string(record->update_version_code) +
                                                    ", the package is " +
                                                    std::to_string(package.update_version_code)};
    }
    return Verdict{Refusal::kNoStateRecord, "shared_prefs.cfg has no record of this name"};
  }
  return std::nullopt;
}

std::optional<Verdict> FirstRefusal(const RuleInput& input, ImageChecker& images) {
  if (auto refused = ScanRefusal(input.snapshot, input.file)) return refused;
  if (input.async_run && android::init::isAsyncPackage(*input.file.package) != *input.async_run) {
    return Verdict{Refusal::kNotSelectedInThisMode,
                   std::string("is_async_exec=") +
                       std::to_string(input.file.package->is_async_exec) + ": taken by the " +
                       (*input.async_run ? "synchronous" : "asynchronous") + " run"};
  }
  if (auto refused = MountStepRefusal(input)) return refused;
  if (const std::string& error = images.Check(input.file.path); !error.empty()) {
    return Verdict{Refusal::kImageInvalid, error};
  }
  return std::nullopt;
}

}  // namespace mendctl
