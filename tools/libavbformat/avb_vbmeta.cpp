// The signing algorithms, the footer and the vbmeta block's header.
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>

#include "avb_format.h"
#include "byte_order.h"

namespace avbformat {
namespace {

constexpr char kFooterMagic[] = "AVBf";
constexpr char kVbmetaMagic[] = "AVB0";
constexpr size_t kMagicSize = 4;
constexpr size_t kReleaseStringOffset = 128;

constexpr Algorithm kAlgorithms[kAlgorithmCount] = {
    {0, "NONE", "sha256", 0, 0, 0},
    {1, "SHA256_RSA2048", "sha256", 32, 2048, 256},
    {2, "SHA256_RSA4096", "sha256", 32, 4096, 512},
    {3, "SHA256_RSA8192", "sha256", 32, 8192, 1024},
    {4, "SHA512_RSA2048", "sha512", 64, 2048, 256},
    {5, "SHA512_RSA4096", "sha512", 64, 4096, 512},
    {6, "SHA512_RSA8192", "sha512", 64, 8192, 1024},
};

VbmetaCheck Invalid(VbmetaCheck check, const std::string& reason) {
  check.verdict = VbmetaVerdict::kInvalidHeader;
  check.reason = reason;
  return check;
}

}  // namespace

const char* DescriptorTagName(uint64_t tag) {
  static const char* const kNames[] = {"property", "hashtree", "hash", "kernel_cmdline",
                                       "chain_partition"};
  return tag < std::size(kNames) ? kNames[tag] : "unknown";
}

const Algorithm* FindAlgorithm(uint32_t type) {
  return type < kAlgorithmCount ? &kAlgorithms[type] : nullptr;
}

const Algorithm* FindAlgorithm(const std::string& name) {
  for (const Algorithm& algorithm : kAlgorithms) {
    if (algorithm.key_bits != 0 && strcasecmp(algorithm.name, name.c_str()) == 0) {
      return &algorithm;
    }
  }
  return nullptr;
}

bool IsRsaKeySize(uint32_t bits) { return bits == 2048 || bits == 4096 || bits == 8192; }

bool Footer::operator==(const Footer& o) const {
  return version_major == o.version_major && version_minor == o.version_minor &&
         original_image_size == o.original_image_size && vbmeta_offset == o.vbmeta_offset &&
         vbmeta_size == o.vbmeta_size;
}

std::array<uint8_t, kFooterSize> WriteFooter(const Footer& footer) {
  std::array<uint8_t, kFooterSize> out{};
  memcpy(out.data(), kFooterMagic, kMagicSize);
  PutBe32(&out[4], footer.version_major);
  PutBe32(&out[8], footer.version_minor);
  PutBe64(&out[12], footer.original_image_size);
  PutBe64(&out[20], footer.vbmeta_offset);
  PutBe64(&out[28], footer.vbmeta_size);
  return out;
}

std::optional<Footer> ReadFooter(const uint8_t* bytes) {
  if (memcmp(bytes, kFooterMagic, kMagicSize) != 0) return std::nullopt;
  Footer footer;
  footer.version_major = GetBe32(bytes + 4);
  footer.version_minor = GetBe32(bytes + 8);
  footer.original_image_size = GetBe64(bytes + 12);
  footer.vbmeta_offset = GetBe64(bytes + 20);
  footer.vbmeta_size = GetBe64(bytes + 28);
  // A newer major version may move fields.
  if (footer.version_major > kFooterVersionMajor) return std::nullopt;
  return footer;
}

bool VbmetaHeader::operator==(const VbmetaHeader& o) const {
  auto fields = [](const VbmetaHeader& h) {
    return std::tie(h.required_major, h.required_minor, h.auth_block_size, h.aux_block_size,
                    h.algorithm_type, h.hash_offset, h.hash_size, h.signature_offset,
                    h.signature_size, h.public_key_offset, h.public_key_size,
                    h.public_key_metadata_offset, h.public_key_metadata_size, h.descriptors_offset,
                    h.descriptors_size, h.rollback_index, h.flags, h.rollback_index_location,
                    h.release_string);
  };
  return fields(*this) == fields(o);
}

std::array<uint8_t, kVbmetaHeaderSize> WriteVbmetaHeader(const VbmetaHeader& h) {
  std::array<uint8_t, kVbmetaHeaderSize> out{};
  uint8_t* p = out.data();
  memcpy(p, kVbmetaMagic, kMagicSize);
  PutBe32(p + 4, h.required_major);
  PutBe32(p + 8, h.required_minor);
  PutBe64(p + 12, h.auth_block_size);
  PutBe64(p + 20, h.aux_block_size);
  PutBe32(p + 28, h.algorithm_type);
  PutBe64(p + 32, h.hash_offset);
  PutBe64(p + 40, h.hash_size);
  PutBe64(p + 48, h.signature_offset);
  PutBe64(p + 56, h.signature_size);
  PutBe64(p + 64, h.public_key_offset);
  PutBe64(p + 72, h.public_key_size);
  PutBe64(p + 80, h.public_key_metadata_offset);
  PutBe64(p + 88, h.public_key_metadata_size);
  PutBe64(p + 96, h.descriptors_offset);
  PutBe64(p + 104, h.descriptors_size);
  PutBe64(p + 112, h.rollback_index);
  PutBe32(p + 120, h.flags);
  PutBe32(p + 124, h.rollback_index_location);
  memcpy(p + kReleaseStringOffset, h.release_string.data(),
         std::min(h.release_string.size(), kReleaseStringSize - 1));
  return out;
}

VbmetaHeader DecodeVbmetaHeader(const uint8_t* p) {
  VbmetaHeader h;
  h.required_major = GetBe32(p + 4);
  h.required_minor = GetBe32(p + 8);
  h.auth_block_size = GetBe64(p + 12);
  h.aux_block_size = GetBe64(p + 20);
  h.algorithm_type = GetBe32(p + 28);
  h.hash_offset = GetBe64(p + 32);
  h.hash_size = GetBe64(p + 40);
  h.signature_offset = GetBe64(p + 48);
  h.signature_size = GetBe64(p + 56);
  h.public_key_offset = GetBe64(p + 64);
  h.public_key_size = GetBe64(p + 72);
  h.public_key_metadata_offset = GetBe64(p + 80);
  h.public_key_metadata_size = GetBe64(p + 88);
  h.descriptors_offset = GetBe64(p + 96);
  h.descriptors_size = GetBe64(p + 104);
  h.rollback_index = GetBe64(p + 112);
  h.flags = GetBe32(p + 120);
  h.rollback_index_location = GetBe32(p + 124);
  const char* release = reinterpret_cast<const char*>(p + kReleaseStringOffset);
  h.release_string.assign(release, strnlen(release, kReleaseStringSize));
  return h;
}

bool HasVbmetaMagic(const uint8_t* data, size_t size) {
  return data != nullptr && size >= kVbmetaHeaderSize &&
         memcmp(data, kVbmetaMagic, kMagicSize) == 0;
}

VbmetaCheck CheckVbmeta(const uint8_t* data, size_t size) {
  VbmetaCheck check;
  if (!HasVbmetaMagic(data, size)) {
    return Invalid(check, "no vbmeta header (too short, or the magic is not AVB0)");
  }
  const VbmetaHeader& h = check.header = DecodeVbmetaHeader(data);
  if (h.required_major != kVerifierVersionMajor || h.required_minor > kVerifierVersionMinor) {
    check.verdict = VbmetaVerdict::kUnsupportedVersion;
    check.reason = "vbmeta requires version " + std::to_string(h.required_major) + "." +
                   std::to_string(h.required_minor);
    return check;
  }
  if (data[kReleaseStringOffset + kReleaseStringSize - 1] != 0) {
    return Invalid(check, "the release string is not terminated");
  }
  if (h.auth_block_size % kVbmetaBlockAlignment != 0 ||
      h.aux_block_size % kVbmetaBlockAlignment != 0) {
    return Invalid(check, "block sizes are not multiples of 64");
  }
  uint64_t blocks;
  if (!CheckedAdd(h.auth_block_size, h.aux_block_size, &blocks) ||
      !RangeFits(kVbmetaHeaderSize, blocks, size)) {
    return Invalid(check, "the authentication and auxiliary blocks exceed the vbmeta block");
  }
  if (!RangeFits(h.hash_offset, h.hash_size, h.auth_block_size) ||
      !RangeFits(h.signature_offset, h.signature_size, h.auth_block_size)) {
    return Invalid(check, "hash or signature lies outside the authentication block");
  }
  if (!RangeFits(h.public_key_offset, h.public_key_size, h.aux_block_size) ||
      (h.public_key_metadata_size != 0 &&
       !RangeFits(h.public_key_metadata_offset, h.public_key_metadata_size, h.aux_block_size))) {
    return Invalid(check, "key or key metadata lies outside the auxiliary block");
  }
  if (h.algorithm_type != kAlgorithmNone) {
    const Algorithm* algorithm = FindAlgorithm(h.algorithm_type);
    if (algorithm == nullptr) return Invalid(check, "unknown algorithm type");
    if (h.hash_size != algorithm->hash_size) {
      return Invalid(check, "hash size does not match the algorithm");
    }
  }
  check.verdict = VbmetaVerdict::kValid;
  return check;
}

uint64_t VbmetaSize(const Algorithm& algorithm, size_t descriptors_size, size_t public_key_size) {
  return kVbmetaHeaderSize +
         RoundUp(uint64_t{algorithm.hash_size} + algorithm.signature_size, kVbmetaBlockAlignment) +
         RoundUp(uint64_t{descriptors_size} + public_key_size, kVbmetaBlockAlignment);
}

std::optional<std::vector<uint8_t>> WriteSignedVbmeta(const Algorithm& algorithm,
                                                      const std::vector<uint8_t>& descriptors,
                                                      const std::vector<uint8_t>& public_key,
                                                      const std::string& release,
                                                      const Signer& sign) {
  VbmetaHeader header;
  header.auth_block_size = VbmetaSize(algorithm, 0, 0) - kVbmetaHeaderSize;
  header.aux_block_size =
      VbmetaSize(algorithm, descriptors.size(), public_key.size()) - header.aux_offset();
  header.algorithm_type = algorithm.type;
  header.hash_size = algorithm.hash_size;
  header.signature_offset = algorithm.hash_size;
  header.signature_size = algorithm.signature_size;
  header.descriptors_size = descriptors.size();
  header.public_key_offset = descriptors.size();
  header.public_key_size = public_key.size();
  header.public_key_metadata_offset = descriptors.size() + public_key.size();
  header.release_string = release;

  const auto header_bytes = WriteVbmetaHeader(header);
  std::vector<uint8_t> block(header.aux_offset() + header.aux_block_size, 0);
  std::copy(header_bytes.begin(), header_bytes.end(), block.begin());
  const auto aux = block.begin() + header.aux_offset();
  std::copy(public_key.begin(), public_key.end(),
            std::copy(descriptors.begin(), descriptors.end(), aux));
  // The signature covers the header and the auxiliary block, not the
  // authentication block that holds it.
  std::vector<uint8_t> covered;
  covered.reserve(kVbmetaHeaderSize + header.aux_block_size);
  covered.insert(covered.end(), block.begin(), block.begin() + kVbmetaHeaderSize);
  covered.insert(covered.end(), aux, block.end());
  const std::optional<HashAndSignature> signed_by = sign(covered);
  if (!signed_by || signed_by->hash.size() != algorithm.hash_size ||
      signed_by->signature.size() != algorithm.signature_size) {
    return std::nullopt;
  }
  std::copy(signed_by->signature.begin(), signed_by->signature.end(),
            std::copy(signed_by->hash.begin(), signed_by->hash.end(),
                      block.begin() + header.auth_offset()));
  return block;
}

}  // namespace avbformat
