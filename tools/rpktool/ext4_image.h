#pragma once

// The ext4 filesystem of a package: the tree it is made from, its size,
// and creating it with mke2fs directly inside the output file.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>

namespace rpktool {

inline constexpr uint32_t kFsBlockSize = 4096;

struct SourceTree {
  uint64_t entries = 0;          // files, directories, links, others (root excluded)
  uint64_t content_blocks = 0;   // 4 KiB blocks of file data, directories and symlinks
  uint64_t not_root_owned = 0;   // entries whose owner or group is not 0
  std::string not_root_example;  // one such path, for the warning
};

// Walks `root` without following symlinks. Fails if it is not a directory.
android::base::Result<SourceTree> ScanSourceTree(const std::string& root);

// Whether `path` (absolute, inside the tree) names a directory of the tree
// reached through directories only, no symlinks.
bool IsDirectoryInTree(const std::string& root, const std::string& path);

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
