#pragma once

// Reads the signed metadata at the end of a package image (footer, vbmeta
// header, key, descriptors) through the image format library, without
// checking any signature, to show it. Whether a device accepts the image
// is for the daemon's own code to say (see package_verifier.h).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "avb_format.h"

namespace rpktool {

struct DescriptorInfo {
  uint64_t tag = 0;
  uint64_t size = 0;  // header included
  std::optional<avbformat::HashtreeDescriptor> hashtree;
};

struct ImageMetadata {
  std::optional<avbformat::Footer> footer;
  std::vector<uint8_t> vbmeta;                  // the block the footer points at
  std::optional<avbformat::VbmetaCheck> check;  // once the block was read
  std::vector<uint8_t> public_key;              // once the header is valid
  std::vector<DescriptorInfo> descriptors;
  std::string problem;  // why the footer or the block could not be read
};

// `offset` and `size` locate the image inside `fd`.
ImageMetadata ReadImageMetadata(int fd, uint64_t offset, uint64_t size);

}  // namespace rpktool
