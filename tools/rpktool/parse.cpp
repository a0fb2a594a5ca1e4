#include "parse.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Result<std::vector<uint8_t>> ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) return Error() << "hex text has an odd number of digits";
  std::vector<uint8_t> out(text.size() / 2);
  for (size_t i = 0; i < text.size(); ++i) {
    const int value = HexValue(text[i]);
    if (value < 0) return Error() << "not a hex digit at position " << i;
    out[i / 2] = static_cast<uint8_t>(out[i / 2] << 4 | value);
  }
  return out;
}

bool ParseUnsigned(const std::string& text, int base, uint64_t max, uint64_t* out) {
  if (text.empty() || !isxdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = strtoull(text.c_str(), &end, base);
  if (*end != '\0' || errno == ERANGE || value > max) return false;
  *out = value;
  return true;
}

}  // namespace rpktool
