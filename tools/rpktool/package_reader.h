#pragma once

// Opens a package zip and finds its members: config.txt and the image.

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rpktool {

struct ZipMemberInfo {
  std::string name;
  uint16_t method = 0;       // 0 stored, 8 deflated
  uint64_t data_offset = 0;  // first byte of the member's data in the zip
  uint64_t compressed_size = 0;
  uint64_t uncompressed_size = 0;
  uint32_t crc32 = 0;
};

struct PackageFile {
  std::string path;
  android::base::unique_fd fd;
  uint64_t size = 0;
  std::vector<ZipMemberInfo> members;  // in the archive's order
  std::optional<std::string> config_text;
  std::optional<ZipMemberInfo> image;
};

android::base::Result<PackageFile> OpenPackage(const std::string& path);

}  // namespace rpktool
