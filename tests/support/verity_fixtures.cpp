#include "verity_fixtures.h"

#include <algorithm>
#include <cstring>

#include "avb_fixtures.h"

namespace mend_test {

android::rpk::RpkVerityData MakeVerityData(uint64_t image_size, uint64_t tree_offset,
                                           uint32_t data_block_size, uint32_t hash_block_size,
                                           const std::string& hash_algorithm,
                                           const std::string& root_digest,
                                           const std::string& salt) {
  android::rpk::RpkVerityData data;
  data.desc = std::make_unique<AvbHashtreeDescriptor>();
  std::memset(data.desc.get(), 0, sizeof(AvbHashtreeDescriptor));
  data.desc->parent_descriptor.tag = 1;
  data.desc->dm_verity_version = 1;
  data.desc->image_size = image_size;
  data.desc->tree_offset = tree_offset;
  data.desc->data_block_size = data_block_size;
  data.desc->hash_block_size = hash_block_size;
  std::memcpy(data.desc->hash_algorithm, hash_algorithm.data(),
              std::min(hash_algorithm.size(), sizeof(data.desc->hash_algorithm)));
  data.desc->salt_len = static_cast<uint32_t>(salt.size() / 2);
  data.desc->root_digest_len = static_cast<uint32_t>(root_digest.size() / 2);
  data.hash_algorithm = hash_algorithm;
  data.root_digest = root_digest;
  data.salt = salt;
  return data;
}

android::rpk::RpkVerityData ManifestVerityData(const std::string& name) {
  const Json::Value& tree = ManifestPackage(name)["hashtree"];
  auto data = MakeVerityData(tree["image_size"].asUInt64(), tree["tree_offset"].asUInt64(),
                             tree["data_block_size"].asUInt(), tree["hash_block_size"].asUInt(),
                             tree["hash_algorithm"].asString(), tree["root_digest"].asString(),
                             tree["salt"].asString());
  data.desc->dm_verity_version = tree["dm_verity_version"].asUInt();
  data.desc->tree_size = tree["tree_size"].asUInt64();
  data.desc->flags = tree["flags"].asUInt();
  return data;
}

uint64_t ManifestImageOffset(const std::string& name) {
  return ManifestPackage(name)["zip_members"]["update_payload.img"]["data_offset"].asUInt64();
}

uint64_t ManifestImageSize(const std::string& name) {
  return ManifestPackage(name)["zip_members"]["update_payload.img"]["uncompressed_size"].asUInt64();
}

}  // namespace mend_test
