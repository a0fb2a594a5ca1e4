#pragma once

// Conversion of the library's packed on-disk structs to host byte order.
// The structs are packed, so integers are moved with memcpy, never read
// through a cast pointer.

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

}  // namespace avb_standin

// Converts member `member` of struct type `Struct` at `ptr` to host order.
#define AVB_FIELD_TO_HOST(ptr, Struct, member) \
  ::avb_standin::ToHostOrderAt<decltype(Struct::member)>((ptr), offsetof(Struct, member))
