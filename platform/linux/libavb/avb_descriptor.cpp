// Descriptors in the auxiliary block of a vbmeta image: a 16-byte header
// (tag, length of what follows) and a body. The walk stops at the first
// descriptor that does not fit, keeping those before it.
#include <libavb/libavb.h>

#include <cstdlib>
#include <cstring>

#include "avb_bytes.h"

namespace {

using avb_standin::CheckedAdd;

// Bytes of the hashtree descriptor's fixed part that follow its 16-byte
// descriptor header.
constexpr uint64_t kHashtreeFixedBytesFollowing =
    sizeof(AvbHashtreeDescriptor) - sizeof(AvbDescriptor);

// Calls visit(descriptor) for each well-formed descriptor in the image's
// descriptor area, in order; returns how many were visited.
template <typename Visit>
size_t ForEachDescriptor(const uint8_t* image, size_t image_size, Visit visit) {
  if (image == nullptr || image_size < sizeof(AvbVBMetaImageHeader) ||
      memcmp(image, AVB_MAGIC, AVB_MAGIC_LEN) != 0) {
    return 0;
  }
  AvbVBMetaImageHeader h;
  avb_vbmeta_image_header_to_host_byte_order(reinterpret_cast<const AvbVBMetaImageHeader*>(image),
                                             &h);
  uint64_t start, end;
  if (!CheckedAdd(sizeof(AvbVBMetaImageHeader), h.authentication_data_block_size, &start) ||
      !CheckedAdd(start, h.descriptors_offset, &start) ||
      !CheckedAdd(start, h.descriptors_size, &end) || end > image_size) {
    return 0;
  }

  size_t count = 0;
  for (uint64_t at = start; end - at >= sizeof(AvbDescriptor);) {
    AvbDescriptor header;
    if (!avb_descriptor_validate_and_byteswap(
            reinterpret_cast<const AvbDescriptor*>(image + at), &header)) {
      break;
    }
    const uint64_t body = header.num_bytes_following;
    if (body > end - at - sizeof(AvbDescriptor)) break;
    visit(reinterpret_cast<const AvbDescriptor*>(image + at));
    ++count;
    at += sizeof(AvbDescriptor) + body;
  }
  return count;
}

}  // namespace

extern "C" bool avb_descriptor_validate_and_byteswap(const AvbDescriptor* src,
                                                     AvbDescriptor* dest) {
  memmove(dest, src, sizeof(AvbDescriptor));
  AVB_FIELD_TO_HOST(dest, AvbDescriptor, tag);
  AVB_FIELD_TO_HOST(dest, AvbDescriptor, num_bytes_following);
  // Descriptors are padded to 8 bytes; the header itself is 16.
  return AVB_FIELD(dest, AvbDescriptor, num_bytes_following) % 8 == 0;
}

extern "C" const AvbDescriptor** avb_descriptor_get_all(const uint8_t* image_data,
                                                        size_t image_size,
                                                        size_t* out_num_descriptors) {
  const size_t count = ForEachDescriptor(image_data, image_size, [](const AvbDescriptor*) {});
  auto** all = static_cast<const AvbDescriptor**>(calloc(count + 1, sizeof(AvbDescriptor*)));
  if (all == nullptr) return nullptr;
  size_t filled = 0;
  ForEachDescriptor(image_data, image_size,
                    [&](const AvbDescriptor* descriptor) { all[filled++] = descriptor; });
  if (out_num_descriptors != nullptr) *out_num_descriptors = count;
  return all;
}

extern "C" bool avb_hashtree_descriptor_validate_and_byteswap(const AvbHashtreeDescriptor* src,
                                                              AvbHashtreeDescriptor* dest) {
  AvbHashtreeDescriptor d;
  memcpy(&d, src, sizeof(d));
  if (!avb_descriptor_validate_and_byteswap(&d.parent_descriptor, &d.parent_descriptor) ||
      d.parent_descriptor.tag != AVB_DESCRIPTOR_TAG_HASHTREE) {
    return false;
  }
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, dm_verity_version);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, image_size);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, tree_offset);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, tree_size);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, data_block_size);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, hash_block_size);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, fec_num_roots);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, fec_offset);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, fec_size);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, partition_name_len);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, salt_len);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, root_digest_len);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, flags);

  // The fixed part and the three variable fields must fit in the body; the
  // lengths are summed in 64 bits so that no 32-bit value can wrap.
  const uint64_t needed = kHashtreeFixedBytesFollowing + uint64_t{d.partition_name_len} +
                          uint64_t{d.salt_len} + uint64_t{d.root_digest_len};
  if (needed > d.parent_descriptor.num_bytes_following) return false;
  memcpy(dest, &d, sizeof(d));
  return true;
}

extern "C" void avb_free(void* ptr) { free(ptr); }
