#pragma once

// Big-endian field access for the on-disk AVB structures, and little-endian
// access for zip headers. Works on byte buffers at any alignment.

#include <cstddef>
#include <cstdint>

namespace rpktool {

inline void PutBe32(uint8_t* p, uint32_t v) {
  for (int i = 3; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}
inline void PutBe64(uint8_t* p, uint64_t v) {
  for (int i = 7; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}
inline uint32_t GetBe32(const uint8_t* p) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = (v << 8) | p[i];
  return v;
}
inline uint64_t GetBe64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
  return v;
}

inline void PutLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void PutLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}

inline uint64_t RoundUp(uint64_t value, uint64_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

}  // namespace rpktool
