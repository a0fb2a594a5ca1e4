#pragma once

// An RSA key read from a PEM file: what signing and the public key blob need.

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

#include "openssl_util.h"

namespace rpktool {

class RsaKey {
 public:
  // Reads a private key (PKCS#8 or traditional) or, failing that, a public
  // key from `path`. The exponent must be 65537, as the verifier assumes it.
  static android::base::Result<RsaKey> LoadPem(const std::string& path);

  uint32_t bits() const { return bits_; }
  bool has_private_key() const { return has_private_; }
  // The modulus, big-endian, exactly bits()/8 bytes.
  const std::vector<uint8_t>& modulus() const { return modulus_; }

  // PKCS#1 v1.5 signature of `data` hashed with `digest_name` ("SHA256" or
  // "SHA512"); bits()/8 bytes.
  android::base::Result<std::vector<uint8_t>> Sign(const std::string& digest_name,
                                                   const std::vector<uint8_t>& data) const;

 private:
  RsaKey(UniqueEvpPkey key, uint32_t bits, bool has_private, std::vector<uint8_t> modulus)
      : key_(std::move(key)), bits_(bits), has_private_(has_private), modulus_(std::move(modulus)) {}

  UniqueEvpPkey key_;
  uint32_t bits_;
  bool has_private_;
  std::vector<uint8_t> modulus_;
};

}  // namespace rpktool
