#include "avb_builder.h"

#include <endian.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "zip_builder.h"

namespace mend_test {
namespace {

constexpr size_t kHeaderSize = 256;
constexpr size_t kBlockSize = 4096;

[[noreturn]] void Fail(const std::string& what) {
  fprintf(stderr, "avb builder: %s\n", what.c_str());
  abort();
}

std::string PadTo(std::string bytes, size_t multiple) {
  bytes.resize((bytes.size() + multiple - 1) / multiple * multiple, '\0');
  return bytes;
}

bool IsSha512(uint32_t algorithm) { return algorithm >= 4; }

struct BnFree {
  void operator()(BIGNUM* bn) const { BN_free(bn); }
};
using Bignum = std::unique_ptr<BIGNUM, BnFree>;

std::string Digest(const EVP_MD* md, const std::string& data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), out, &length, md, nullptr) != 1) Fail("digest");
  return std::string(reinterpret_cast<char*>(out), length);
}

std::string BignumBytes(const BIGNUM* bn, size_t length) {
  std::string out(length, '\0');
  if (BN_bn2binpad(bn, reinterpret_cast<unsigned char*>(out.data()), length) < 0) {
    Fail("number too large");
  }
  return out;
}

}  // namespace

void AppendBe32(std::string* out, uint32_t value) {
  value = htobe32(value);
  out->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void AppendBe64(std::string* out, uint64_t value) {
  value = htobe64(value);
  out->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void StoreBe32(std::string* blob, size_t offset, uint32_t value) {
  value = htobe32(value);
  memcpy(blob->data() + offset, &value, sizeof(value));
}

void StoreBe64(std::string* blob, size_t offset, uint64_t value) {
  value = htobe64(value);
  memcpy(blob->data() + offset, &value, sizeof(value));
}

uint64_t LoadBe64(const std::string& blob, size_t offset) {
  uint64_t value;
  memcpy(&value, blob.data() + offset, sizeof(value));
  return be64toh(value);
}

SigningKey SigningKey::FromPemFile(const std::string& path) {
  FILE* file = fopen(path.c_str(), "r");
  if (file == nullptr) Fail("cannot open " + path);
  EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
  fclose(file);
  if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) Fail("no RSA key in " + path);
  return SigningKey(key);
}

SigningKey::SigningKey(SigningKey&& other) noexcept : key_(other.key_) { other.key_ = nullptr; }

SigningKey::~SigningKey() { EVP_PKEY_free(key_); }

size_t SigningKey::ModulusBytes() const { return EVP_PKEY_get_size(key_); }

std::string SigningKey::PublicKeyBlob() const {
  BIGNUM* raw_n = nullptr;
  if (EVP_PKEY_get_bn_param(key_, OSSL_PKEY_PARAM_RSA_N, &raw_n) != 1) Fail("no modulus");
  Bignum n(raw_n);
  const size_t length = ModulusBytes();
  const uint32_t bits = length * 8;

  // n0inv = -1/n mod 2^32, by Newton's iteration on the low word (n is odd).
  const uint32_t n0 = static_cast<uint32_t>(BN_mod_word(n.get(), 1ULL << 32));
  uint32_t inverse = n0;
  for (int i = 0; i < 5; ++i) inverse *= 2 - n0 * inverse;
  const uint32_t n0inv = 0u - inverse;

  // rr = (2^bits)^2 mod n.
  Bignum power(BN_new());
  Bignum rr(BN_new());
  std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> ctx(BN_CTX_new(), BN_CTX_free);
  if (!power || !rr || !ctx || BN_set_bit(power.get(), 2 * bits) != 1 ||
      BN_mod(rr.get(), power.get(), n.get(), ctx.get()) != 1) {
    Fail("rr");
  }

  std::string blob;
  AppendBe32(&blob, bits);
  AppendBe32(&blob, n0inv);
  blob += BignumBytes(n.get(), length);
  blob += BignumBytes(rr.get(), length);
  return blob;
}

std::string SigningKey::SignDigest(const std::string& digest) const {
  const EVP_MD* md = digest.size() == 64 ? EVP_sha512() : EVP_sha256();
  std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> ctx(EVP_PKEY_CTX_new(key_, nullptr),
                                                             EVP_PKEY_CTX_free);
  std::string signature(ModulusBytes(), '\0');
  size_t length = signature.size();
  if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
      EVP_PKEY_CTX_set_signature_md(ctx.get(), md) != 1 ||
      EVP_PKEY_sign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                    reinterpret_cast<const unsigned char*>(digest.data()), digest.size()) != 1) {
    Fail("signing failed");
  }
  signature.resize(length);
  return signature;
}

std::string Sha256(const std::string& data) { return Digest(EVP_sha256(), data); }
std::string Sha512(const std::string& data) { return Digest(EVP_sha512(), data); }

std::string DescriptorBytes(uint64_t tag, const std::string& body) {
  std::string out;
  AppendBe64(&out, tag);
  const std::string padded = PadTo(body, 8);
  AppendBe64(&out, padded.size());
  return out + padded;
}

std::string HashtreeDescriptorBytes(const HashtreeFields& f) {
  std::string body;
  AppendBe32(&body, f.dm_verity_version);
  AppendBe64(&body, f.image_size);
  AppendBe64(&body, f.tree_offset);
  AppendBe64(&body, f.tree_size);
  AppendBe32(&body, f.data_block_size);
  AppendBe32(&body, f.hash_block_size);
  AppendBe32(&body, 0);  // fec_num_roots
  AppendBe64(&body, 0);  // fec_offset
  AppendBe64(&body, 0);  // fec_size
  std::string algorithm = f.hash_algorithm;
  algorithm.resize(32, '\0');
  body += algorithm;
  AppendBe32(&body, f.partition_name_len.value_or(f.partition_name.size()));
  AppendBe32(&body, f.salt_len.value_or(f.salt.size()));
  AppendBe32(&body, f.root_digest_len.value_or(f.root_digest.size()));
  AppendBe32(&body, 0);  // flags
  body += std::string(60, '\0');
  body += f.partition_name + f.salt + f.root_digest;
  return DescriptorBytes(1, body);
}

std::string BuildVbmeta(const VbmetaRecipe& recipe) {
  const bool is_signed = recipe.algorithm != 0 && recipe.key != nullptr;
  const std::string key_blob =
      recipe.public_key_blob.value_or(recipe.key != nullptr ? recipe.key->PublicKeyBlob() : "");
  const size_t hash_size = is_signed ? (IsSha512(recipe.algorithm) ? 64 : 32) : 0;
  const size_t signature_size = is_signed ? recipe.key->ModulusBytes() : 0;
  const std::string aux = PadTo(recipe.descriptors + key_blob, 64);
  const size_t auth_size = PadTo(std::string(hash_size + signature_size, '\0'), 64).size();

  std::string header;
  header += "AVB0";
  AppendBe32(&header, recipe.required_major);
  AppendBe32(&header, recipe.required_minor);
  AppendBe64(&header, auth_size);
  AppendBe64(&header, aux.size());
  AppendBe32(&header, recipe.algorithm);
  AppendBe64(&header, 0);  // hash_offset
  AppendBe64(&header, hash_size);
  AppendBe64(&header, hash_size);  // signature_offset
  AppendBe64(&header, signature_size);
  AppendBe64(&header, recipe.descriptors.size());  // public_key_offset
  AppendBe64(&header, key_blob.size());
  AppendBe64(&header, recipe.descriptors.size() + key_blob.size());  // key metadata offset
  AppendBe64(&header, 0);                                          // key metadata size
  AppendBe64(&header, 0);                                          // descriptors_offset
  AppendBe64(&header, recipe.descriptors.size());
  AppendBe64(&header, 0);  // rollback_index
  AppendBe32(&header, 0);  // flags
  AppendBe32(&header, 0);  // rollback_index_location
  std::string release = "mend test 1.0";
  release.resize(48, '\0');
  header += release;
  header.resize(kHeaderSize, '\0');

  std::string auth;
  if (is_signed) {
    const std::string signed_data = header + aux;
    const std::string digest =
        IsSha512(recipe.algorithm) ? Sha512(signed_data) : Sha256(signed_data);
    auth = digest + recipe.key->SignDigest(digest);
  }
  return header + PadTo(auth, 64) + aux;
}

VbmetaLayout LayoutOf(const std::string& vbmeta) {
  VbmetaLayout layout;
  layout.auth_offset = kHeaderSize;
  layout.aux_offset = kHeaderSize + LoadBe64(vbmeta, 12);
  layout.hash_size = LoadBe64(vbmeta, 40);
  layout.signature_size = LoadBe64(vbmeta, 56);
  layout.public_key_offset = layout.aux_offset + LoadBe64(vbmeta, 64);
  layout.public_key_size = LoadBe64(vbmeta, 72);
  return layout;
}

std::string FooterBytes(uint64_t original_image_size, uint64_t vbmeta_offset,
                        uint64_t vbmeta_size, uint32_t version_major, uint32_t version_minor) {
  std::string footer = "AVBf";
  AppendBe32(&footer, version_major);
  AppendBe32(&footer, version_minor);
  AppendBe64(&footer, original_image_size);
  AppendBe64(&footer, vbmeta_offset);
  AppendBe64(&footer, vbmeta_size);
  footer.resize(64, '\0');
  return footer;
}

std::string BuildImage(const std::string& data, const std::string& vbmeta,
                       std::optional<uint64_t> footer_vbmeta_size) {
  std::string image = PadTo(data, kBlockSize);
  const uint64_t vbmeta_offset = image.size();
  image += PadTo(vbmeta, kBlockSize);
  image += std::string(kBlockSize - 64, '\0');
  image += FooterBytes(data.size(), vbmeta_offset, footer_vbmeta_size.value_or(vbmeta.size()));
  return image;
}

void WritePackage(const std::string& path, const std::string& image) {
  WriteZip(path, {{"config.txt", "update_package_name=crafted\n"},
                  {"update_payload.img", image, false, 4096}});
}

}  // namespace mend_test
