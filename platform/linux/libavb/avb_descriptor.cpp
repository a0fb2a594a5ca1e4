// Descriptors in the auxiliary block of a vbmeta image. The image format
// library decides what is valid and walks the area; this converts to the
// library's structs.
#include <libavb/libavb.h>

#include <cstdlib>
#include <cstring>

#include "avb_bytes.h"
#include "avb_format.h"

namespace {

const uint8_t* Bytes(const void* at) { return static_cast<const uint8_t*>(at); }

}  // namespace

extern "C" bool avb_descriptor_validate_and_byteswap(const AvbDescriptor* src,
                                                     AvbDescriptor* dest) {
  const bool valid = avbformat::ReadDescriptorHeader(Bytes(src)).has_value();
  memmove(dest, src, sizeof(AvbDescriptor));
  AVB_FIELD_TO_HOST(dest, AvbDescriptor, tag);
  AVB_FIELD_TO_HOST(dest, AvbDescriptor, num_bytes_following);
  return valid;
}

extern "C" const AvbDescriptor** avb_descriptor_get_all(const uint8_t* image_data,
                                                        size_t image_size,
                                                        size_t* out_num_descriptors) {
  const auto spans = avbformat::WalkDescriptors(image_data, image_size);
  auto** all = static_cast<const AvbDescriptor**>(calloc(spans.size() + 1, sizeof(AvbDescriptor*)));
  if (all == nullptr) return nullptr;
  for (size_t i = 0; i < spans.size(); ++i) {
    all[i] = reinterpret_cast<const AvbDescriptor*>(image_data + spans[i].offset);
  }
  if (out_num_descriptors != nullptr) *out_num_descriptors = spans.size();
  return all;
}

extern "C" bool avb_hashtree_descriptor_validate_and_byteswap(const AvbHashtreeDescriptor* src,
                                                              AvbHashtreeDescriptor* dest) {
  if (!avbformat::IsValidHashtreeDescriptor(Bytes(src))) return false;
  AvbHashtreeDescriptor d;
  memcpy(&d, src, sizeof(d));
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, parent_descriptor.tag);
  AVB_FIELD_TO_HOST(&d, AvbHashtreeDescriptor, parent_descriptor.num_bytes_following);
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
  memcpy(dest, &d, sizeof(d));
  return true;
}

extern "C" void avb_free(void* ptr) { free(ptr); }
