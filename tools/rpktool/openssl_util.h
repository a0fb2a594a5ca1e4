#pragma once

// Owning holders for OpenSSL objects and the text of OpenSSL's error queue.

#include <openssl/bn.h>
#include <openssl/evp.h>

#include <memory>
#include <string>

namespace rpktool {

struct EvpPkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct EvpMdCtxFree {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct EvpMdFree {
  void operator()(EVP_MD* p) const { EVP_MD_free(p); }
};
struct BignumFree {
  void operator()(BIGNUM* p) const { BN_free(p); }
};
struct BnCtxFree {
  void operator()(BN_CTX* p) const { BN_CTX_free(p); }
};

using UniqueEvpPkey = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using UniqueEvpMdCtx = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using UniqueEvpMd = std::unique_ptr<EVP_MD, EvpMdFree>;
using UniqueBignum = std::unique_ptr<BIGNUM, BignumFree>;
using UniqueBnCtx = std::unique_ptr<BN_CTX, BnCtxFree>;

// Drains OpenSSL's error queue into one line ("" when it is empty).
std::string OpenSslErrors();

}  // namespace rpktool
