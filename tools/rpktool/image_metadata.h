#pragma once

// Reads the AVB metadata at the end of a package image (footer, vbmeta
// header, key, descriptors) without checking any signature. Whatever could
// be read is kept; `problem` names the first thing that could not.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "avb_algorithm.h"
#include "avb_structs.h"

namespace rpktool {

struct DescriptorInfo {
  uint64_t tag = 0;
  uint64_t size = 0;  // bytes following the 16-byte header
  std::optional<HashtreeDescriptor> hashtree;
  std::optional<HashDescriptor> hash;
  std::string problem;  // why a hashtree or hash descriptor did not parse
};

struct ImageMetadata {
  std::optional<Footer> footer;
  std::optional<VbmetaHeader> header;
  std::vector<uint8_t> vbmeta;  // the block the footer points at
  std::vector<uint8_t> public_key;
  std::vector<DescriptorInfo> descriptors;
  std::string problem;  // empty when everything parsed

  // The first hashtree descriptor, if any parsed.
  const HashtreeDescriptor* Hashtree() const;
};

// `offset` and `size` locate the image inside `fd`.
ImageMetadata ReadImageMetadata(int fd, uint64_t offset, uint64_t size);

// The largest vbmeta block the daemon reads.
inline constexpr uint64_t kDaemonVbmetaLimit = 64 * 1024;

}  // namespace rpktool
