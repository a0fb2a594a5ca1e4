#pragma once

// Salted block digests as the hash tree uses them: H(salt || block). The
// salt is absorbed once; each digest starts from a copy of that state, so
// one hasher serves any number of threads at once.

#include <android-base/result.h>
#include <openssl/sha.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rpktool {

// True when all `size` bytes are zero. Much cheaper than hashing: a block
// is all zeros exactly when its digest is the zero block's digest.
bool IsAllZero(const uint8_t* data, size_t size);

class BlockHasher {
 public:
  // `algorithm` is "sha1", "sha256" or "sha512".
  static android::base::Result<BlockHasher> Create(const std::string& algorithm,
                                                   const std::vector<uint8_t>& salt);

  size_t digest_size() const { return digest_size_; }
  // Writes digest_size() bytes to `out`.
  void Hash(const uint8_t* data, size_t size, uint8_t* out) const;
  std::vector<uint8_t> Hash(const uint8_t* data, size_t size) const;

 private:
  enum class Kind { kSha1, kSha256, kSha512 };
  union Salted {
    SHA_CTX sha1;
    SHA256_CTX sha256;
    SHA512_CTX sha512;
  };
  BlockHasher(Kind kind, size_t digest_size, const Salted& salted)
      : kind_(kind), digest_size_(digest_size), salted_(salted) {}

  Kind kind_;
  size_t digest_size_;
  Salted salted_;
};

}  // namespace rpktool
