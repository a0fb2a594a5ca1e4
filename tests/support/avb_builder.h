#pragma once

// Crafts signed images for tests: vbmeta blocks laid out as the signing
// tool lays them out, descriptors, footers and whole images, so that tests
// can build valid inputs and then break exactly one thing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;

namespace mend_test {

void AppendBe32(std::string* out, uint32_t value);
void AppendBe64(std::string* out, uint64_t value);
void StoreBe32(std::string* blob, size_t offset, uint32_t value);
void StoreBe64(std::string* blob, size_t offset, uint64_t value);
uint64_t LoadBe64(const std::string& blob, size_t offset);

// An RSA private key that signs crafted vbmeta blocks. Move-only.
class SigningKey {
 public:
  // Aborts when the file is not a readable RSA private key in PEM.
  static SigningKey FromPemFile(const std::string& path);
  SigningKey(SigningKey&& other) noexcept;
  SigningKey& operator=(SigningKey&&) = delete;
  SigningKey(const SigningKey&) = delete;
  ~SigningKey();

  size_t ModulusBytes() const;
  // The public key blob a vbmeta block embeds: key_num_bits, n0inv,
  // modulus, rr (all big-endian).
  std::string PublicKeyBlob() const;
  // PKCS#1 v1.5 signature of `digest` (a SHA-256 or SHA-512 digest).
  std::string SignDigest(const std::string& digest) const;

 private:
  explicit SigningKey(EVP_PKEY* key) : key_(key) {}
  EVP_PKEY* key_;
};

std::string Sha256(const std::string& data);
std::string Sha512(const std::string& data);

// A descriptor with `tag` whose body is zero-padded to a multiple of 8.
std::string DescriptorBytes(uint64_t tag, const std::string& body);

// A hashtree descriptor. The length fields default to the lengths of the
// strings; set them to lie about the lengths.
struct HashtreeFields {
  uint32_t dm_verity_version = 1;
  uint64_t image_size = 1 << 20;
  uint64_t tree_offset = 1 << 20;
  uint64_t tree_size = 12288;
  uint32_t data_block_size = 4096;
  uint32_t hash_block_size = 4096;
  std::string hash_algorithm = "sha256";  // up to 32 bytes, NUL-padded
  std::string partition_name = "update_payload";
  std::string salt = std::string(32, '\x5a');
  std::string root_digest = std::string(32, '\xd1');
  std::optional<uint32_t> partition_name_len;
  std::optional<uint32_t> salt_len;
  std::optional<uint32_t> root_digest_len;
};
std::string HashtreeDescriptorBytes(const HashtreeFields& fields);

// What to put in a vbmeta block. With a key, its blob is embedded and the
// block is signed with it, whatever the algorithm says (so that a key of
// the wrong size can be tried).
struct VbmetaRecipe {
  uint32_t algorithm = 1;  // AvbAlgorithmType; 0 = unsigned
  const SigningKey* key = nullptr;
  // Embedded instead of the signing key's own blob when set.
  std::optional<std::string> public_key_blob;
  std::string descriptors;
  uint32_t required_major = 1;
  uint32_t required_minor = 0;
};
std::string BuildVbmeta(const VbmetaRecipe& recipe);

// Header offsets and sizes of a block built by BuildVbmeta.
struct VbmetaLayout {
  size_t auth_offset;  // start of the authentication block
  size_t aux_offset;   // start of the auxiliary block
  size_t hash_size;
  size_t signature_size;
  size_t public_key_offset;  // in the blob
  size_t public_key_size;
};
VbmetaLayout LayoutOf(const std::string& vbmeta);

std::string FooterBytes(uint64_t original_image_size, uint64_t vbmeta_offset,
                        uint64_t vbmeta_size, uint32_t version_major = 1,
                        uint32_t version_minor = 0);

// `data` zero-padded to 4096 bytes, then `vbmeta` zero-padded likewise, then
// a 4096-byte block ending in the footer that points at the vbmeta block.
// `footer_vbmeta_size` replaces the size the footer states.
std::string BuildImage(const std::string& data, const std::string& vbmeta,
                       std::optional<uint64_t> footer_vbmeta_size = std::nullopt);

// A package zip holding a config.txt and `image` stored at a 4096-byte
// aligned offset.
void WritePackage(const std::string& path, const std::string& image);

}  // namespace mend_test
