// Descriptors of a vbmeta block's auxiliary block, and the two that carry
// an image's integrity data: hashtree and hash. Both have a fixed part
// followed by the partition name, the salt and the digest, padded to 8.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "avb_format.h"
#include "byte_order.h"

namespace avbformat {
namespace {

// Where a descriptor kind keeps its three variable lengths, counted from
// the descriptor's start; the variable bytes follow the fixed part.
struct VariableLayout {
  uint64_t tag;
  size_t fixed_size;
  size_t lengths_offset;  // name, salt and digest lengths, then flags
};
constexpr VariableLayout kHashtreeLayout{kTagHashtree, kHashtreeDescriptorSize, 104};
constexpr VariableLayout kHashLayout{kTagHash, kHashDescriptorSize, 56};

struct Variable {
  std::string* name;
  std::vector<uint8_t>* salt;
  std::vector<uint8_t>* digest;
};

std::string FixedString(const uint8_t* field, size_t size) {
  const char* text = reinterpret_cast<const char*>(field);
  return std::string(text, strnlen(text, size));
}

// The fixed part of `layout` at `bytes` is valid: its header, its tag, and
// the variable bytes within the stated length.
bool IsValid(const VariableLayout& layout, const uint8_t* bytes) {
  const std::optional<DescriptorHeader> header = ReadDescriptorHeader(bytes);
  if (!header || header->tag != layout.tag) return false;
  const uint8_t* lengths = bytes + layout.lengths_offset;
  // Summed in 64 bits, no 32-bit length can wrap.
  const uint64_t needed = layout.fixed_size - kDescriptorHeaderSize + uint64_t{GetBe32(lengths)} +
                          GetBe32(lengths + 4) + GetBe32(lengths + 8);
  return needed <= header->num_bytes_following;
}

// Reads the variable part and the flags; the caller reads the rest of the
// fixed part. Nothing when the descriptor is invalid or exceeds `size`.
bool ReadVariable(const VariableLayout& layout, const uint8_t* bytes, size_t size, Variable out,
                  uint32_t* flags) {
  if (size < layout.fixed_size || !IsValid(layout, bytes) ||
      GetBe64(bytes + 8) > size - kDescriptorHeaderSize) {
    return false;
  }
  const uint8_t* lengths = bytes + layout.lengths_offset;
  const uint8_t* name = bytes + layout.fixed_size;
  const uint8_t* salt = name + GetBe32(lengths);
  const uint8_t* digest = salt + GetBe32(lengths + 4);
  out.name->assign(reinterpret_cast<const char*>(name), salt - name);
  out.salt->assign(salt, digest);
  out.digest->assign(digest, digest + GetBe32(lengths + 8));
  *flags = GetBe32(lengths + 12);
  return true;
}

// A zeroed descriptor of `layout` with its header, lengths, flags and
// variable part written; the caller writes the rest of the fixed part.
std::vector<uint8_t> WriteVariable(const VariableLayout& layout, const std::string& name,
                                   const std::vector<uint8_t>& salt,
                                   const std::vector<uint8_t>& digest, uint32_t flags) {
  const uint64_t total =
      RoundUp(layout.fixed_size + name.size() + salt.size() + digest.size(), kDescriptorAlignment);
  std::vector<uint8_t> out(total, 0);
  PutBe64(&out[0], layout.tag);
  PutBe64(&out[8], total - kDescriptorHeaderSize);
  uint8_t* lengths = &out[layout.lengths_offset];
  PutBe32(lengths, static_cast<uint32_t>(name.size()));
  PutBe32(lengths + 4, static_cast<uint32_t>(salt.size()));
  PutBe32(lengths + 8, static_cast<uint32_t>(digest.size()));
  PutBe32(lengths + 12, flags);
  uint8_t* tail = &out[layout.fixed_size];
  tail = std::copy(name.begin(), name.end(), tail);
  std::copy(digest.begin(), digest.end(), std::copy(salt.begin(), salt.end(), tail));
  return out;
}

void WriteFixedString(uint8_t* field, const std::string& text) {
  memcpy(field, text.data(), std::min(text.size(), kHashAlgorithmFieldSize));
}

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
                    d.data_block_size, d.hash_block_size, d.fec_num_roots, d.fec_offset,
                    d.fec_size, d.hash_algorithm, d.flags, d.partition_name, d.salt,
                    d.root_digest);
  };
  return fields(*this) == fields(o);
}

std::vector<uint8_t> WriteHashtreeDescriptor(const HashtreeDescriptor& d) {
  std::vector<uint8_t> out =
      WriteVariable(kHashtreeLayout, d.partition_name, d.salt, d.root_digest, d.flags);
  uint8_t* p = out.data();
  PutBe32(p + 16, d.dm_verity_version);
  PutBe64(p + 20, d.image_size);
  PutBe64(p + 28, d.tree_offset);
  PutBe64(p + 36, d.tree_size);
  PutBe32(p + 44, d.data_block_size);
  PutBe32(p + 48, d.hash_block_size);
  PutBe32(p + 52, d.fec_num_roots);
  PutBe64(p + 56, d.fec_offset);
  PutBe64(p + 64, d.fec_size);
  WriteFixedString(p + 72, d.hash_algorithm);
  return out;
}

bool IsValidHashtreeDescriptor(const uint8_t* bytes) { return IsValid(kHashtreeLayout, bytes); }

std::optional<HashtreeDescriptor> ReadHashtreeDescriptor(const uint8_t* p, size_t size) {
  HashtreeDescriptor d;
  if (!ReadVariable(kHashtreeLayout, p, size, {&d.partition_name, &d.salt, &d.root_digest},
                    &d.flags)) {
    return std::nullopt;
  }
  d.dm_verity_version = GetBe32(p + 16);
  d.image_size = GetBe64(p + 20);
  d.tree_offset = GetBe64(p + 28);
  d.tree_size = GetBe64(p + 36);
  d.data_block_size = GetBe32(p + 44);
  d.hash_block_size = GetBe32(p + 48);
  d.fec_num_roots = GetBe32(p + 52);
  d.fec_offset = GetBe64(p + 56);
  d.fec_size = GetBe64(p + 64);
  d.hash_algorithm = FixedString(p + 72, kHashAlgorithmFieldSize);
  return d;
}

bool HashDescriptor::operator==(const HashDescriptor& o) const {
  return std::tie(image_size, hash_algorithm, flags, partition_name, salt, digest) ==
         std::tie(o.image_size, o.hash_algorithm, o.flags, o.partition_name, o.salt, o.digest);
}

std::vector<uint8_t> WriteHashDescriptor(const HashDescriptor& d) {
  std::vector<uint8_t> out = WriteVariable(kHashLayout, d.partition_name, d.salt, d.digest, d.flags);
  PutBe64(&out[16], d.image_size);
  WriteFixedString(&out[24], d.hash_algorithm);
  return out;
}

std::optional<HashDescriptor> ReadHashDescriptor(const uint8_t* p, size_t size) {
  HashDescriptor d;
  if (!ReadVariable(kHashLayout, p, size, {&d.partition_name, &d.salt, &d.digest}, &d.flags)) {
    return std::nullopt;
  }
  d.image_size = GetBe64(p + 16);
  d.hash_algorithm = FixedString(p + 24, kHashAlgorithmFieldSize);
  return d;
}

}  // namespace avbformat
