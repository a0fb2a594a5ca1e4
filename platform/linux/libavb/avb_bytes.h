#pragma once

// Byte-level helpers shared by the verified-boot stand-in. On-disk structs
// are packed and big-endian, so integers are moved with memcpy (never read
// through a cast pointer) and every size sum is checked for overflow.

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace avb_standin {

inline uint32_t BigEndianToHost(uint32_t value) { return be32toh(value); }
inline uint64_t BigEndianToHost(uint64_t value) { return be64toh(value); }

// Converts the big-endian integer of type T stored at `offset` inside the
// struct at `base` to host order, in place.
template <typename T>
void ToHostOrderAt(void* base, size_t offset) {
  auto* at = static_cast<uint8_t*>(base) + offset;
  T value;
  memcpy(&value, at, sizeof(value));
  value = BigEndianToHost(value);
  memcpy(at, &value, sizeof(value));
}

// Reads the host-order integer of type T stored at `offset` inside `base`.
template <typename T>
T ReadAt(const void* base, size_t offset) {
  T value;
  memcpy(&value, static_cast<const uint8_t*>(base) + offset, sizeof(value));
  return value;
}

// a + b, or false when the sum does not fit in 64 bits.
inline bool CheckedAdd(uint64_t a, uint64_t b, uint64_t* sum) {
  return !__builtin_add_overflow(a, b, sum);
}

// True when [offset, offset + size) lies inside [0, limit).
inline bool RangeFits(uint64_t offset, uint64_t size, uint64_t limit) {
  uint64_t end;
  return CheckedAdd(offset, size, &end) && end <= limit;
}

}  // namespace avb_standin

// Converts member `member` of struct type `Struct` at `ptr` to host order.
#define AVB_FIELD_TO_HOST(ptr, Struct, member) \
  ::avb_standin::ToHostOrderAt<decltype(Struct::member)>((ptr), offsetof(Struct, member))
// Reads member `member` (already in host order) of struct type `Struct` at `ptr`.
#define AVB_FIELD(ptr, Struct, member) \
  ::avb_standin::ReadAt<decltype(Struct::member)>((ptr), offsetof(Struct, member))
