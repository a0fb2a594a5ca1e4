#include <libdm/dm_target.h>

#include <android-base/logging.h>

namespace android {
namespace dm {

DmTargetVerity::DmTargetVerity(uint64_t start, uint64_t length, uint32_t version,
                               const std::string& block_device, const std::string& hash_device,
                               uint32_t data_block_size, uint32_t hash_block_size,
                               uint32_t num_data_blocks, uint32_t hash_start_block,
                               const std::string& hash_algorithm, const std::string& root_digest,
                               const std::string& salt)
    : DmTarget(start, length),
      base_args_{std::to_string(version),
                 block_device,
                 hash_device,
                 std::to_string(data_block_size),
                 std::to_string(hash_block_size),
                 std::to_string(num_data_blocks),
                 std::to_string(hash_start_block),
                 hash_algorithm,
                 root_digest,
                 salt.empty() ? "-" : salt} {}

void DmTargetVerity::IgnoreZeroBlocks() { optional_args_.emplace_back("ignore_zero_blocks"); }

void DmTargetVerity::SetVerityMode(const std::string& mode) {
  if (mode != "restart_on_corruption" && mode != "ignore_corruption") {
    LOG(ERROR) << "Unknown verity mode: " << mode;
    valid_ = false;
    return;
  }
  optional_args_.push_back(mode);
}

std::string DmTargetVerity::GetParameterString() const {
  std::string params;
  for (const auto& arg : base_args_) {
    if (!params.empty()) params += ' ';
    params += arg;
  }
  if (optional_args_.empty()) return params;
  params += ' ' + std::to_string(optional_args_.size());
  for (const auto& arg : optional_args_) params += ' ' + arg;
  return params;
}

}  // namespace dm
}  // namespace android
