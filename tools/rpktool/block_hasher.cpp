#include "block_hasher.h"

#include <android-base/logging.h>

#include <cstring>

namespace rpktool {

using android::base::Error;
using android::base::Result;

bool IsAllZero(const uint8_t* data, size_t size) {
  // Compares the block with itself shifted by one byte.
  return size == 0 || (data[0] == 0 && memcmp(data, data + 1, size - 1) == 0);
}

BlockHasher::BlockHasher(std::shared_ptr<EVP_MD> md, UniqueEvpMdCtx salted, size_t digest_size)
    : md_(std::move(md)), salted_(std::move(salted)), work_(EVP_MD_CTX_new()),
      digest_size_(digest_size) {
  CHECK(work_ != nullptr) << "out of memory";
}

Result<BlockHasher> BlockHasher::Create(const std::string& algorithm,
                                        const std::vector<uint8_t>& salt) {
  std::shared_ptr<EVP_MD> md(EVP_MD_fetch(nullptr, algorithm.c_str(), nullptr), EVP_MD_free);
  if (!md) {
    OpenSslErrors();
    return Error() << "unsupported hash algorithm '" << algorithm << "'";
  }
  UniqueEvpMdCtx salted(EVP_MD_CTX_new());
  if (!salted || EVP_DigestInit_ex2(salted.get(), md.get(), nullptr) != 1 ||
      EVP_DigestUpdate(salted.get(), salt.data(), salt.size()) != 1) {
    return Error() << "cannot set up " << algorithm << ": " << OpenSslErrors();
  }
  const int size = EVP_MD_get_size(md.get());
  if (size <= 0) return Error() << "hash algorithm '" << algorithm << "' has no fixed size";
  return BlockHasher(std::move(md), std::move(salted), static_cast<size_t>(size));
}

BlockHasher BlockHasher::Clone() const {
  UniqueEvpMdCtx salted(EVP_MD_CTX_new());
  CHECK(salted && EVP_MD_CTX_copy_ex(salted.get(), salted_.get()) == 1) << "cannot copy hash state";
  return BlockHasher(md_, std::move(salted), digest_size_);
}

void BlockHasher::Hash(const uint8_t* data, size_t size, uint8_t* out) {
  unsigned length = 0;
  bool ok = EVP_MD_CTX_copy_ex(work_.get(), salted_.get()) == 1 &&
            EVP_DigestUpdate(work_.get(), data, size) == 1 &&
            EVP_DigestFinal_ex(work_.get(), out, &length) == 1;
  CHECK(ok && length == digest_size_) << "hashing failed: " << OpenSslErrors();
}

std::vector<uint8_t> BlockHasher::Hash(const uint8_t* data, size_t size) {
  std::vector<uint8_t> out(digest_size_);
  Hash(data, size, out.data());
  return out;
}

}  // namespace rpktool
