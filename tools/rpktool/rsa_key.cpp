#include "rsa_key.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "file_io.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

// PEM keys are a few KiB; anything much larger is not one.
constexpr size_t kMaxKeyFileSize = 64 * 1024;

}  // namespace

Result<RsaKey> RsaKey::FromPem(const std::string& pem, const std::string& name) {
  auto read = [&pem](bool private_key) {
    avbformat::BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    EVP_PKEY* key = !bio          ? nullptr
                    : private_key ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                                  : PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr);
    return avbformat::PkeyPtr(key);
  };
  bool has_private = true;
  avbformat::PkeyPtr key = read(true);
  if (!key) {
    key = read(false);
    has_private = false;
  }
  ERR_clear_error();
  if (!key) return Error() << name << " holds no PEM private or public key";
  if (EVP_PKEY_id(key.get()) != EVP_PKEY_RSA) return Error() << name << " is not an RSA key";
  const BIGNUM* n = nullptr;
  const BIGNUM* e = nullptr;
  RSA_get0_key(EVP_PKEY_get0_RSA(key.get()), &n, &e, nullptr);
  if (!BN_is_word(e, avbformat::kRsaPublicExponent)) {
    return Error() << name << ": the RSA exponent must be " << avbformat::kRsaPublicExponent;
  }
  const int bits = BN_num_bits(n);
  std::vector<uint8_t> modulus(static_cast<size_t>(bits + 7) / 8);
  BN_bn2bin(n, modulus.data());
  std::optional<avbformat::PublicKey> public_key = avbformat::PublicKeyForModulus(modulus);
  if (!public_key) {
    return Error() << name << ": RSA keys of " << bits
                   << " bits cannot sign vbmeta (use 2048, 4096 or 8192)";
  }
  return RsaKey(std::move(key), has_private, std::move(*public_key));
}

Result<RsaKey> RsaKey::Load(const std::string& path) {
  auto pem = ReadInput(path, kMaxKeyFileSize);
  if (!pem.ok()) return pem.error();
  return FromPem(*pem, path == "-" ? "standard input" : path);
}

Result<avbformat::HashAndSignature> RsaKey::Sign(const avbformat::Algorithm& algorithm,
                                                 const std::vector<uint8_t>& data) const {
  if (!has_private_) return Error() << "the key holds no private part; cannot sign";
  const EVP_MD* md = EVP_get_digestbyname(algorithm.hash);
  avbformat::HashAndSignature out;
  out.hash.resize(EVP_MAX_MD_SIZE);
  out.signature.resize(bits_ / 8);
  unsigned hash_size = 0;
  size_t signature_size = out.signature.size();
  avbformat::MdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pkey_ctx = nullptr;
  const bool ok =
      md && ctx && EVP_Digest(data.data(), data.size(), out.hash.data(), &hash_size, md, nullptr) &&
      EVP_DigestSignInit(ctx.get(), &pkey_ctx, md, nullptr, key_.get()) == 1 &&
      EVP_PKEY_CTX_set_rsa_padding(pkey_ctx, RSA_PKCS1_PADDING) == 1 &&
      EVP_DigestSign(ctx.get(), out.signature.data(), &signature_size, data.data(), data.size()) ==
          1;
  ERR_clear_error();
  if (!ok) return Error() << "RSA signing with " << algorithm.name << " failed";
  out.hash.resize(hash_size);
  out.signature.resize(signature_size);
  return out;
}

}  // namespace rpktool
