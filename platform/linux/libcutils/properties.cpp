#include <cutils/properties.h>

#include <cstring>

#include "sysprop/property_store.h"

namespace {

int CopyOut(char* out, const char* text) {
  size_t len = strnlen(text, PROPERTY_VALUE_MAX - 1);
  memcpy(out, text, len);
  out[len] = '\0';
  return static_cast<int>(len);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  auto stored = sysprop::ReadProperty(key);
  if (stored) return CopyOut(value, stored->c_str());
  if (default_value != nullptr) return CopyOut(value, default_value);
  value[0] = '\0';
  return 0;
}

extern "C" int property_set(const char* key, const char* value) {
  return sysprop::WriteProperty(key, value ? value : "") ? 0 : -1;
}
