#pragma once

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rpktool {

// Lowercase hex, two digits per byte.
std::string ToHex(const uint8_t* data, size_t length);
inline std::string ToHex(const std::vector<uint8_t>& data) { return ToHex(data.data(), data.size()); }

// Accepts upper or lower case; rejects odd lengths and non-hex characters.
android::base::Result<std::vector<uint8_t>> ParseHex(std::string_view text);

}  // namespace rpktool
