#pragma once

// Hashing and RSA signature checks for the vbmeta verifier.

#include <cstddef>
#include <cstdint>

#include "avb_format.h"

namespace avb_standin {

inline constexpr size_t kMaxDigestLength = 64;

// The algorithm's hash of `first` followed by `second` into `out`
// (algorithm.hash_size bytes). False only when the hash library fails.
bool DigestOfTwo(const avbformat::Algorithm& algorithm, const uint8_t* first, size_t first_length,
                 const uint8_t* second, size_t second_length, uint8_t* out);

// True when `signature` is a PKCS#1 v1.5 signature of `digest` (the
// algorithm's hash) under the key blob's modulus and the exponent 65537:
// raised to the exponent it must give exactly 00 01 FF..FF 00, the hash's
// DigestInfo, the digest. The blob must be well formed.
bool RsaPkcs1Verify(const uint8_t* blob, size_t blob_length, const avbformat::Algorithm& algorithm,
                    const uint8_t* digest, const uint8_t* signature, size_t signature_length);

}  // namespace avb_standin
