#include "image_metadata.h"

#include "file_io.h"

namespace rpktool {

namespace {

// Far above any real vbmeta; keeps a corrupt footer from asking for gigabytes.
constexpr uint64_t kMaxVbmetaSize = 16 << 20;

}  // namespace

const HashtreeDescriptor* ImageMetadata::Hashtree() const {
  for (const auto& descriptor : descriptors) {
    if (descriptor.hashtree) return &*descriptor.hashtree;
  }
  return nullptr;
}

ImageMetadata ReadImageMetadata(int fd, uint64_t offset, uint64_t size) {
  ImageMetadata meta;
  if (size < kFooterSize) {
    meta.problem = "the image is smaller than an AVB footer";
    return meta;
  }
  auto footer_bytes = ReadAt(fd, kFooterSize, offset + size - kFooterSize);
  if (!footer_bytes.ok()) {
    meta.problem = "cannot read the AVB footer: " + footer_bytes.error().message();
    return meta;
  }
  auto footer = ParseFooter(footer_bytes->data());
  if (!footer.ok()) {
    meta.problem = footer.error().message();
    return meta;
  }
  meta.footer = *footer;

  if (footer->vbmeta_size > kMaxVbmetaSize || footer->vbmeta_offset > size ||
      footer->vbmeta_size > size - footer->vbmeta_offset) {
    meta.problem = "the footer's vbmeta range [" + std::to_string(footer->vbmeta_offset) + ", +" +
                   std::to_string(footer->vbmeta_size) + ") does not fit the image";
    return meta;
  }
  auto vbmeta = ReadAt(fd, footer->vbmeta_size, offset + footer->vbmeta_offset);
  if (!vbmeta.ok()) {
    meta.problem = "cannot read vbmeta: " + vbmeta.error().message();
    return meta;
  }
  meta.vbmeta = std::move(*vbmeta);

  auto header = ParseVbmetaHeader(meta.vbmeta.data(), meta.vbmeta.size());
  if (!header.ok()) {
    meta.problem = header.error().message();
    return meta;
  }
  meta.header = *header;
  const uint8_t* aux = meta.vbmeta.data() + kVbmetaHeaderSize + header->auth_block_size;
  meta.public_key.assign(aux + header->public_key_offset,
                         aux + header->public_key_offset + header->public_key_size);

  auto raw = SplitDescriptors(aux + header->descriptors_offset, header->descriptors_size);
  if (!raw.ok()) {
    meta.problem = raw.error().message();
    return meta;
  }
  for (const auto& descriptor : *raw) {
    DescriptorInfo info;
    info.tag = descriptor.tag;
    info.size = descriptor.body_size;
    if (descriptor.tag == kTagHashtree) {
      auto parsed = ParseHashtreeDescriptor(descriptor);
      if (parsed.ok()) {
        info.hashtree = *parsed;
      } else {
        info.problem = parsed.error().message();
      }
    } else if (descriptor.tag == kTagHash) {
      auto parsed = ParseHashDescriptor(descriptor);
      if (parsed.ok()) {
        info.hash = *parsed;
      } else {
        info.problem = parsed.error().message();
      }
    }
    if (!info.problem.empty() && meta.problem.empty()) meta.problem = info.problem;
    meta.descriptors.push_back(std::move(info));
  }
  return meta;
}

}  // namespace rpktool
