#pragma once

// Host-order views of the AVB on-disk structures (footer, vbmeta header,
// descriptors) with their big-endian serialisation and checked parsing.

#include <android-base/result.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace rpktool {

inline constexpr size_t kFooterSize = 64;
inline constexpr size_t kVbmetaHeaderSize = 256;
inline constexpr size_t kReleaseStringSize = 48;
inline constexpr size_t kDescriptorHeaderSize = 16;
inline constexpr size_t kHashtreeDescriptorFixedSize = 180;
inline constexpr size_t kHashDescriptorFixedSize = 132;

inline constexpr uint64_t kTagProperty = 0;
inline constexpr uint64_t kTagHashtree = 1;
inline constexpr uint64_t kTagHash = 2;
inline constexpr uint64_t kTagKernelCmdline = 3;
inline constexpr uint64_t kTagChainPartition = 4;

const char* DescriptorTagName(uint64_t tag);

struct Footer {
  uint32_t version_major = 1;
  uint32_t version_minor = 0;
  uint64_t original_image_size = 0;
  uint64_t vbmeta_offset = 0;
  uint64_t vbmeta_size = 0;
};
std::array<uint8_t, kFooterSize> SerializeFooter(const Footer& footer);
// Fails on a wrong magic; the numbers are returned unchecked.
android::base::Result<Footer> ParseFooter(const uint8_t* bytes);

struct VbmetaHeader {
  uint32_t required_major = 1;
  uint32_t required_minor = 0;
  uint64_t auth_block_size = 0;
  uint64_t aux_block_size = 0;
  uint32_t algorithm_type = 0;
  uint64_t hash_offset = 0;
  uint64_t hash_size = 0;
  uint64_t signature_offset = 0;
  uint64_t signature_size = 0;
  uint64_t public_key_offset = 0;
  uint64_t public_key_size = 0;
  uint64_t public_key_metadata_offset = 0;
  uint64_t public_key_metadata_size = 0;
  uint64_t descriptors_offset = 0;
  uint64_t descriptors_size = 0;
  uint64_t rollback_index = 0;
  uint32_t flags = 0;
  uint32_t rollback_index_location = 0;
  std::string release_string;  // at most 47 characters
};
std::array<uint8_t, kVbmetaHeaderSize> SerializeVbmetaHeader(const VbmetaHeader& header);
// Checks the magic, the NUL-terminated release string, and that the
// blocks and every range inside them lie within `size` bytes.
android::base::Result<VbmetaHeader> ParseVbmetaHeader(const uint8_t* bytes, size_t size);

struct HashtreeDescriptor {
  uint32_t dm_verity_version = 1;
  uint64_t image_size = 0;
  uint64_t tree_offset = 0;
  uint64_t tree_size = 0;
  uint32_t data_block_size = 4096;
  uint32_t hash_block_size = 4096;
  uint32_t fec_num_roots = 0;
  uint64_t fec_offset = 0;
  uint64_t fec_size = 0;
  std::string hash_algorithm;  // at most 32 characters
  std::string partition_name;
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
  uint32_t flags = 0;
};
// The whole descriptor, tag and length included, padded to a multiple of 8.
std::vector<uint8_t> SerializeHashtreeDescriptor(const HashtreeDescriptor& descriptor);

struct HashDescriptor {
  uint64_t image_size = 0;
  std::string hash_algorithm;
  std::string partition_name;
  std::vector<uint8_t> salt;
  std::vector<uint8_t> digest;
  uint32_t flags = 0;
};

// One descriptor of the descriptor area; `body` points at the bytes that
// follow its 16-byte header.
struct RawDescriptor {
  uint64_t tag;
  uint64_t offset;  // within the descriptor area
  const uint8_t* body;
  uint64_t body_size;
};
// Walks the descriptor area; fails on the first descriptor that does not fit.
android::base::Result<std::vector<RawDescriptor>> SplitDescriptors(const uint8_t* area,
                                                                   size_t size);
android::base::Result<HashtreeDescriptor> ParseHashtreeDescriptor(const RawDescriptor& raw);
android::base::Result<HashDescriptor> ParseHashDescriptor(const RawDescriptor& raw);

}  // namespace rpktool
