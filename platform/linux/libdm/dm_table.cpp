#include <libdm/dm_table.h>

#include <linux/dm-ioctl.h>

#include <cstring>

namespace android {
namespace dm {

bool DmTable::AddTarget(std::unique_ptr<DmTarget>&& target) {
  if (!target || !target->Valid()) return false;
  targets_.push_back(std::move(target));
  return true;
}

bool DmTable::valid() const {
  if (targets_.empty()) return false;
  uint64_t next_sector = 0;
  for (const auto& target : targets_) {
    if (!target->Valid() || target->start() != next_sector || target->size() == 0) return false;
    next_sector += target->size();
  }
  return true;
}

uint64_t DmTable::num_sectors() const {
  uint64_t sectors = 0;
  for (const auto& target : targets_) sectors += target->size();
  return sectors;
}

std::string DmTable::Serialize() const {
  if (!valid()) return "";
  std::string out;
  for (const auto& target : targets_) {
    const std::string params = target->GetParameterString();
    // The target header, the parameters and their NUL, padded so that the next header
    // starts 8-byte aligned.
    const size_t chunk = (sizeof(dm_target_spec) + params.size() + 1 + 7) & ~size_t{7};
    dm_target_spec header = {};
    header.sector_start = target->start();
    header.length = target->size();
    header.next = static_cast<uint32_t>(chunk);
    const std::string type = target->name();
    std::strncpy(header.target_type, type.c_str(), sizeof(header.target_type) - 1);

    const size_t at = out.size();
    out.resize(at + chunk, '\0');
    std::memcpy(&out[at], &header, sizeof(header));
    std::memcpy(&out[at + sizeof(header)], params.data(), params.size());
  }
  return out;
}

}  // namespace dm
}  // namespace android
