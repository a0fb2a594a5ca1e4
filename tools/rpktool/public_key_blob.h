#pragma once

// The public key blob that vbmeta embeds and that the device trusts:
// key_num_bits, n0inv, modulus and rr, all big-endian.

#include <android-base/result.h>

#include <cstdint>
#include <vector>

#include "rsa_key.h"

namespace rpktool {

android::base::Result<std::vector<uint8_t>> EncodePublicKeyBlob(const RsaKey& key);

// -1/n mod 2^32 for the low word of an odd modulus n.
uint32_t NegatedInverseMod32(uint32_t odd_low_word);

// Fields of a blob, for display; fails when the blob is not well formed.
struct PublicKeyBlobInfo {
  uint32_t key_bits;
  std::vector<uint8_t> modulus;
};
android::base::Result<PublicKeyBlobInfo> ParsePublicKeyBlob(const uint8_t* data, size_t size);

}  // namespace rpktool
