#include "avb_crypto.h"

#include <openssl/err.h>

#include <algorithm>
#include <vector>

#include "crypto_holders.h"

namespace avb_standin {
namespace {

using avbformat::BignumPtr;
using avbformat::BnCtxPtr;
using avbformat::MdCtxPtr;

// The DER DigestInfo that precedes a digest inside a PKCS#1 v1.5 signature.
constexpr uint8_t kSha256DigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                         0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr uint8_t kSha512DigestInfo[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                         0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

// The block a valid signature of `digest` decrypts to, `length` bytes.
std::vector<uint8_t> PaddedDigest(const avbformat::Algorithm& algorithm, const uint8_t* digest,
                                  size_t length) {
  const bool sha512 = algorithm.hash_size == 64;
  const uint8_t* info = sha512 ? kSha512DigestInfo : kSha256DigestInfo;
  const size_t info_length = sizeof(kSha256DigestInfo);
  std::vector<uint8_t> block(length, 0xff);
  block[0] = 0x00;
  block[1] = 0x01;
  const size_t tail = 1 + info_length + algorithm.hash_size;
  block[length - tail] = 0x00;
  std::copy(info, info + info_length, block.end() - tail + 1);
  std::copy(digest, digest + algorithm.hash_size, block.end() - algorithm.hash_size);
  return block;
}

}  // namespace

bool DigestOfTwo(const avbformat::Algorithm& algorithm, const uint8_t* first, size_t first_length,
                 const uint8_t* second, size_t second_length, uint8_t* out) {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  const EVP_MD* md = EVP_get_digestbyname(algorithm.hash);
  unsigned int written = 0;
  const bool ok = ctx && md && EVP_DigestInit_ex(ctx.get(), md, nullptr) == 1 &&
                  EVP_DigestUpdate(ctx.get(), first, first_length) == 1 &&
                  EVP_DigestUpdate(ctx.get(), second, second_length) == 1 &&
                  EVP_DigestFinal_ex(ctx.get(), out, &written) == 1 &&
                  written == algorithm.hash_size;
  if (!ok) ERR_clear_error();
  return ok;
}

bool RsaPkcs1Verify(const uint8_t* blob, size_t blob_length, const avbformat::Algorithm& algorithm,
                    const uint8_t* digest, const uint8_t* signature, size_t signature_length) {
  const size_t length = avbformat::PublicKeyModulusLength(blob, blob_length);
  if (length == 0 || signature_length != length) return false;
  const int size = static_cast<int>(length);
  BignumPtr n(BN_bin2bn(blob + avbformat::kPublicKeyHeaderSize, size, nullptr));
  BignumPtr s(BN_bin2bn(signature, size, nullptr));
  BignumPtr e(BN_new());
  BignumPtr m(BN_new());
  BnCtxPtr ctx(BN_CTX_new());
  std::vector<uint8_t> block(length);
  const bool ok = n && s && e && m && ctx && BN_cmp(s.get(), n.get()) < 0 &&
                  BN_set_word(e.get(), avbformat::kRsaPublicExponent) == 1 &&
                  BN_mod_exp(m.get(), s.get(), e.get(), n.get(), ctx.get()) == 1 &&
                  BN_bn2binpad(m.get(), block.data(), size) == size;
  if (!ok) ERR_clear_error();
  return ok && block == PaddedDigest(algorithm, digest, length);
}

}  // namespace avb_standin
