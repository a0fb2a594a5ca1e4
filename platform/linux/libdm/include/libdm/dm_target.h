#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace android {
namespace dm {

// One target line of a device-mapper table. Subclasses only render the
// parameter words of their target type.
class DmTarget {
 public:
  DmTarget(uint64_t start, uint64_t length) : start_(start), length_(length) {}
  virtual ~DmTarget() = default;

  virtual std::string name() const = 0;
  // The target's parameter string as the kernel expects it in the table.
  virtual std::string GetParameterString() const = 0;
  virtual bool Valid() const { return true; }

  uint64_t start() const { return start_; }
  uint64_t size() const { return length_; }

 private:
  uint64_t start_;
  uint64_t length_;
};

// dm-verity: "<version> <data dev> <hash dev> <data block size>
// <hash block size> <data blocks> <hash start block> <algorithm> <root digest>
// <salt>", then the optional words with their count, in the order they were
// asked for. An empty salt is written "-".
class DmTargetVerity final : public DmTarget {
 public:
  DmTargetVerity(uint64_t start, uint64_t length, uint32_t version,
                 const std::string& block_device, const std::string& hash_device,
                 uint32_t data_block_size, uint32_t hash_block_size, uint32_t num_data_blocks,
                 uint32_t hash_start_block, const std::string& hash_algorithm,
                 const std::string& root_digest, const std::string& salt);

  void IgnoreZeroBlocks();
  // Accepts "restart_on_corruption" or "ignore_corruption"; anything else
  // makes the target invalid.
  void SetVerityMode(const std::string& mode);

  std::string name() const override { return "verity"; }
  std::string GetParameterString() const override;
  bool Valid() const override { return valid_; }

 private:
  std::vector<std::string> base_args_;
  std::vector<std::string> optional_args_;
  bool valid_ = true;
};

}  // namespace dm
}  // namespace android
