#include "vbmeta_builder.h"

#include <openssl/evp.h>

#include <algorithm>

#include "avb_structs.h"
#include "byte_order.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

uint64_t VbmetaSize(const AvbAlgorithm& algorithm, size_t descriptors_size,
                    size_t public_key_size) {
  return kVbmetaHeaderSize + RoundUp(algorithm.hash_size + algorithm.signature_size, 64) +
         RoundUp(descriptors_size + public_key_size, 64);
}

Result<std::vector<uint8_t>> BuildSignedVbmeta(const AvbAlgorithm& algorithm, const RsaKey& key,
                                               const std::vector<uint8_t>& descriptors,
                                               const std::vector<uint8_t>& public_key_blob,
                                               const std::string& release) {
  if (key.bits() != algorithm.key_bits) {
    return Error() << algorithm.name << " needs a " << algorithm.key_bits << "-bit key, not "
                   << key.bits() << " bits";
  }
  VbmetaHeader header;
  header.required_major = 1;
  header.required_minor = 0;
  header.auth_block_size = RoundUp(algorithm.hash_size + algorithm.signature_size, 64);
  header.aux_block_size = RoundUp(descriptors.size() + public_key_blob.size(), 64);
  header.algorithm_type = algorithm.type;
  header.hash_offset = 0;
  header.hash_size = algorithm.hash_size;
  header.signature_offset = algorithm.hash_size;
  header.signature_size = algorithm.signature_size;
  header.descriptors_offset = 0;
  header.descriptors_size = descriptors.size();
  header.public_key_offset = descriptors.size();
  header.public_key_size = public_key_blob.size();
  header.public_key_metadata_offset = descriptors.size() + public_key_blob.size();
  header.public_key_metadata_size = 0;
  header.release_string = release;

  const auto header_bytes = SerializeVbmetaHeader(header);
  std::vector<uint8_t> aux(header.aux_block_size, 0);
  std::copy(descriptors.begin(), descriptors.end(), aux.begin());
  std::copy(public_key_blob.begin(), public_key_blob.end(), aux.begin() + descriptors.size());

  // The signature covers the header and the auxiliary block, not the
  // authentication block that holds it.
  std::vector<uint8_t> signed_data(header_bytes.begin(), header_bytes.end());
  signed_data.insert(signed_data.end(), aux.begin(), aux.end());

  std::vector<uint8_t> hash(EVP_MAX_MD_SIZE);
  unsigned hash_length = 0;
  if (EVP_Digest(signed_data.data(), signed_data.size(), hash.data(), &hash_length,
                 EVP_get_digestbyname(algorithm.digest_name), nullptr) != 1 ||
      hash_length != algorithm.hash_size) {
    return Error() << "cannot hash vbmeta with " << algorithm.digest_name;
  }
  auto signature = key.Sign(algorithm.digest_name, signed_data);
  if (!signature.ok()) return signature.error();
  if (signature->size() != algorithm.signature_size) {
    return Error() << "signature has " << signature->size() << " bytes, expected "
                   << algorithm.signature_size;
  }

  std::vector<uint8_t> vbmeta(header_bytes.begin(), header_bytes.end());
  vbmeta.resize(kVbmetaHeaderSize + header.auth_block_size, 0);
  std::copy(hash.begin(), hash.begin() + hash_length, vbmeta.begin() + kVbmetaHeaderSize);
  std::copy(signature->begin(), signature->end(),
            vbmeta.begin() + kVbmetaHeaderSize + algorithm.hash_size);
  vbmeta.insert(vbmeta.end(), aux.begin(), aux.end());
  return vbmeta;
}

}  // namespace rpktool
