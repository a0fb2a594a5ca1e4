#include "avb_algorithm.h"

#include <strings.h>

namespace rpktool {

using android::base::Error;
using android::base::Result;

const std::vector<AvbAlgorithm>& AllAvbAlgorithms() {
  static const std::vector<AvbAlgorithm> kAlgorithms = {
      {0, "NONE", "", "sha256", 0, 0, 0},
      {1, "SHA256_RSA2048", "SHA256", "sha256", 32, 2048, 256},
      {2, "SHA256_RSA4096", "SHA256", "sha256", 32, 4096, 512},
      {3, "SHA256_RSA8192", "SHA256", "sha256", 32, 8192, 1024},
      {4, "SHA512_RSA2048", "SHA512", "sha512", 64, 2048, 256},
      {5, "SHA512_RSA4096", "SHA512", "sha512", 64, 4096, 512},
      {6, "SHA512_RSA8192", "SHA512", "sha512", 64, 8192, 1024},
  };
  return kAlgorithms;
}

Result<AvbAlgorithm> FindSigningAlgorithm(const std::string& name) {
  for (const auto& algorithm : AllAvbAlgorithms()) {
    if (algorithm.key_bits != 0 && strcasecmp(algorithm.name, name.c_str()) == 0) {
      return algorithm;
    }
  }
  return Error() << "unknown algorithm '" << name
                 << "' (use SHA256_RSA2048, SHA256_RSA4096, SHA256_RSA8192, SHA512_RSA2048, "
                    "SHA512_RSA4096 or SHA512_RSA8192)";
}

const AvbAlgorithm* FindAlgorithmByType(uint32_t type) {
  for (const auto& algorithm : AllAvbAlgorithms()) {
    if (algorithm.type == type) return &algorithm;
  }
  return nullptr;
}

Result<AvbAlgorithm> DefaultAlgorithmForKeyBits(uint32_t key_bits) {
  for (const auto& algorithm : AllAvbAlgorithms()) {
    if (algorithm.key_bits == key_bits && algorithm.hash_size == 32) return algorithm;
  }
  return Error() << "RSA keys of " << key_bits << " bits cannot sign vbmeta (use 2048, 4096 or 8192)";
}

}  // namespace rpktool
