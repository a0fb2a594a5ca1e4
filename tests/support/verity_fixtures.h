#pragma once

// Verity parameters of the reference packages, taken from their manifest,
// for tests of the dm-verity code that do not go through verification.

#include <cstdint>
#include <string>

#include "mend_mount_file.h"

namespace mend_test {

// The hashtree parameters that verifying package `name` yields (the
// manifest's "hashtree" record), as the verifier returns them.
android::rpk::RpkVerityData ManifestVerityData(const std::string& name);

// Where the image member of package `name` starts inside its zip, and its size.
uint64_t ManifestImageOffset(const std::string& name);
uint64_t ManifestImageSize(const std::string& name);

// Verity parameters built from plain values, for cases the packages lack.
android::rpk::RpkVerityData MakeVerityData(uint64_t image_size, uint64_t tree_offset,
                                           uint32_t data_block_size, uint32_t hash_block_size,
                                           const std::string& hash_algorithm = "sha256",
                                           const std::string& root_digest = "00",
                                           const std::string& salt = "11");

}  // namespace mend_test
