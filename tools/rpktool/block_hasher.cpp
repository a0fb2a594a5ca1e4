#include "block_hasher.h"

#include <cstring>

namespace rpktool {

using android::base::Error;
using android::base::Result;

bool IsAllZero(const uint8_t* data, size_t size) {
  // Compares the block with itself shifted by one byte.
  return size == 0 || (data[0] == 0 && memcmp(data, data + 1, size - 1) == 0);
}

Result<BlockHasher> BlockHasher::Create(const std::string& algorithm,
                                        const std::vector<uint8_t>& salt) {
  Salted salted;
  if (algorithm == "sha1") {
    SHA1_Init(&salted.sha1);
    SHA1_Update(&salted.sha1, salt.data(), salt.size());
    return BlockHasher(Kind::kSha1, SHA_DIGEST_LENGTH, salted);
  }
  if (algorithm == "sha256") {
    SHA256_Init(&salted.sha256);
    SHA256_Update(&salted.sha256, salt.data(), salt.size());
    return BlockHasher(Kind::kSha256, SHA256_DIGEST_LENGTH, salted);
  }
  if (algorithm == "sha512") {
    SHA512_Init(&salted.sha512);
    SHA512_Update(&salted.sha512, salt.data(), salt.size());
    return BlockHasher(Kind::kSha512, SHA512_DIGEST_LENGTH, salted);
  }
  return Error() << "unsupported hash algorithm '" << algorithm << "' (sha1, sha256, sha512)";
}

void BlockHasher::Hash(const uint8_t* data, size_t size, uint8_t* out) const {
  Salted state = salted_;
  switch (kind_) {
    case Kind::kSha1:
      SHA1_Update(&state.sha1, data, size);
      SHA1_Final(out, &state.sha1);
      return;
    case Kind::kSha256:
      SHA256_Update(&state.sha256, data, size);
      SHA256_Final(out, &state.sha256);
      return;
    case Kind::kSha512:
      SHA512_Update(&state.sha512, data, size);
      SHA512_Final(out, &state.sha512);
      return;
  }
}

std::vector<uint8_t> BlockHasher::Hash(const uint8_t* data, size_t size) const {
  std::vector<uint8_t> out(digest_size_);
  Hash(data, size, out.data());
  return out;
}

}  // namespace rpktool
