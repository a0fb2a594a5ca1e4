#pragma once

// Hashing and RSA signature checks for the vbmeta verifier, through OpenSSL.

#include <cstddef>
#include <cstdint>

namespace avb_standin {

enum class HashKind { kSha256, kSha512 };

inline constexpr size_t kMaxDigestLength = 64;

size_t DigestLength(HashKind kind);

// Digest of `first` followed by `second` into `out` (DigestLength(kind)
// bytes). False only when the hash library fails.
bool DigestOfTwo(HashKind kind, const uint8_t* first, size_t first_length,
                 const uint8_t* second, size_t second_length, uint8_t* out);

// Modulus length in bytes of a public key blob (key_num_bits, n0inv,
// modulus, rr), or 0 when the blob is malformed: an unsupported key size or
// a length that does not match it.
size_t PublicKeyModulusLength(const uint8_t* blob, size_t blob_length);

// True when `signature` is a PKCS#1 v1.5 signature of `digest` under the
// blob's modulus and the public exponent 65537. The blob must be well formed
// (PublicKeyModulusLength > 0).
bool RsaPkcs1Verify(const uint8_t* blob, size_t blob_length, HashKind kind,
                    const uint8_t* digest, const uint8_t* signature, size_t signature_length);

}  // namespace avb_standin
