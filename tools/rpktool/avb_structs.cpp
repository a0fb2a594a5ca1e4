#include "avb_structs.h"

#include <algorithm>
#include <cstring>

#include "byte_order.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

constexpr char kFooterMagic[] = "AVBf";
constexpr char kVbmetaMagic[] = "AVB0";
constexpr size_t kHashAlgorithmFieldSize = 32;

std::string FixedString(const uint8_t* field, size_t size) {
  size_t length = strnlen(reinterpret_cast<const char*>(field), size);
  return std::string(reinterpret_cast<const char*>(field), length);
}

// The partition name, salt and digest that follow a descriptor's fixed part;
// the caller has checked that their lengths fit the descriptor.
void SplitTail(const uint8_t* tail, uint64_t name_len, uint64_t salt_len, uint64_t digest_len,
               std::string* name, std::vector<uint8_t>* salt, std::vector<uint8_t>* digest) {
  name->assign(reinterpret_cast<const char*>(tail), name_len);
  salt->assign(tail + name_len, tail + name_len + salt_len);
  digest->assign(tail + name_len + salt_len, tail + name_len + salt_len + digest_len);
}

// True when [offset, offset + length) lies within [0, limit).
bool RangeFits(uint64_t offset, uint64_t length, uint64_t limit) {
  return offset <= limit && length <= limit - offset;
}

}  // namespace

const char* DescriptorTagName(uint64_t tag) {
  switch (tag) {
    case kTagProperty: return "property";
    case kTagHashtree: return "hashtree";
    case kTagHash: return "hash";
    case kTagKernelCmdline: return "kernel_cmdline";
    case kTagChainPartition: return "chain_partition";
    default: return "unknown";
  }
}

std::array<uint8_t, kFooterSize> SerializeFooter(const Footer& footer) {
  std::array<uint8_t, kFooterSize> out{};
  memcpy(out.data(), kFooterMagic, 4);
  PutBe32(&out[4], footer.version_major);
  PutBe32(&out[8], footer.version_minor);
  PutBe64(&out[12], footer.original_image_size);
  PutBe64(&out[20], footer.vbmeta_offset);
  PutBe64(&out[28], footer.vbmeta_size);
  return out;
}

Result<Footer> ParseFooter(const uint8_t* bytes) {
  if (memcmp(bytes, kFooterMagic, 4) != 0) return Error() << "no AVB footer (magic is not AVBf)";
  Footer footer;
  footer.version_major = GetBe32(bytes + 4);
  footer.version_minor = GetBe32(bytes + 8);
  footer.original_image_size = GetBe64(bytes + 12);
  footer.vbmeta_offset = GetBe64(bytes + 20);
  footer.vbmeta_size = GetBe64(bytes + 28);
  return footer;
}

std::array<uint8_t, kVbmetaHeaderSize> SerializeVbmetaHeader(const VbmetaHeader& h) {
  std::array<uint8_t, kVbmetaHeaderSize> out{};
  memcpy(out.data(), kVbmetaMagic, 4);
  PutBe32(&out[4], h.required_major);
  PutBe32(&out[8], h.required_minor);
  PutBe64(&out[12], h.auth_block_size);
  PutBe64(&out[20], h.aux_block_size);
  PutBe32(&out[28], h.algorithm_type);
  PutBe64(&out[32], h.hash_offset);
  PutBe64(&out[40], h.hash_size);
  PutBe64(&out[48], h.signature_offset);
  PutBe64(&out[56], h.signature_size);
  PutBe64(&out[64], h.public_key_offset);
  PutBe64(&out[72], h.public_key_size);
  PutBe64(&out[80], h.public_key_metadata_offset);
  PutBe64(&out[88], h.public_key_metadata_size);
  PutBe64(&out[96], h.descriptors_offset);
  PutBe64(&out[104], h.descriptors_size);
  PutBe64(&out[112], h.rollback_index);
  PutBe32(&out[120], h.flags);
  PutBe32(&out[124], h.rollback_index_location);
  memcpy(&out[128], h.release_string.data(),
         std::min(h.release_string.size(), kReleaseStringSize - 1));
  return out;
}

Result<VbmetaHeader> ParseVbmetaHeader(const uint8_t* b, size_t size) {
  if (size < kVbmetaHeaderSize) return Error() << "vbmeta of " << size << " bytes is too short";
  if (memcmp(b, kVbmetaMagic, 4) != 0) return Error() << "vbmeta magic is not AVB0";
  VbmetaHeader h;
  h.required_major = GetBe32(b + 4);
  h.required_minor = GetBe32(b + 8);
  h.auth_block_size = GetBe64(b + 12);
  h.aux_block_size = GetBe64(b + 20);
  h.algorithm_type = GetBe32(b + 28);
  h.hash_offset = GetBe64(b + 32);
  h.hash_size = GetBe64(b + 40);
  h.signature_offset = GetBe64(b + 48);
  h.signature_size = GetBe64(b + 56);
  h.public_key_offset = GetBe64(b + 64);
  h.public_key_size = GetBe64(b + 72);
  h.public_key_metadata_offset = GetBe64(b + 80);
  h.public_key_metadata_size = GetBe64(b + 88);
  h.descriptors_offset = GetBe64(b + 96);
  h.descriptors_size = GetBe64(b + 104);
  h.rollback_index = GetBe64(b + 112);
  h.flags = GetBe32(b + 120);
  h.rollback_index_location = GetBe32(b + 124);
  if (b[128 + kReleaseStringSize - 1] != 0) return Error() << "release string is not terminated";
  h.release_string = FixedString(b + 128, kReleaseStringSize);

  if (h.auth_block_size % 64 != 0 || h.aux_block_size % 64 != 0) {
    return Error() << "vbmeta block sizes are not multiples of 64";
  }
  const uint64_t body = size - kVbmetaHeaderSize;
  if (!RangeFits(0, h.auth_block_size, body) ||
      !RangeFits(h.auth_block_size, h.aux_block_size, body)) {
    return Error() << "vbmeta blocks (" << h.auth_block_size << " + " << h.aux_block_size
                   << " bytes) exceed the " << size << "-byte vbmeta";
  }
  if (!RangeFits(h.hash_offset, h.hash_size, h.auth_block_size) ||
      !RangeFits(h.signature_offset, h.signature_size, h.auth_block_size)) {
    return Error() << "hash or signature lies outside the authentication block";
  }
  if (!RangeFits(h.public_key_offset, h.public_key_size, h.aux_block_size) ||
      !RangeFits(h.public_key_metadata_offset, h.public_key_metadata_size, h.aux_block_size) ||
      !RangeFits(h.descriptors_offset, h.descriptors_size, h.aux_block_size)) {
    return Error() << "key, key metadata or descriptors lie outside the auxiliary block";
  }
  return h;
}

std::vector<uint8_t> SerializeHashtreeDescriptor(const HashtreeDescriptor& d) {
  const size_t variable = d.partition_name.size() + d.salt.size() + d.root_digest.size();
  const size_t total = RoundUp(kHashtreeDescriptorFixedSize + variable, 8);
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
  memcpy(p + 72, d.hash_algorithm.data(), std::min(d.hash_algorithm.size(), kHashAlgorithmFieldSize));
  PutBe32(p + 104, static_cast<uint32_t>(d.partition_name.size()));
  PutBe32(p + 108, static_cast<uint32_t>(d.salt.size()));
  PutBe32(p + 112, static_cast<uint32_t>(d.root_digest.size()));
  PutBe32(p + 116, d.flags);
  uint8_t* tail = p + kHashtreeDescriptorFixedSize;
  tail = std::copy(d.partition_name.begin(), d.partition_name.end(), tail);
  tail = std::copy(d.salt.begin(), d.salt.end(), tail);
  std::copy(d.root_digest.begin(), d.root_digest.end(), tail);
  return out;
}

Result<std::vector<RawDescriptor>> SplitDescriptors(const uint8_t* area, size_t size) {
  std::vector<RawDescriptor> out;
  uint64_t offset = 0;
  while (offset < size) {
    if (size - offset < kDescriptorHeaderSize) {
      return Error() << "descriptor at offset " << offset << " has no room for its header";
    }
    const uint64_t tag = GetBe64(area + offset);
    const uint64_t body_size = GetBe64(area + offset + 8);
    if (body_size % 8 != 0) {
      return Error() << "descriptor at offset " << offset << " has a length (" << body_size
                     << ") that is not a multiple of 8";
    }
    if (body_size > size - offset - kDescriptorHeaderSize) {
      return Error() << "descriptor at offset " << offset << " runs past the descriptor area";
    }
    out.push_back({tag, offset, area + offset + kDescriptorHeaderSize, body_size});
    offset += kDescriptorHeaderSize + body_size;
  }
  return out;
}

Result<HashtreeDescriptor> ParseHashtreeDescriptor(const RawDescriptor& raw) {
  constexpr size_t kFixedBody = kHashtreeDescriptorFixedSize - kDescriptorHeaderSize;
  if (raw.tag != kTagHashtree) return Error() << "descriptor is not a hashtree descriptor";
  if (raw.body_size < kFixedBody) return Error() << "hashtree descriptor is too short";
  const uint8_t* b = raw.body - kDescriptorHeaderSize;  // offsets below count from the tag
  HashtreeDescriptor d;
  d.dm_verity_version = GetBe32(b + 16);
  d.image_size = GetBe64(b + 20);
  d.tree_offset = GetBe64(b + 28);
  d.tree_size = GetBe64(b + 36);
  d.data_block_size = GetBe32(b + 44);
  d.hash_block_size = GetBe32(b + 48);
  d.fec_num_roots = GetBe32(b + 52);
  d.fec_offset = GetBe64(b + 56);
  d.fec_size = GetBe64(b + 64);
  d.hash_algorithm = FixedString(b + 72, kHashAlgorithmFieldSize);
  const uint64_t name_len = GetBe32(b + 104);
  const uint64_t salt_len = GetBe32(b + 108);
  const uint64_t digest_len = GetBe32(b + 112);
  d.flags = GetBe32(b + 116);
  if (name_len + salt_len + digest_len > raw.body_size - kFixedBody) {
    return Error() << "hashtree descriptor's name, salt and digest exceed its length";
  }
  SplitTail(b + kHashtreeDescriptorFixedSize, name_len, salt_len, digest_len, &d.partition_name,
            &d.salt, &d.root_digest);
  return d;
}

Result<HashDescriptor> ParseHashDescriptor(const RawDescriptor& raw) {
  constexpr size_t kFixedBody = kHashDescriptorFixedSize - kDescriptorHeaderSize;
  if (raw.tag != kTagHash) return Error() << "descriptor is not a hash descriptor";
  if (raw.body_size < kFixedBody) return Error() << "hash descriptor is too short";
  const uint8_t* b = raw.body - kDescriptorHeaderSize;
  HashDescriptor d;
  d.image_size = GetBe64(b + 16);
  d.hash_algorithm = FixedString(b + 24, kHashAlgorithmFieldSize);
  const uint64_t name_len = GetBe32(b + 56);
  const uint64_t salt_len = GetBe32(b + 60);
  const uint64_t digest_len = GetBe32(b + 64);
  d.flags = GetBe32(b + 68);
  if (name_len + salt_len + digest_len > raw.body_size - kFixedBody) {
    return Error() << "hash descriptor's name, salt and digest exceed its length";
  }
  SplitTail(b + kHashDescriptorFixedSize, name_len, salt_len, digest_len, &d.partition_name,
            &d.salt, &d.digest);
  return d;
}

}  // namespace rpktool
