#pragma once

// Builds a signed repair package: ext4 image of a source tree, hash tree,
// signed vbmeta and footer, inside a zip with config.txt, all written in
// place into one file that appears at the output path when complete.

#include <android-base/result.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "avb_format.h"
#include "ext4_image.h"
#include "ext4_inodes.h"
#include "image_layout.h"
#include "report.h"
#include "rsa_key.h"

namespace rpktool {

// The tool's version; packages carry it in their release string.
inline constexpr char kToolVersion[] = "1.1";

// Owner, group and mode of one path of the image.
struct PathOverride {
  std::string path;
  InodeOverride fields;
};
// Lines "PATH UID GID MODE" (MODE octal, PATH without blanks); '#' starts a
// comment.
android::base::Result<std::vector<PathOverride>> ParseOverrides(const std::string& text);

struct MakeRequest {
  std::string config_text;
  std::string source_dir;
  SourceTree tree;  // ScanSourceTree(source_dir)
  const RsaKey* key = nullptr;
  std::string output_path;
  const avbformat::Algorithm* algorithm = nullptr;  // default: SHA256 with the key's size
  std::optional<std::vector<uint8_t>> salt;         // default: random, digest-sized
  std::optional<uint64_t> partition_size;           // default: fitted to the tree
  // Fixes every time stamp and the filesystem UUID for reproducible output.
  std::optional<int64_t> fixed_time;
  InodeStamp stamp;  // its time is fixed_time
  std::vector<PathOverride> overrides;
  unsigned threads = 1;
};

struct MakeResult {
  const avbformat::Algorithm* algorithm = nullptr;
  ImageLayout layout;
  uint64_t image_data_offset = 0;  // inside the zip
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
  std::vector<std::string> mke2fs_commands;  // one per attempt
};

// On failure `kind` tells what failed: the key or salt (input), the
// filesystem (mke2fs or the image's inodes) or the output file.
android::base::Result<MakeResult> MakePackage(const MakeRequest& request, FailureKind* kind);

}  // namespace rpktool
