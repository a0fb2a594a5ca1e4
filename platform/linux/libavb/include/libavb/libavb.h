#pragma once

// Linux stand-in for the verified-boot library: the on-disk structures and the
// verification calls that the package verifier uses, with the same names,
// layouts and results as on a device. All on-disk integers are big-endian;
// the *_validate_and_byteswap functions produce host-order copies.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define AVB_ATTR_PACKED __attribute__((packed))
#define AVB_ATTR_WARN_UNUSED_RESULT __attribute__((warn_unused_result))

#define AVB_VERSION_MAJOR 1
#define AVB_VERSION_MINOR 3

#define AVB_FOOTER_MAGIC "AVBf"
#define AVB_FOOTER_MAGIC_LEN 4
#define AVB_FOOTER_SIZE 64
#define AVB_FOOTER_VERSION_MAJOR 1
#define AVB_FOOTER_VERSION_MINOR 0

#define AVB_MAGIC "AVB0"
#define AVB_MAGIC_LEN 4
#define AVB_RELEASE_STRING_SIZE 48
#define AVB_VBMETA_IMAGE_HEADER_SIZE 256

typedef struct AvbFooter {
  uint8_t magic[AVB_FOOTER_MAGIC_LEN];
  uint32_t version_major;
  uint32_t version_minor;
  uint64_t original_image_size;
  uint64_t vbmeta_offset;
  uint64_t vbmeta_size;
  uint8_t reserved[28];
} AVB_ATTR_PACKED AvbFooter;

typedef struct AvbVBMetaImageHeader {
  uint8_t magic[AVB_MAGIC_LEN];
  uint32_t required_libavb_version_major;
  uint32_t required_libavb_version_minor;
  uint64_t authentication_data_block_size;
  uint64_t auxiliary_data_block_size;
  uint32_t algorithm_type;
  uint64_t hash_offset;
  uint64_t hash_size;
  uint64_t signature_offset;
  uint64_t signature_size;
  uint64_t public_key_offset;
  uint64_t public_key_size;
  uint64_t public_key_metadata_offset;
  uint64_t public_key_metadata_size;
  uint64_t descriptors_offset;
  uint64_t descriptors_size;
  uint64_t rollback_index;
  uint32_t flags;
  uint32_t rollback_index_location;
  uint8_t release_string[AVB_RELEASE_STRING_SIZE];
  uint8_t reserved[80];
} AVB_ATTR_PACKED AvbVBMetaImageHeader;

typedef enum {
  AVB_ALGORITHM_TYPE_NONE,
  AVB_ALGORITHM_TYPE_SHA256_RSA2048,
  AVB_ALGORITHM_TYPE_SHA256_RSA4096,
  AVB_ALGORITHM_TYPE_SHA256_RSA8192,
  AVB_ALGORITHM_TYPE_SHA512_RSA2048,
  AVB_ALGORITHM_TYPE_SHA512_RSA4096,
  AVB_ALGORITHM_TYPE_SHA512_RSA8192,
  _AVB_ALGORITHM_NUM_TYPES
} AvbAlgorithmType;

typedef enum {
  AVB_VBMETA_VERIFY_RESULT_OK,
  AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED,
  AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER,
  AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION,
  AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH,
  AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH,
} AvbVBMetaVerifyResult;

typedef enum {
  AVB_DESCRIPTOR_TAG_PROPERTY,
  AVB_DESCRIPTOR_TAG_HASHTREE,
  AVB_DESCRIPTOR_TAG_HASH,
  AVB_DESCRIPTOR_TAG_KERNEL_CMDLINE,
  AVB_DESCRIPTOR_TAG_CHAIN_PARTITION,
} AvbDescriptorTag;

typedef struct AvbDescriptor {
  uint64_t tag;
  uint64_t num_bytes_following;
} AVB_ATTR_PACKED AvbDescriptor;

typedef enum {
  AVB_HASHTREE_DESCRIPTOR_FLAGS_DO_NOT_USE_AB = (1 << 0),
  AVB_HASHTREE_DESCRIPTOR_FLAGS_CHECK_AT_MOST_ONCE = (1 << 1)
} AvbHashtreeDescriptorFlags;

typedef struct AvbHashtreeDescriptor {
  AvbDescriptor parent_descriptor;
  uint32_t dm_verity_version;
  uint64_t image_size;
  uint64_t tree_offset;
  uint64_t tree_size;
  uint32_t data_block_size;
  uint32_t hash_block_size;
  uint32_t fec_num_roots;
  uint64_t fec_offset;
  uint64_t fec_size;
  uint8_t hash_algorithm[32];
  uint32_t partition_name_len;
  uint32_t salt_len;
  uint32_t root_digest_len;
  uint32_t flags;
  uint8_t reserved[60];
} AVB_ATTR_PACKED AvbHashtreeDescriptor;

typedef struct AvbRSAPublicKeyHeader {
  uint32_t key_num_bits;
  uint32_t n0inv;
} AVB_ATTR_PACKED AvbRSAPublicKeyHeader;

bool avb_footer_validate_and_byteswap(const AvbFooter* src, AvbFooter* dest)
    AVB_ATTR_WARN_UNUSED_RESULT;

AvbVBMetaVerifyResult avb_vbmeta_image_verify(const uint8_t* data, size_t length,
                                              const uint8_t** out_public_key_data,
                                              size_t* out_public_key_length)
    AVB_ATTR_WARN_UNUSED_RESULT;

const char* avb_vbmeta_verify_result_to_string(AvbVBMetaVerifyResult result);

void avb_vbmeta_image_header_to_host_byte_order(const AvbVBMetaImageHeader* src,
                                                AvbVBMetaImageHeader* dest);

bool avb_descriptor_validate_and_byteswap(const AvbDescriptor* src, AvbDescriptor* dest)
    AVB_ATTR_WARN_UNUSED_RESULT;

// A newly allocated array of pointers into `image_data`, one per descriptor,
// ending in NULL; free it with avb_free().
const AvbDescriptor** avb_descriptor_get_all(const uint8_t* image_data, size_t image_size,
                                             size_t* out_num_descriptors)
    AVB_ATTR_WARN_UNUSED_RESULT;

bool avb_hashtree_descriptor_validate_and_byteswap(const AvbHashtreeDescriptor* src,
                                                   AvbHashtreeDescriptor* dest)
    AVB_ATTR_WARN_UNUSED_RESULT;

void avb_free(void* ptr);

#ifdef __cplusplus
}
#endif
