#include "hex.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

std::string ToHex(const uint8_t* data, size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(length * 2, '0');
  for (size_t i = 0; i < length; ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 0xf];
  }
  return out;
}

static int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Result<std::vector<uint8_t>> ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) return Error() << "hex text has an odd number of digits";
  std::vector<uint8_t> out(text.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) {
    int high = HexValue(text[2 * i]);
    int low = HexValue(text[2 * i + 1]);
    if (high < 0 || low < 0) {
      return Error() << "not a hex digit at position " << (high < 0 ? 2 * i : 2 * i + 1);
    }
    out[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return out;
}

}  // namespace rpktool
