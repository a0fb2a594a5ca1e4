#pragma once

// Salted block digests as the hash tree uses them: H(salt || block).
// One hasher per thread; Clone() gives another with the same settings.

#include <android-base/result.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "openssl_util.h"

namespace rpktool {

// True when all `size` bytes are zero. Much cheaper than hashing: a block
// is all zeros exactly when its digest is the zero block's digest, so zero
// blocks need no hashing.
bool IsAllZero(const uint8_t* data, size_t size);

class BlockHasher {
 public:
  // `algorithm` is a hash name such as "sha256" or "sha512".
  static android::base::Result<BlockHasher> Create(const std::string& algorithm,
                                                   const std::vector<uint8_t>& salt);

  BlockHasher Clone() const;
  size_t digest_size() const { return digest_size_; }
  // Writes digest_size() bytes to `out`.
  void Hash(const uint8_t* data, size_t size, uint8_t* out);
  std::vector<uint8_t> Hash(const uint8_t* data, size_t size);

 private:
  BlockHasher(std::shared_ptr<EVP_MD> md, UniqueEvpMdCtx salted, size_t digest_size);

  std::shared_ptr<EVP_MD> md_;
  UniqueEvpMdCtx salted_;  // state after absorbing the salt
  UniqueEvpMdCtx work_;
  size_t digest_size_;
};

}  // namespace rpktool
