#pragma once

// Crafts signed images for tests with the image format library's writers
// and the package tool's signer, so that tests build valid inputs and then
// break exactly one thing, mostly by editing the written bytes.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "avb_format.h"
#include "rsa_key.h"

namespace mend_test {

// Big-endian fields of serialized bytes.
void StoreBe32(std::string* bytes, size_t offset, uint32_t value);
void StoreBe64(std::string* bytes, size_t offset, uint64_t value);
uint64_t LoadBe64(const std::string& bytes, size_t offset);

// "rsa2048" and "rsa4096" from the reference keys, or "rsa8192"; loaded
// once. Aborts when the key cannot be read.
const rpktool::RsaKey& Key(const std::string& name);
// The public key blob a vbmeta block embeds.
std::string KeyBlob(const rpktool::RsaKey& key);

// A descriptor with `tag` whose body is zero-padded to a multiple of 8.
std::string DescriptorBytes(uint64_t tag, const std::string& body);
// A hashtree descriptor of a 1 MiB sha256 image, with 32-byte salt and
// root digest; tests change what they need.
avbformat::HashtreeDescriptor SampleHashtree();
std::string HashtreeBytes(const avbformat::HashtreeDescriptor& descriptor = SampleHashtree());
// Offsets of the hashtree descriptor's three length fields.
inline constexpr size_t kPartitionNameLenOffset = 104;
inline constexpr size_t kSaltLenOffset = 108;
inline constexpr size_t kRootDigestLenOffset = 112;

// A vbmeta block under algorithm type `algorithm`, signed with `key` and
// embedding `public_key_blob` (default: the key's own blob). The key need
// not have the size the algorithm names: the block then holds a signature
// of the key's size.
std::string SignedVbmeta(const std::string& descriptors, uint32_t algorithm = 1,
                         const rpktool::RsaKey& key = Key("rsa2048"),
                         std::optional<std::string> public_key_blob = std::nullopt);
// A vbmeta block with algorithm NONE: no hash, signature or key.
std::string UnsignedVbmeta(const std::string& descriptors);

// Where the parts of a block built here lie, in bytes from its start.
struct VbmetaLayout {
  avbformat::VbmetaHeader header;
  size_t auth_offset;  // the hash, then the signature
  size_t aux_offset;   // the descriptors, then the public key
  size_t public_key_offset;
};
VbmetaLayout LayoutOf(const std::string& vbmeta);

// `data` zero-padded to 4096 bytes, then `vbmeta` zero-padded likewise, then
// a 4096-byte block ending in the footer that points at the vbmeta block.
// `footer_vbmeta_size` replaces the size the footer states.
std::string BuildImage(const std::string& data, const std::string& vbmeta,
                       std::optional<uint64_t> footer_vbmeta_size = std::nullopt);
std::string FooterBytes(const avbformat::Footer& footer);

// A package zip holding a config.txt and `image` at a 4096-byte aligned offset.
void WritePackage(const std::string& path, const std::string& image);

}  // namespace mend_test
