#pragma once

// Values in command lines and input files.

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mend_mount_file.h"

namespace rpktool {

// Lowercase hex, two digits per byte, as the daemon writes it.
inline std::string ToHex(const std::vector<uint8_t>& data) {
  return android::rpk::BytesToHex(data.data(), data.size());
}

// Accepts upper or lower case; rejects odd lengths and non-hex characters.
android::base::Result<std::vector<uint8_t>> ParseHex(std::string_view text);

// `text` as a number in `base` no larger than `max`: digits only, no sign
// or blanks.
bool ParseUnsigned(const std::string& text, int base, uint64_t max, uint64_t* out);

}  // namespace rpktool
