#include "rsa_key.h"

#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <memory>

namespace rpktool {

using android::base::Error;
using android::base::ErrnoError;
using android::base::Result;

namespace {

struct FileClose {
  void operator()(FILE* f) const { fclose(f); }
};

Result<UniqueBignum> GetBignumParam(EVP_PKEY* key, const char* name) {
  BIGNUM* value = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &value) != 1) {
    return Error() << "cannot read RSA parameter " << name << ": " << OpenSslErrors();
  }
  return UniqueBignum(value);
}

}  // namespace

Result<RsaKey> RsaKey::LoadPem(const std::string& path) {
  std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "re"));
  if (!file) return ErrnoError() << "cannot open key " << path;

  bool has_private = true;
  UniqueEvpPkey key(PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  if (!key) {
    rewind(file.get());
    key.reset(PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr));
    has_private = false;
  }
  if (!key) {
    OpenSslErrors();
    return Error() << path << " holds no PEM private or public key";
  }
  if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
    return Error() << path << " is not an RSA key";
  }
  auto modulus = GetBignumParam(key.get(), OSSL_PKEY_PARAM_RSA_N);
  if (!modulus.ok()) return modulus.error();
  auto exponent = GetBignumParam(key.get(), OSSL_PKEY_PARAM_RSA_E);
  if (!exponent.ok()) return exponent.error();
  if (!BN_is_word(exponent->get(), 65537)) {
    return Error() << path << ": the RSA exponent must be 65537";
  }
  int bits = BN_num_bits(modulus->get());
  if (bits != 2048 && bits != 4096 && bits != 8192) {
    return Error() << path << ": RSA keys of " << bits
                   << " bits cannot sign vbmeta (use 2048, 4096 or 8192)";
  }
  std::vector<uint8_t> modulus_bytes(bits / 8);
  if (BN_bn2binpad(modulus->get(), modulus_bytes.data(), modulus_bytes.size()) < 0) {
    return Error() << "cannot encode the modulus: " << OpenSslErrors();
  }
  return RsaKey(std::move(key), static_cast<uint32_t>(bits), has_private, std::move(modulus_bytes));
}

Result<std::vector<uint8_t>> RsaKey::Sign(const std::string& digest_name,
                                          const std::vector<uint8_t>& data) const {
  if (!has_private_) return Error() << "the key holds no private part; cannot sign";
  UniqueEvpMdCtx ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pkey_ctx = nullptr;
  if (!ctx ||
      EVP_DigestSignInit_ex(ctx.get(), &pkey_ctx, digest_name.c_str(), nullptr, nullptr,
                            key_.get(), nullptr) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(pkey_ctx, RSA_PKCS1_PADDING) != 1) {
    return Error() << "cannot set up RSA signing: " << OpenSslErrors();
  }
  size_t length = 0;
  if (EVP_DigestSign(ctx.get(), nullptr, &length, data.data(), data.size()) != 1) {
    return Error() << "RSA signing failed: " << OpenSslErrors();
  }
  std::vector<uint8_t> signature(length);
  if (EVP_DigestSign(ctx.get(), signature.data(), &length, data.data(), data.size()) != 1) {
    return Error() << "RSA signing failed: " << OpenSslErrors();
  }
  signature.resize(length);
  return signature;
}

}  // namespace rpktool
