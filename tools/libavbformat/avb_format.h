#pragma once

// The on-disk format of a signed package image: the footer at the image's
// end, the vbmeta block it points at (header, authentication block,
// auxiliary block), the descriptors in that block, the public key blob,
// and every limit these carry. For each structure the writer and the
// reader sit side by side; each reader validates its structure in one
// place, checking every offset and length before use, exactly as a device's
// verifier does, so that what this reader accepts a device accepts.
// All integers are big-endian on disk; the structs here are in host order.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace avbformat {

// ---- limits ---------------------------------------------------------------

inline constexpr size_t kFooterSize = 64;
inline constexpr uint32_t kFooterVersionMajor = 1;
inline constexpr uint32_t kFooterVersionMinor = 0;
inline constexpr size_t kVbmetaHeaderSize = 256;
// The newest vbmeta format a verifier understands; a block may require older.
inline constexpr uint32_t kVerifierVersionMajor = 1;
inline constexpr uint32_t kVerifierVersionMinor = 3;
inline constexpr size_t kReleaseStringSize = 48;  // NUL included
// Authentication and auxiliary blocks are sized in multiples of this.
inline constexpr uint64_t kVbmetaBlockAlignment = 64;
inline constexpr size_t kDescriptorHeaderSize = 16;
// Descriptors are sized in multiples of this.
inline constexpr uint64_t kDescriptorAlignment = 8;
inline constexpr size_t kHashtreeDescriptorSize = 180;  // the fixed part
inline constexpr size_t kHashAlgorithmFieldSize = 32;
inline constexpr size_t kPublicKeyHeaderSize = 8;  // key_num_bits, n0inv
inline constexpr uint32_t kRsaPublicExponent = 65537;
// dm-verity accepts salts of at most this many bytes.
inline constexpr size_t kMaxSaltSize = 256;
// Hash tree block sizes are powers of two in this range; the data area is
// bounded so that no size computation comes near 64-bit overflow.
inline constexpr uint32_t kMinTreeBlockSize = 512;
inline constexpr uint32_t kMaxTreeBlockSize = 1u << 20;
inline constexpr uint64_t kMaxTreeDataSize = uint64_t{1} << 48;

inline constexpr uint64_t kTagHashtree = 1;
// "property", "hashtree", "hash", "kernel_cmdline", "chain_partition" or
// "unknown".
const char* DescriptorTagName(uint64_t tag);

// The signing algorithms, by the header's algorithm_type.
struct Algorithm {
  uint32_t type;
  const char* name;         // e.g. "SHA256_RSA2048"
  const char* hash;         // e.g. "sha256"; also the hash tree's hash
  uint32_t hash_size;       // bytes; 0 for NONE
  uint32_t key_bits;        // 0 for NONE
  uint32_t signature_size;  // bytes
};
inline constexpr uint32_t kAlgorithmNone = 0;
inline constexpr uint32_t kAlgorithmCount = 7;
// nullptr for a type outside [0, kAlgorithmCount).
const Algorithm* FindAlgorithm(uint32_t type);
// A signing algorithm (not NONE) by name, case-insensitive.
const Algorithm* FindAlgorithm(const std::string& name);
bool IsRsaKeySize(uint32_t bits);  // 2048, 4096 or 8192

// ---- footer ---------------------------------------------------------------

struct Footer {
  uint32_t version_major = kFooterVersionMajor;
  uint32_t version_minor = kFooterVersionMinor;
  uint64_t original_image_size = 0;
  uint64_t vbmeta_offset = 0;  // from the image's start
  uint64_t vbmeta_size = 0;
  bool operator==(const Footer& other) const;
};
std::array<uint8_t, kFooterSize> WriteFooter(const Footer& footer);
// The footer in the kFooterSize bytes at `bytes`; nothing when the magic is
// wrong or the major version is newer than kFooterVersionMajor. A newer
// minor version only gives meaning to reserved bytes and is accepted. The
// vbmeta range is the caller's to check against the image.
std::optional<Footer> ReadFooter(const uint8_t* bytes);

// ---- vbmeta header --------------------------------------------------------

struct VbmetaHeader {
  uint32_t required_major = 1;
  uint32_t required_minor = 0;
  uint64_t auth_block_size = 0;
  uint64_t aux_block_size = 0;
  uint32_t algorithm_type = kAlgorithmNone;
  uint64_t hash_offset = 0;  // in the authentication block
  uint64_t hash_size = 0;
  uint64_t signature_offset = 0;  // in the authentication block
  uint64_t signature_size = 0;
  uint64_t public_key_offset = 0;  // in the auxiliary block, as the two below
  uint64_t public_key_size = 0;
  uint64_t public_key_metadata_offset = 0;
  uint64_t public_key_metadata_size = 0;
  uint64_t descriptors_offset = 0;
  uint64_t descriptors_size = 0;
  uint64_t rollback_index = 0;
  uint32_t flags = 0;
  uint32_t rollback_index_location = 0;
  std::string release_string;  // at most kReleaseStringSize - 1 bytes
  bool operator==(const VbmetaHeader& other) const;

  uint64_t auth_offset() const { return kVbmetaHeaderSize; }
  uint64_t aux_offset() const { return kVbmetaHeaderSize + auth_block_size; }
};
std::array<uint8_t, kVbmetaHeaderSize> WriteVbmetaHeader(const VbmetaHeader& header);
// The header fields of the kVbmetaHeaderSize bytes at `bytes`, unchecked.
VbmetaHeader DecodeVbmetaHeader(const uint8_t* bytes);
bool HasVbmetaMagic(const uint8_t* data, size_t size);

enum class VbmetaVerdict { kValid, kInvalidHeader, kUnsupportedVersion };
struct VbmetaCheck {
  VbmetaVerdict verdict = VbmetaVerdict::kInvalidHeader;
  std::string reason;   // why it is not valid
  VbmetaHeader header;  // decoded once the magic matched
  bool ok() const { return verdict == VbmetaVerdict::kValid; }
};
// Checks a vbmeta block of `size` bytes (the buffer may be longer than the
// block) as a verifier must before hashing it: room for the header and its
// magic, a required version it understands, a terminated release string,
// authentication and auxiliary blocks sized in multiples of 64 that fit
// the buffer, hash, signature, key and key metadata inside their blocks,
// and for a signed block a known algorithm whose digest size the hash has.
// The descriptor area is checked by WalkDescriptors.
VbmetaCheck CheckVbmeta(const uint8_t* data, size_t size);

// A signed vbmeta block: header, authentication block (hash, then
// signature) and auxiliary block (descriptors, then public key), laid out
// and sized as verifiers expect, requiring version 1.0. `sign` gets the
// bytes the signature covers (the header and the auxiliary block) and
// returns their hash and signature, of the algorithm's sizes; nothing when
// it fails. VbmetaSize gives the block's size in advance.
struct HashAndSignature {
  std::vector<uint8_t> hash;
  std::vector<uint8_t> signature;
};
using Signer = std::function<std::optional<HashAndSignature>(const std::vector<uint8_t>& covered)>;
uint64_t VbmetaSize(const Algorithm& algorithm, size_t descriptors_size, size_t public_key_size);
std::optional<std::vector<uint8_t>> WriteSignedVbmeta(const Algorithm& algorithm,
                                                      const std::vector<uint8_t>& descriptors,
                                                      const std::vector<uint8_t>& public_key,
                                                      const std::string& release,
                                                      const Signer& sign);

// ---- descriptors ----------------------------------------------------------

// One descriptor inside a vbmeta block: its tag, and where it lies (header
// included) in bytes from the block's start.
struct DescriptorSpan {
  uint64_t tag;
  size_t offset;
  size_t size;
};
// The 16-byte header of the descriptor at `bytes`: its tag and the length of
// what follows, which must be a multiple of kDescriptorAlignment.
struct DescriptorHeader {
  uint64_t tag;
  uint64_t num_bytes_following;
};
std::optional<DescriptorHeader> ReadDescriptorHeader(const uint8_t* bytes);
// The descriptors of the block in `size` bytes, in order, as a verifier
// walks them: none unless the block has its magic and its descriptor area
// lies inside the buffer; the walk stops at the first descriptor whose
// header or body does not fit the area, keeping those before it. The
// signature is not checked.
std::vector<DescriptorSpan> WalkDescriptors(const uint8_t* vbmeta, size_t size);

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
  std::string hash_algorithm;  // at most kHashAlgorithmFieldSize bytes
  uint32_t flags = 0;
  std::string partition_name;
  std::vector<uint8_t> salt;
  std::vector<uint8_t> root_digest;
  bool operator==(const HashtreeDescriptor& other) const;
};
// The whole descriptor, header included, zero-padded to a multiple of 8.
std::vector<uint8_t> WriteHashtreeDescriptor(const HashtreeDescriptor& descriptor);
// Whether the kHashtreeDescriptorSize bytes at `bytes` hold a hashtree
// descriptor a verifier accepts: a valid descriptor header with the
// hashtree tag, whose stated length holds the fixed part, the partition
// name, the salt and the root digest (summed without overflow).
bool IsValidHashtreeDescriptor(const uint8_t* bytes);
// The descriptor in the `size` bytes at `bytes` (a span of WalkDescriptors).
std::optional<HashtreeDescriptor> ReadHashtreeDescriptor(const uint8_t* bytes, size_t size);

// ---- public key blob ------------------------------------------------------

// The key blob vbmeta embeds and a device trusts: key_num_bits, n0inv
// (-1/n mod 2^32), the modulus n and rr ((2^bits)^2 mod n), big-endian.
struct PublicKey {
  uint32_t key_bits = 0;
  uint32_t n0inv = 0;
  std::vector<uint8_t> modulus;  // key_bits / 8 bytes
  std::vector<uint8_t> rr;       // key_bits / 8 bytes
  bool operator==(const PublicKey& other) const;
};
std::vector<uint8_t> WritePublicKey(const PublicKey& key);
// Modulus length in bytes of a well-formed blob (a supported key size and a
// length that matches it), or 0. n0inv and rr are not checked; they only
// speed up a verifier's arithmetic.
size_t PublicKeyModulusLength(const uint8_t* blob, size_t size);
std::optional<PublicKey> ReadPublicKey(const uint8_t* blob, size_t size);
// The blob of an RSA key with modulus `modulus` (big-endian, a supported
// size); nothing when the modulus is not odd or not of such a size.
std::optional<PublicKey> PublicKeyForModulus(const std::vector<uint8_t>& modulus);

}  // namespace avbformat
