// The vbmeta block: header, authentication block (hash and signature) and
// auxiliary block (descriptors and public key). Verification checks the
// header's layout first, then the hash over header and auxiliary block,
// then the RSA signature over that hash.
#include <libavb/libavb.h>

#include <cstdio>
#include <cstring>

#include "avb_bytes.h"
#include "avb_crypto.h"

namespace {

using avb_standin::HashKind;
using avb_standin::RangeFits;

struct AlgorithmInfo {
  HashKind hash;
  size_t signature_length;
};

// Hash and signature size of each signing algorithm (index = algorithm_type);
// entry 0 (NONE) is never looked up.
constexpr AlgorithmInfo kAlgorithms[_AVB_ALGORITHM_NUM_TYPES] = {
    {HashKind::kSha256, 0},    {HashKind::kSha256, 256}, {HashKind::kSha256, 512},
    {HashKind::kSha256, 1024}, {HashKind::kSha512, 256}, {HashKind::kSha512, 512},
    {HashKind::kSha512, 1024},
};

// Where the blocks of a vbmeta image start inside its buffer.
struct Layout {
  const uint8_t* header;
  const uint8_t* auth;
  const uint8_t* aux;
};

// True when the header's blocks and the ranges inside them all lie inside
// `length` bytes; every sum is checked for overflow.
bool LayoutFits(const AvbVBMetaImageHeader& h, size_t length) {
  const uint64_t auth = h.authentication_data_block_size;
  const uint64_t aux = h.auxiliary_data_block_size;
  if (auth % 64 != 0 || aux % 64 != 0) return false;
  uint64_t blocks;
  if (!avb_standin::CheckedAdd(auth, aux, &blocks) ||
      !RangeFits(sizeof(AvbVBMetaImageHeader), blocks, length)) {
    return false;
  }
  if (!RangeFits(h.hash_offset, h.hash_size, auth) ||
      !RangeFits(h.signature_offset, h.signature_size, auth) ||
      !RangeFits(h.public_key_offset, h.public_key_size, aux)) {
    return false;
  }
  return h.public_key_metadata_size == 0 ||
         RangeFits(h.public_key_metadata_offset, h.public_key_metadata_size, aux);
}

AvbVBMetaVerifyResult CheckSignature(const AvbVBMetaImageHeader& h, const Layout& at) {
  const AlgorithmInfo& algorithm = kAlgorithms[h.algorithm_type];
  const size_t digest_length = avb_standin::DigestLength(algorithm.hash);
  if (h.hash_size != digest_length) return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;

  uint8_t digest[avb_standin::kMaxDigestLength];
  if (!avb_standin::DigestOfTwo(algorithm.hash, at.header, sizeof(AvbVBMetaImageHeader), at.aux,
                                h.auxiliary_data_block_size, digest) ||
      memcmp(digest, at.auth + h.hash_offset, digest_length) != 0) {
    return AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH;
  }

  // A key of another size than the algorithm's gives a signature mismatch,
  // like a wrong signature.
  const uint8_t* key = at.aux + h.public_key_offset;
  const size_t modulus_length = avb_standin::PublicKeyModulusLength(key, h.public_key_size);
  if (modulus_length == 0 || h.signature_size != modulus_length ||
      algorithm.signature_length != modulus_length ||
      !avb_standin::RsaPkcs1Verify(key, h.public_key_size, algorithm.hash, digest,
                                   at.auth + h.signature_offset, h.signature_size)) {
    return AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH;
  }
  return AVB_VBMETA_VERIFY_RESULT_OK;
}

}  // namespace

extern "C" void avb_vbmeta_image_header_to_host_byte_order(const AvbVBMetaImageHeader* src,
                                                           AvbVBMetaImageHeader* dest) {
  memmove(dest, src, sizeof(AvbVBMetaImageHeader));
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, required_libavb_version_major);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, required_libavb_version_minor);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, authentication_data_block_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, auxiliary_data_block_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, algorithm_type);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, hash_offset);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, hash_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, signature_offset);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, signature_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, public_key_offset);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, public_key_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, public_key_metadata_offset);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, public_key_metadata_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, descriptors_offset);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, descriptors_size);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, rollback_index);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, flags);
  AVB_FIELD_TO_HOST(dest, AvbVBMetaImageHeader, rollback_index_location);
}

extern "C" AvbVBMetaVerifyResult avb_vbmeta_image_verify(const uint8_t* data, size_t length,
                                                         const uint8_t** out_public_key_data,
                                                         size_t* out_public_key_length) {
  if (out_public_key_data != nullptr) *out_public_key_data = nullptr;
  if (out_public_key_length != nullptr) *out_public_key_length = 0;

  if (data == nullptr || length < sizeof(AvbVBMetaImageHeader) ||
      memcmp(data, AVB_MAGIC, AVB_MAGIC_LEN) != 0) {
    return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
  }
  AvbVBMetaImageHeader h;
  avb_vbmeta_image_header_to_host_byte_order(reinterpret_cast<const AvbVBMetaImageHeader*>(data),
                                             &h);
  if (h.required_libavb_version_major != AVB_VERSION_MAJOR ||
      h.required_libavb_version_minor > AVB_VERSION_MINOR) {
    return AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION;
  }
  if (h.release_string[AVB_RELEASE_STRING_SIZE - 1] != 0 || !LayoutFits(h, length)) {
    return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
  }
  uintptr_t buffer_end;
  if (__builtin_add_overflow(reinterpret_cast<uintptr_t>(data), length, &buffer_end)) {
    return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
  }

  // An unsigned image is reported as such before anything is hashed.
  if (h.algorithm_type == AVB_ALGORITHM_TYPE_NONE) return AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED;
  if (h.algorithm_type >= _AVB_ALGORITHM_NUM_TYPES) {
    return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
  }

  const Layout at{data, data + sizeof(AvbVBMetaImageHeader),
                  data + sizeof(AvbVBMetaImageHeader) + h.authentication_data_block_size};
  const AvbVBMetaVerifyResult result = CheckSignature(h, at);
  if (result != AVB_VBMETA_VERIFY_RESULT_OK) return result;

  // The caller decides whether this key is trusted.
  if (out_public_key_data != nullptr) *out_public_key_data = at.aux + h.public_key_offset;
  if (out_public_key_length != nullptr) *out_public_key_length = h.public_key_size;
  return AVB_VBMETA_VERIFY_RESULT_OK;
}

extern "C" const char* avb_vbmeta_verify_result_to_string(AvbVBMetaVerifyResult result) {
  switch (result) {
    case AVB_VBMETA_VERIFY_RESULT_OK:
      return "OK";
    case AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED:
      return "OK_NOT_SIGNED";
    case AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER:
      return "INVALID_VBMETA_HEADER";
    case AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION:
      return "UNSUPPORTED_VERSION";
    case AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH:
      return "HASH_MISMATCH";
    case AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH:
      return "SIGNATURE_MISMATCH";
  }
  fprintf(stderr, "avb_vbmeta_image: ERROR: Unknown AvbVBMetaVerifyResult value %d.\n",
          static_cast<int>(result));
  return "(unknown)";
}
