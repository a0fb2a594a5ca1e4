#pragma once

// The vbmeta signing algorithms: numeric type, digest and RSA sizes.

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rpktool {

struct AvbAlgorithm {
  uint32_t type;             // value of the header's algorithm_type field
  const char* name;          // e.g. "SHA256_RSA2048"
  const char* digest_name;   // OpenSSL name of the vbmeta hash, e.g. "SHA256"
  const char* tree_hash;     // hash tree algorithm paired with it, e.g. "sha256"
  uint32_t hash_size;        // bytes
  uint32_t key_bits;         // RSA modulus size; 0 for NONE
  uint32_t signature_size;   // bytes
};

// Every known algorithm, NONE included, in type order.
const std::vector<AvbAlgorithm>& AllAvbAlgorithms();

// Signing algorithms by name (case-insensitive); NONE is not accepted.
android::base::Result<AvbAlgorithm> FindSigningAlgorithm(const std::string& name);
// Any algorithm, NONE included; nullptr for an unknown type.
const AvbAlgorithm* FindAlgorithmByType(uint32_t type);
// SHA256 paired with the key size, the usual choice.
android::base::Result<AvbAlgorithm> DefaultAlgorithmForKeyBits(uint32_t key_bits);

}  // namespace rpktool
