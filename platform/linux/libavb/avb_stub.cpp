// Placeholder until the verified-boot stand-in lands: refuses everything.
#include <libavb/libavb.h>

#include <cstdlib>

extern "C" {
bool avb_footer_validate_and_byteswap(const AvbFooter*, AvbFooter*) { return false; }
AvbVBMetaVerifyResult avb_vbmeta_image_verify(const uint8_t*, size_t, const uint8_t** key,
                                              size_t* key_len) {
  if (key) *key = nullptr;
  if (key_len) *key_len = 0;
  return AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER;
}
const char* avb_vbmeta_verify_result_to_string(AvbVBMetaVerifyResult) { return "(unknown)"; }
void avb_vbmeta_image_header_to_host_byte_order(const AvbVBMetaImageHeader*, AvbVBMetaImageHeader*) {}
bool avb_descriptor_validate_and_byteswap(const AvbDescriptor*, AvbDescriptor*) { return false; }
const AvbDescriptor** avb_descriptor_get_all(const uint8_t*, size_t, size_t* n) {
  *n = 0;
  return static_cast<const AvbDescriptor**>(calloc(1, sizeof(AvbDescriptor*)));
}
bool avb_hashtree_descriptor_validate_and_byteswap(const AvbHashtreeDescriptor*, AvbHashtreeDescriptor*) {
  return false;
}
void avb_free(void* p) { free(p); }
}
