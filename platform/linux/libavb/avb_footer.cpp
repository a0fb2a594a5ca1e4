// The 64-byte footer at the end of a signed image: where its vbmeta block is.
#include <libavb/libavb.h>

#include <cstring>

#include "avb_bytes.h"
#include "avb_format.h"

extern "C" bool avb_footer_validate_and_byteswap(const AvbFooter* src, AvbFooter* dest) {
  const bool valid = avbformat::ReadFooter(reinterpret_cast<const uint8_t*>(src)).has_value();
  memmove(dest, src, sizeof(AvbFooter));
  AVB_FIELD_TO_HOST(dest, AvbFooter, version_major);
  AVB_FIELD_TO_HOST(dest, AvbFooter, version_minor);
  AVB_FIELD_TO_HOST(dest, AvbFooter, original_image_size);
  AVB_FIELD_TO_HOST(dest, AvbFooter, vbmeta_offset);
  AVB_FIELD_TO_HOST(dest, AvbFooter, vbmeta_size);
  return valid;
}
