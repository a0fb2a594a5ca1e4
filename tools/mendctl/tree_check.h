#pragma once

// The one place that reaches the package tool's hash-tree checker: checks an
// image region against the hash tree it carries.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>

namespace mendctl {

// dm-verity parameters of a live table whose data and hash device is one
// device.
struct TreeGeometry {
  uint64_t data_blocks = 0;
  uint32_t data_block_size = 0;
  uint32_t hash_block_size = 0;
  uint64_t hash_start_block = 0;  // in hash blocks from the device start
  std::string algorithm;
  std::string root_digest;  // hex
  std::string salt;         // hex, "-" for none
};

struct BadBlock {
  std::string description;  // one sentence: which block, and what a read of it does
  // Whether a dm-verity read (with ignore_zero_blocks) fails on it; a block
  // that was all zeros at signing reads as zeros unchecked.
  bool read_fails = true;
};

// The first block of the `length` bytes at `offset` of `fd` (data area and
// hash tree, laid out as `geometry` says) that does not match the tree, or
// nullopt when every block matches. Fails when the geometry does not fit the
// region or the region cannot be read.
android::base::Result<std::optional<BadBlock>> FindBadBlock(int fd, uint64_t offset,
                                                            uint64_t length,
                                                            const TreeGeometry& geometry);

}  // namespace mendctl
