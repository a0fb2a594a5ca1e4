#include "public_key_blob.h"

#include "byte_order.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

uint32_t NegatedInverseMod32(uint32_t a) {
  // Newton's iteration doubles the number of correct low bits each round:
  // a*a == 1 mod 8 for odd a gives 3 bits, five rounds give 96 >= 32.
  uint32_t inverse = a;
  for (int i = 0; i < 5; ++i) inverse *= 2 - a * inverse;
  return 0u - inverse;
}

Result<std::vector<uint8_t>> EncodePublicKeyBlob(const RsaKey& key) {
  const std::vector<uint8_t>& modulus = key.modulus();
  const size_t length = modulus.size();

  UniqueBignum n(BN_bin2bn(modulus.data(), static_cast<int>(length), nullptr));
  UniqueBignum power(BN_new());
  UniqueBignum rr(BN_new());
  UniqueBnCtx ctx(BN_CTX_new());
  if (!n || !power || !rr || !ctx || BN_set_bit(power.get(), 2 * key.bits()) != 1 ||
      BN_mod(rr.get(), power.get(), n.get(), ctx.get()) != 1) {
    return Error() << "cannot compute the key's rr value: " << OpenSslErrors();
  }

  std::vector<uint8_t> blob(8 + 2 * length);
  PutBe32(blob.data(), key.bits());
  PutBe32(blob.data() + 4, NegatedInverseMod32(GetBe32(modulus.data() + length - 4)));
  std::copy(modulus.begin(), modulus.end(), blob.begin() + 8);
  if (BN_bn2binpad(rr.get(), blob.data() + 8 + length, static_cast<int>(length)) < 0) {
    return Error() << "cannot encode rr: " << OpenSslErrors();
  }
  return blob;
}

Result<PublicKeyBlobInfo> ParsePublicKeyBlob(const uint8_t* data, size_t size) {
  if (size < 8) return Error() << "public key blob of " << size << " bytes is too short";
  uint32_t bits = GetBe32(data);
  if (bits != 2048 && bits != 4096 && bits != 8192) {
    return Error() << "public key blob names " << bits << " bits";
  }
  if (size != 8 + 2 * (bits / 8)) {
    return Error() << "public key blob of " << size << " bytes does not fit " << bits << " bits";
  }
  return PublicKeyBlobInfo{bits, std::vector<uint8_t>(data + 8, data + 8 + bits / 8)};
}

}  // namespace rpktool
