#pragma once

// Builds a signed repair package: ext4 image of a source tree, hash tree,
// signed vbmeta and AVB footer, inside a zip with config.txt, all written
// in place into one file that appears at the output path when complete.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "avb_algorithm.h"
#include "image_layout.h"

namespace rpktool {

struct MakeRequest {
  std::string config_text;
  std::string source_dir;
  std::string key_path;
  std::string output_path;
  std::optional<std::string> algorithm;  // default: SHA256 with the key's size
  std::optional<std::vector<uint8_t>> salt;  // default: random, digest-sized
  std::optional<uint64_t> partition_size;    // default: fitted to the tree
  // Fixes every time stamp and the filesystem UUID for reproducible output.
  std::optional<int64_t> fixed_time;
  unsigned threads = 1;
  bool show_progress = true;
};

struct MakeResult {
  AvbAlgorithm algorithm;
  std::string tree_hash;
  ImageLayout layout;
  uint64_t image_data_offset = 0;  // inside the zip
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
  std::vector<std::string> mke2fs_commands;  // one per attempt
  std::vector<std::string> warnings;
};

android::base::Result<MakeResult> MakePackage(const MakeRequest& request);

}  // namespace rpktool
