// Descriptors of a vbmeta block's auxiliary block, and the one that carries
// an image's hash tree: a fixed part, then the partition name, the salt and
// the root digest, padded to 8 bytes.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "avb_format.h"
#include "byte_order.h"

namespace avbformat {
namespace {

// Offsets in the hashtree descriptor, from its start.
constexpr size_t kNameLengthOffset = 104, kSaltLengthOffset = 108, kDigestLengthOffset = 112,
                 kFlagsOffset = 116;

}  // namespace

std::optional<DescriptorHeader> ReadDescriptorHeader(const uint8_t* bytes) {
  const DescriptorHeader header{GetBe64(bytes), GetBe64(bytes + 8)};
  if (header.num_bytes_following % kDescriptorAlignment != 0) return std::nullopt;
  return header;
}

std::vector<DescriptorSpan> WalkDescriptors(const uint8_t* vbmeta, size_t size) {
  std::vector<DescriptorSpan> spans;
  if (!HasVbmetaMagic(vbmeta, size)) return spans;
  const VbmetaHeader h = DecodeVbmetaHeader(vbmeta);
  uint64_t start, end;
  if (!CheckedAdd(kVbmetaHeaderSize, h.auth_block_size, &start) ||
      !CheckedAdd(start, h.descriptors_offset, &start) ||
      !CheckedAdd(start, h.descriptors_size, &end) || end > size) {
    return spans;
  }
  for (uint64_t at = start; end - at >= kDescriptorHeaderSize;) {
    const std::optional<DescriptorHeader> header = ReadDescriptorHeader(vbmeta + at);
    if (!header || header->num_bytes_following > end - at - kDescriptorHeaderSize) break;
    const uint64_t whole = kDescriptorHeaderSize + header->num_bytes_following;
    spans.push_back({header->tag, static_cast<size_t>(at), static_cast<size_t>(whole)});
    at += whole;
  }
  return spans;
}

bool HashtreeDescriptor::operator==(const HashtreeDescriptor& o) const {
  auto fields = [](const HashtreeDescriptor& d) {
    return std::tie(d.dm_verity_version, d.image_size, d.tree_offset, d.tree_size,
                    d.data_block_size, d.hash_block_size, d.fec_num_roots, d.fec_offset, d.fec_size,
                    d.hash_algorithm, d.flags, d.partition_name, d.salt, d.root_digest);
  };
  return fields(*this) == fields(o);
}

std::vector<uint8_t> WriteHashtreeDescriptor(const HashtreeDescriptor& d) {
  const std::string& name = d.partition_name;
  const uint64_t total =
      RoundUp(kHashtreeDescriptorSize + name.size() + d.salt.size() + d.root_digest.size(),
              kDescriptorAlignment);
  std::vector<uint8_t> out(total, 0);
  uint8_t* p = out.data();
  PutBe64(p, kTagHashtree);
  PutBe64(p + 8, total - kDescriptorHeaderSize);
  PutBe32(p + 16, d.dm_verity_version);
  PutBe64(p + 20, d.image_size);
  PutBe64(p + 28, d.tree_offset);
  PutBe64(p + 36, d.tree_size);
  PutBe32(p + 44, d.data_block_size);
  PutBe32(p + 48, d.hash_block_size);
  PutBe32(p + 52, d.fec_num_roots);
  PutBe64(p + 56, d.fec_offset);
  PutBe64(p + 64, d.fec_size);
  memcpy(p + 72, d.hash_algorithm.data(),
         std::min(d.hash_algorithm.size(), kHashAlgorithmFieldSize));
  PutBe32(p + kNameLengthOffset, static_cast<uint32_t>(name.size()));
  PutBe32(p + kSaltLengthOffset, static_cast<uint32_t>(d.salt.size()));
  PutBe32(p + kDigestLengthOffset, static_cast<uint32_t>(d.root_digest.size()));
  PutBe32(p + kFlagsOffset, d.flags);
  uint8_t* tail = std::copy(name.begin(), name.end(), p + kHashtreeDescriptorSize);
  std::copy(d.root_digest.begin(), d.root_digest.end(),
            std::copy(d.salt.begin(), d.salt.end(), tail));
  return out;
}

bool IsValidHashtreeDescriptor(const uint8_t* bytes) {
  const std::optional<DescriptorHeader> header = ReadDescriptorHeader(bytes);
  if (!header || header->tag != kTagHashtree) return false;
  // Summed in 64 bits, no 32-bit length can wrap.
  const uint64_t needed = kHashtreeDescriptorSize - kDescriptorHeaderSize +
                          uint64_t{GetBe32(bytes + kNameLengthOffset)} +
                          GetBe32(bytes + kSaltLengthOffset) + GetBe32(bytes + kDigestLengthOffset);
  return needed <= header->num_bytes_following;
}

std::optional<HashtreeDescriptor> ReadHashtreeDescriptor(const uint8_t* p, size_t size) {
  if (size < kHashtreeDescriptorSize || !IsValidHashtreeDescriptor(p) ||
      GetBe64(p + 8) > size - kDescriptorHeaderSize) {
    return std::nullopt;
  }
  HashtreeDescriptor d;
  d.dm_verity_version = GetBe32(p + 16);
  d.image_size = GetBe64(p + 20);
  d.tree_offset = GetBe64(p + 28);
  d.tree_size = GetBe64(p + 36);
  d.data_block_size = GetBe32(p + 44);
  d.hash_block_size = GetBe32(p + 48);
  d.fec_num_roots = GetBe32(p + 52);
  d.fec_offset = GetBe64(p + 56);
  d.fec_size = GetBe64(p + 64);
  const char* algorithm = reinterpret_cast<const char*>(p + 72);
  d.hash_algorithm.assign(algorithm, strnlen(algorithm, kHashAlgorithmFieldSize));
  d.flags = GetBe32(p + kFlagsOffset);
  // Within the stated length, which lies inside `size`.
  const uint8_t* name = p + kHashtreeDescriptorSize;
  const uint8_t* salt = name + GetBe32(p + kNameLengthOffset);
  const uint8_t* digest = salt + GetBe32(p + kSaltLengthOffset);
  d.partition_name.assign(reinterpret_cast<const char*>(name), salt - name);
  d.salt.assign(salt, digest);
  d.root_digest.assign(digest, digest + GetBe32(p + kDigestLengthOffset));
  return d;
}

}  // namespace avbformat
