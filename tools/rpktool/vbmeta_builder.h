#pragma once

// Assembles and signs a vbmeta block: header, authentication block (hash
// and signature) and auxiliary block (descriptors and public key).

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

#include "avb_algorithm.h"
#include "rsa_key.h"

namespace rpktool {

inline constexpr char kReleaseString[] = "rpktool 1.0";

// Size in bytes of the block that BuildSignedVbmeta will return, known
// before the descriptors' contents are.
uint64_t VbmetaSize(const AvbAlgorithm& algorithm, size_t descriptors_size,
                    size_t public_key_size);

android::base::Result<std::vector<uint8_t>> BuildSignedVbmeta(
    const AvbAlgorithm& algorithm, const RsaKey& key, const std::vector<uint8_t>& descriptors,
    const std::vector<uint8_t>& public_key_blob, const std::string& release = kReleaseString);

}  // namespace rpktool
