#pragma once

// Owning holders for the libcrypto objects the format library, the
// verified-boot stand-in and the package tool use; the calls are in both
// OpenSSL and BoringSSL.

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>

#include <memory>

namespace avbformat {

template <typename T, void (*Free)(T*)>
struct CryptoFree {
  void operator()(T* object) const { Free(object); }
};
using BignumPtr = std::unique_ptr<BIGNUM, CryptoFree<BIGNUM, BN_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, CryptoFree<BN_CTX, BN_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, CryptoFree<BIO, BIO_free_all>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, CryptoFree<EVP_MD_CTX, EVP_MD_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, CryptoFree<EVP_PKEY, EVP_PKEY_free>>;

}  // namespace avbformat
