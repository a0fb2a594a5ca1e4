#include "verity_table.h"

#include <sstream>

#include "hex.h"

namespace rpktool {

namespace {
constexpr uint64_t kSectorSize = 512;
}  // namespace

std::string VerityTableLine(const HashtreeDescriptor& d, const std::string& device,
                            bool restart_on_corruption) {
  std::ostringstream line;
  const uint64_t data_blocks = d.data_block_size ? d.image_size / d.data_block_size : 0;
  const uint64_t hash_start = d.hash_block_size ? d.tree_offset / d.hash_block_size : 0;
  // The kernel takes "-" for an empty salt.
  const std::string salt = d.salt.empty() ? "-" : ToHex(d.salt);
  line << "0 " << d.image_size / kSectorSize << " verity " << d.dm_verity_version << " " << device
       << " " << device << " " << d.data_block_size << " " << d.hash_block_size << " "
       << data_blocks << " " << hash_start << " " << d.hash_algorithm << " "
       << ToHex(d.root_digest) << " " << salt;
  if (restart_on_corruption) {
    line << " 2 ignore_zero_blocks restart_on_corruption";
  } else {
    line << " 1 ignore_zero_blocks";
  }
  return line.str();
}

}  // namespace rpktool
