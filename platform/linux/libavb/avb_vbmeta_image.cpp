// The vbmeta block: header, authentication block (hash and signature) and
// auxiliary block (descriptors and public key). Verification checks the
// header (through the image format library) first, then the hash over
// header and auxiliary block, then the RSA signature over that hash.
#include <libavb/libavb.h>

#include <cstdio>
#include <cstring>

#include "avb_bytes.h"
#include "avb_crypto.h"
#include "avb_format.h"

namespace {

// The library's constants and the format library's limits are one fact.
static_assert(AVB_VERSION_MAJOR == avbformat::kVerifierVersionMajor);
static_assert(AVB_VERSION_MINOR == avbformat::kVerifierVersionMinor);
static_assert(AVB_FOOTER_VERSION_MAJOR == avbformat::kFooterVersionMajor);
static_assert(AVB_FOOTER_SIZE == avbformat::kFooterSize);
static_assert(sizeof(AvbVBMetaImageHeader) == avbformat::kVbmetaHeaderSize);
static_assert(AVB_RELEASE_STRING_SIZE == avbformat::kReleaseStringSize);
static_assert(_AVB_ALGORITHM_NUM_TYPES == avbformat::kAlgorithmCount);
static_assert(sizeof(AvbHashtreeDescriptor) == avbformat::kHashtreeDescriptorSize);

AvbVBMetaVerifyResult CheckSignature(const avbformat::VbmetaHeader& h,
                                     const avbformat::Algorithm& algorithm, const uint8_t* data) {
  const uint8_t* auth = data + h.auth_offset();
  const uint8_t* aux = data + h.aux_offset();
  uint8_t digest[avb_standin::kMaxDigestLength];
  if (!avb_standin::DigestOfTwo(algorithm, data, sizeof(AvbVBMetaImageHeader), aux,
                                h.aux_block_size, digest) ||
      memcmp(digest, auth + h.hash_offset, algorithm.hash_size) != 0) {
    return AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH;
  }
  // A key of another size than the algorithm's gives a signature mismatch,
  // like a wrong signature.
  const uint8_t* key = aux + h.public_key_offset;
  if (h.signature_size != algorithm.signature_size ||
      !avb_standin::RsaPkcs1Verify(key, h.public_key_size, algorithm, digest,
                                   auth + h.signature_offset, h.signature_size)) {
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

  const avbformat::VbmetaCheck check = avbformat::CheckVbmeta(data, length);
  if (check.verdict == avbformat::VbmetaVerdict::kUnsupportedVersion) {
    return AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION;
  }
  uintptr_t buffer_end;
  if (!check.ok() ||
      __builtin_add_overflow(reinterpret_cast<uintptr_t>(data), length, &buffer_end)) {
    return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
  }
  // An unsigned image is reported as such before anything is hashed.
  const avbformat::VbmetaHeader& h = check.header;
  if (h.algorithm_type == avbformat::kAlgorithmNone) {
    return AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED;
  }
  const AvbVBMetaVerifyResult result =
      CheckSignature(h, *avbformat::FindAlgorithm(h.algorithm_type), data);
  if (result != AVB_VBMETA_VERIFY_RESULT_OK) return result;

  // The caller decides whether this key is trusted.
  if (out_public_key_data != nullptr) {
    *out_public_key_data = data + h.aux_offset() + h.public_key_offset;
  }
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
