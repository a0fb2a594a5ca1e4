#pragma once

// An RSA key read from PEM: what signing and the public key blob need.

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

#include "avb_format.h"
#include "crypto_holders.h"

namespace rpktool {

class RsaKey {
 public:
  // A private key (PKCS#8 or traditional) or, failing that, a public key,
  // from PEM text. The exponent must be 65537, as verifiers assume it, and
  // the size one vbmeta can hold.
  static android::base::Result<RsaKey> FromPem(const std::string& pem, const std::string& name);
  // The same from a file; "-" reads standard input.
  static android::base::Result<RsaKey> Load(const std::string& path);

  uint32_t bits() const { return bits_; }
  bool has_private_key() const { return has_private_; }
  // The blob a vbmeta block embeds and a device trusts.
  std::vector<uint8_t> public_key_blob() const { return avbformat::WritePublicKey(public_key_); }

  // The algorithm's hash of `data` and its PKCS#1 v1.5 signature.
  android::base::Result<avbformat::HashAndSignature> Sign(const avbformat::Algorithm& algorithm,
                                                          const std::vector<uint8_t>& data) const;

 private:
  RsaKey(avbformat::PkeyPtr key, bool has_private, avbformat::PublicKey public_key)
      : key_(std::move(key)),
        bits_(public_key.key_bits),
        has_private_(has_private),
        public_key_(std::move(public_key)) {}

  avbformat::PkeyPtr key_;
  uint32_t bits_;
  bool has_private_;
  avbformat::PublicKey public_key_;
};

}  // namespace rpktool
