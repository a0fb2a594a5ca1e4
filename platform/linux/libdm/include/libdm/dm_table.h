#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dm_target.h"

namespace android {
namespace dm {

class DmTable {
 public:
  DmTable() = default;

  // False (and the table unchanged) when the target is invalid.
  bool AddTarget(std::unique_ptr<DmTarget>&& target);
  // True when the table has targets that cover a gapless range from sector 0.
  bool valid() const;
  size_t num_targets() const { return targets_.size(); }
  uint64_t num_sectors() const;
  const std::vector<std::unique_ptr<DmTarget>>& targets() const { return targets_; }

  void set_readonly(bool readonly) { readonly_ = readonly; }
  bool readonly() const { return readonly_; }

  // The targets in the kernel's table-load layout: for each, a dm_target_spec
  // followed by its NUL-terminated, 8-byte padded parameter string. Empty
  // when the table is not valid().
  std::string Serialize() const;

 private:
  std::vector<std::unique_ptr<DmTarget>> targets_;
  bool readonly_ = false;
};

}  // namespace dm
}  // namespace android
