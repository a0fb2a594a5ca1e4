#pragma once

// The directory tree an image is made from: what sizing the filesystem
// needs to know, and checks against it.

#include <android-base/result.h>

#include <cstdint>
#include <string>

namespace rpktool {

struct SourceTree {
  uint64_t entries = 0;           // files, directories, links, others (root excluded)
  uint64_t content_blocks = 0;    // 4 KiB blocks of file data, directories and symlinks
  uint64_t not_root_owned = 0;    // entries whose owner or group is not 0
  std::string not_root_example;   // one such path, for the warning
};

// Walks `root` without following symlinks. Fails if it is not a directory.
android::base::Result<SourceTree> ScanSourceTree(const std::string& root);

// Whether `path` (absolute, inside the tree) names a directory of the tree
// reached through directories only, no symlinks.
bool IsDirectoryInTree(const std::string& root, const std::string& path);

}  // namespace rpktool
