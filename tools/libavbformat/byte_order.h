#pragma once

// Fixed-width integers in byte buffers at any alignment (big-endian for the
// verified-boot structures, little-endian for zip and ext4), and overflow
// checked size arithmetic.

#include <cstddef>
#include <cstdint>

namespace avbformat {

inline uint64_t GetBe(const uint8_t* p, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | p[i];
  return v;
}
inline void PutBe(uint8_t* p, int bytes, uint64_t v) {
  for (int i = bytes - 1; i >= 0; --i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}
inline uint64_t GetLe(const uint8_t* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}
inline void PutLe(uint8_t* p, int bytes, uint64_t v) {
  for (int i = 0; i < bytes; ++i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}

inline uint32_t GetBe32(const uint8_t* p) { return static_cast<uint32_t>(GetBe(p, 4)); }
inline uint64_t GetBe64(const uint8_t* p) { return GetBe(p, 8); }
inline void PutBe32(uint8_t* p, uint32_t v) { PutBe(p, 4, v); }
inline void PutBe64(uint8_t* p, uint64_t v) { PutBe(p, 8, v); }

// a + b, or false when the sum does not fit in 64 bits.
inline bool CheckedAdd(uint64_t a, uint64_t b, uint64_t* sum) {
  return !__builtin_add_overflow(a, b, sum);
}
// a * b, or false when the product does not fit in 64 bits.
inline bool CheckedMul(uint64_t a, uint64_t b, uint64_t* product) {
  return !__builtin_mul_overflow(a, b, product);
}
// True when [offset, offset + size) lies inside [0, limit).
inline bool RangeFits(uint64_t offset, uint64_t size, uint64_t limit) {
  uint64_t end;
  return CheckedAdd(offset, size, &end) && end <= limit;
}
// `value` rounded up to a multiple of `multiple`; callers keep `value`
// far below 2^64 (every size here is bounded by a limit long before).
inline uint64_t RoundUp(uint64_t value, uint64_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

}  // namespace avbformat
