#include "avb_crypto.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <memory>

#include "avb_bytes.h"

namespace avb_standin {
namespace {

constexpr size_t kKeyHeaderLength = 8;  // key_num_bits, n0inv
constexpr unsigned long kPublicExponent = 65537;

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* ptr) const { Free(ptr); }
};
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ParamBuildPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;

const EVP_MD* MessageDigest(HashKind kind) {
  return kind == HashKind::kSha256 ? EVP_sha256() : EVP_sha512();
}

// An RSA public key with modulus `modulus` and exponent 65537.
PkeyPtr RsaPublicKey(const uint8_t* modulus, size_t modulus_length) {
  BignumPtr n(BN_bin2bn(modulus, static_cast<int>(modulus_length), nullptr));
  BignumPtr e(BN_new());
  ParamBuildPtr build(OSSL_PARAM_BLD_new());
  if (!n || !e || !build || BN_set_word(e.get(), kPublicExponent) != 1) return nullptr;
  if (OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
    return nullptr;
  }
  ParamsPtr params(OSSL_PARAM_BLD_to_param(build.get()));
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1) return nullptr;
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) return nullptr;
  return PkeyPtr(key);
}

}  // namespace

size_t DigestLength(HashKind kind) { return kind == HashKind::kSha256 ? 32 : 64; }

bool DigestOfTwo(HashKind kind, const uint8_t* first, size_t first_length,
                 const uint8_t* second, size_t second_length, uint8_t* out) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  unsigned int written = 0;
  const bool ok = ctx && EVP_DigestInit_ex(ctx.get(), MessageDigest(kind), nullptr) == 1 &&
                  EVP_DigestUpdate(ctx.get(), first, first_length) == 1 &&
                  EVP_DigestUpdate(ctx.get(), second, second_length) == 1 &&
                  EVP_DigestFinal_ex(ctx.get(), out, &written) == 1 &&
                  written == DigestLength(kind);
  if (!ok) ERR_clear_error();
  return ok;
}

size_t PublicKeyModulusLength(const uint8_t* blob, size_t blob_length) {
  if (blob_length < kKeyHeaderLength) return 0;
  uint32_t bits_be;
  memcpy(&bits_be, blob, sizeof(bits_be));
  const uint32_t bits = BigEndianToHost(bits_be);
  if (bits != 2048 && bits != 4096 && bits != 8192) return 0;
  const size_t modulus_length = bits / 8;
  if (blob_length != kKeyHeaderLength + 2 * modulus_length) return 0;
  return modulus_length;
}

bool RsaPkcs1Verify(const uint8_t* blob, size_t blob_length, HashKind kind,
                    const uint8_t* digest, const uint8_t* signature, size_t signature_length) {
  const size_t modulus_length = PublicKeyModulusLength(blob, blob_length);
  if (modulus_length == 0) return false;
  PkeyPtr key = RsaPublicKey(blob + kKeyHeaderLength, modulus_length);
  PkeyCtxPtr ctx(key ? EVP_PKEY_CTX_new(key.get(), nullptr) : nullptr);
  // The padded block must be 00 01 FF..FF 00 DigestInfo(kind) digest exactly.
  const bool ok = ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
                  EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
                  EVP_PKEY_CTX_set_signature_md(ctx.get(), MessageDigest(kind)) == 1 &&
                  EVP_PKEY_verify(ctx.get(), signature, signature_length, digest,
                                  DigestLength(kind)) == 1;
  // A refused signature leaves reasons on the thread's error queue; they
  // carry nothing the caller needs.
  if (!ok) ERR_clear_error();
  return ok;
}

}  // namespace avb_standin
