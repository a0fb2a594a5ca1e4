#pragma once

// The ext4 filesystem of a package: sizing it for a source tree and
// creating it with mke2fs directly inside the output file.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>

#include "source_tree.h"

namespace rpktool {

inline constexpr uint32_t kFsBlockSize = 4096;

// A filesystem size (in blocks) that holds `tree` with some free room.
uint64_t EstimateFsBlocks(const SourceTree& tree);
// Inodes to ask for: every entry plus mke2fs's reserved ones and some slack.
uint64_t InodeCount(const SourceTree& tree);

struct Mke2fsRequest {
  std::string source_dir;
  std::string output_file;
  uint64_t offset = 0;  // where the filesystem starts inside output_file
  uint64_t blocks = 0;
  uint64_t inodes = 0;
  // Fixed creation time, UUID and directory hash seed for reproducible
  // images; unset gives mke2fs's own (current time, random).
  std::optional<int64_t> fixed_time;
  std::optional<std::string> uuid;
};

struct Mke2fsOutcome {
  bool ok = false;
  bool out_of_space = false;  // the tree did not fit; a larger size may work
  std::string command;        // as run, for display
  std::string output;
};

android::base::Result<Mke2fsOutcome> RunMke2fs(const Mke2fsRequest& request);

}  // namespace rpktool
