// Fuzzes the path an untrusted package image takes before anything trusts
// it: footer, vbmeta header and signature checks, the descriptor walk and
// the hashtree descriptor, and the engine's reading of the verity data.
//
// An input that ends in a valid footer is an image tail: the footer's
// vbmeta range (when it lies inside the input) is the block. Any other
// input is the vbmeta block itself. The block is copied into a buffer of
// its exact size so that a read past its end is caught.
#include <android-base/logging.h>
#include <libavb/libavb.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "mend_mount_file.h"

namespace {

// Aborts (a finding) when [at, at + length) is not inside the block.
void RequireInside(const std::vector<uint8_t>& block, const void* at, size_t length) {
  const auto begin = reinterpret_cast<uintptr_t>(block.data());
  const auto start = reinterpret_cast<uintptr_t>(at);
  if (start < begin || start - begin > block.size() || length > block.size() - (start - begin)) {
    abort();
  }
}

void CheckSignature(const std::vector<uint8_t>& block) {
  const uint8_t* key = nullptr;
  size_t key_length = 0;
  const AvbVBMetaVerifyResult result =
      avb_vbmeta_image_verify(block.data(), block.size(), &key, &key_length);
  if (result == AVB_VBMETA_VERIFY_RESULT_OK) {
    RequireInside(block, key, key_length);
  } else if (key != nullptr || key_length != 0) {
    abort();  // a key is only reported for a verified block
  }
  (void)avb_vbmeta_verify_result_to_string(result);
}

void WalkDescriptors(const std::vector<uint8_t>& block) {
  size_t count = 0;
  std::unique_ptr<const AvbDescriptor*[], void (*)(void*)> all(
      avb_descriptor_get_all(block.data(), block.size(), &count), avb_free);
  if (!all) return;
  if (all[count] != nullptr) abort();
  for (size_t i = 0; i < count; ++i) {
    AvbDescriptor header;
    RequireInside(block, all[i], sizeof(header));
    if (!avb_descriptor_validate_and_byteswap(all[i], &header)) abort();  // the walk checked it
    RequireInside(block, all[i] + 1, header.num_bytes_following);
    if (header.tag != AVB_DESCRIPTOR_TAG_HASHTREE) continue;

    // The fixed part may not fit a short descriptor at the block's end.
    const auto* at = reinterpret_cast<const uint8_t*>(all[i]);
    if (static_cast<size_t>(block.data() + block.size() - at) < sizeof(AvbHashtreeDescriptor)) {
      continue;
    }
    AvbHashtreeDescriptor tree;
    if (!avb_hashtree_descriptor_validate_and_byteswap(
            reinterpret_cast<const AvbHashtreeDescriptor*>(at), &tree)) {
      continue;
    }
    const uint64_t variable = uint64_t{tree.partition_name_len} + tree.salt_len +
                              tree.root_digest_len;
    RequireInside(block, at + sizeof(AvbHashtreeDescriptor), variable);
  }
}

void FuzzBlock(const std::vector<uint8_t>& block) {
  CheckSignature(block);
  WalkDescriptors(block);
  auto data = android::rpk::VerityDataFromVbmeta(block.data(), block.size());
  if (data.ok() && (data->salt.size() % 2 != 0 || data->root_digest.size() % 2 != 0)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The engine logs every step; the log is not what is under test.
  android::base::SetMinimumLogSeverity(android::base::FATAL);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size >= AVB_FOOTER_SIZE) {
    AvbFooter footer;
    if (avb_footer_validate_and_byteswap(
            reinterpret_cast<const AvbFooter*>(data + size - AVB_FOOTER_SIZE), &footer)) {
      const uint64_t offset = footer.vbmeta_offset;
      const uint64_t length = footer.vbmeta_size;
      if (offset <= size && length <= size - offset) {
        FuzzBlock(std::vector<uint8_t>(data + offset, data + offset + length));
      }
      return 0;
    }
  }
  FuzzBlock(std::vector<uint8_t>(data, data + size));
  return 0;
}
