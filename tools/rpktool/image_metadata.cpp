#include "image_metadata.h"

#include "byte_order.h"
#include "file_io.h"
#include "mend_mount_file.h"

namespace rpktool {

ImageMetadata ReadImageMetadata(int fd, uint64_t offset, uint64_t size) {
  ImageMetadata meta;
  uint8_t footer[avbformat::kFooterSize];
  if (size < sizeof(footer) ||
      !ReadAt(fd, footer, sizeof(footer), offset + size - sizeof(footer)).ok()) {
    meta.problem = "the image has no room for a footer";
    return meta;
  }
  meta.footer = avbformat::ReadFooter(footer);
  if (!meta.footer) {
    meta.problem = "no footer: the magic is not AVBf or the version is newer than 1";
    return meta;
  }
  const uint64_t vbmeta_size = meta.footer->vbmeta_size;
  if (vbmeta_size > android::rpk::kVbMetaMaxSize ||
      !avbformat::RangeFits(meta.footer->vbmeta_offset, vbmeta_size, size)) {
    meta.problem = "the footer's vbmeta block [" + std::to_string(meta.footer->vbmeta_offset) +
                   ", +" + std::to_string(vbmeta_size) + ") is larger than " +
                   std::to_string(android::rpk::kVbMetaMaxSize) + " bytes or outside the image";
    return meta;
  }
  auto vbmeta = ReadAt(fd, vbmeta_size, offset + meta.footer->vbmeta_offset);
  if (!vbmeta.ok()) {
    meta.problem = "cannot read the vbmeta block: " + vbmeta.error().message();
    return meta;
  }
  meta.vbmeta = std::move(*vbmeta);
  meta.check = avbformat::CheckVbmeta(meta.vbmeta.data(), meta.vbmeta.size());
  if (meta.check->ok()) {
    const uint8_t* key =
        meta.vbmeta.data() + meta.check->header.aux_offset() + meta.check->header.public_key_offset;
    meta.public_key.assign(key, key + meta.check->header.public_key_size);
  }
  for (const auto& span : avbformat::WalkDescriptors(meta.vbmeta.data(), meta.vbmeta.size())) {
    const uint8_t* at = meta.vbmeta.data() + span.offset;
    DescriptorInfo info{span.tag, span.size, std::nullopt};
    if (span.tag == avbformat::kTagHashtree) {
      info.hashtree = avbformat::ReadHashtreeDescriptor(at, span.size);
    }
    meta.descriptors.push_back(std::move(info));
  }
  return meta;
}

}  // namespace rpktool
