// The 64-byte footer at the end of a signed image: where its vbmeta block is.
#include <libavb/libavb.h>

#include <cstring>

#include "avb_bytes.h"

extern "C" bool avb_footer_validate_and_byteswap(const AvbFooter* src, AvbFooter* dest) {
  memmove(dest, src, sizeof(AvbFooter));
  if (memcmp(dest->magic, AVB_FOOTER_MAGIC, AVB_FOOTER_MAGIC_LEN) != 0) return false;

  AVB_FIELD_TO_HOST(dest, AvbFooter, version_major);
  AVB_FIELD_TO_HOST(dest, AvbFooter, version_minor);
  AVB_FIELD_TO_HOST(dest, AvbFooter, original_image_size);
  AVB_FIELD_TO_HOST(dest, AvbFooter, vbmeta_offset);
  AVB_FIELD_TO_HOST(dest, AvbFooter, vbmeta_size);

  // A newer minor version only adds meaning to reserved bytes; a newer
  // major version may move fields, so it is refused.
  return AVB_FIELD(dest, AvbFooter, version_major) <= AVB_FOOTER_VERSION_MAJOR;
}
