// The RSA public key blob: key size, n0inv, modulus and rr.
#include "avb_format.h"
#include "byte_order.h"
#include "crypto_holders.h"

namespace avbformat {
namespace {

// -1/a mod 2^32 for odd a. Newton's iteration doubles the correct low bits
// each round: a*a == 1 mod 8 gives 3 bits, five rounds give 96 >= 32.
uint32_t NegatedInverseMod32(uint32_t a) {
  uint32_t inverse = a;
  for (int i = 0; i < 5; ++i) inverse *= 2 - a * inverse;
  return 0u - inverse;
}

}  // namespace

bool PublicKey::operator==(const PublicKey& o) const {
  return key_bits == o.key_bits && n0inv == o.n0inv && modulus == o.modulus && rr == o.rr;
}

std::vector<uint8_t> WritePublicKey(const PublicKey& key) {
  std::vector<uint8_t> blob(kPublicKeyHeaderSize);
  PutBe32(&blob[0], key.key_bits);
  PutBe32(&blob[4], key.n0inv);
  blob.insert(blob.end(), key.modulus.begin(), key.modulus.end());
  blob.insert(blob.end(), key.rr.begin(), key.rr.end());
  return blob;
}

size_t PublicKeyModulusLength(const uint8_t* blob, size_t size) {
  if (size < kPublicKeyHeaderSize) return 0;
  const uint32_t bits = GetBe32(blob);
  if (!IsRsaKeySize(bits) || size != kPublicKeyHeaderSize + 2 * (bits / 8)) return 0;
  return bits / 8;
}

std::optional<PublicKey> ReadPublicKey(const uint8_t* blob, size_t size) {
  const size_t length = PublicKeyModulusLength(blob, size);
  if (length == 0) return std::nullopt;
  const uint8_t* modulus = blob + kPublicKeyHeaderSize;
  return PublicKey{GetBe32(blob),
                   GetBe32(blob + 4),
                   {modulus, modulus + length},
                   {modulus + length, modulus + 2 * length}};
}

std::optional<PublicKey> PublicKeyForModulus(const std::vector<uint8_t>& modulus) {
  const size_t length = modulus.size();
  if (!IsRsaKeySize(static_cast<uint32_t>(length * 8)) || (modulus[0] & 0x80) == 0 ||
      (modulus.back() & 1) == 0) {
    return std::nullopt;
  }
  PublicKey key{static_cast<uint32_t>(length * 8),
                NegatedInverseMod32(GetBe32(&modulus[length - 4])), modulus,
                std::vector<uint8_t>(length)};
  BignumPtr n(BN_bin2bn(modulus.data(), static_cast<int>(length), nullptr));
  BignumPtr power(BN_new());
  BignumPtr rr(BN_new());
  BnCtxPtr ctx(BN_CTX_new());
  if (!n || !power || !rr || !ctx || BN_set_bit(power.get(), 2 * key.key_bits) != 1 ||
      BN_mod(rr.get(), power.get(), n.get(), ctx.get()) != 1 ||
      BN_bn2binpad(rr.get(), key.rr.data(), static_cast<int>(length)) < 0) {
    return std::nullopt;
  }
  return key;
}

}  // namespace avbformat
