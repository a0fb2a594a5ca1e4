#include <android-base/properties.h>

#include <android-base/parsebool.h>
#include <android-base/parseint.h>

#include "dirwatch/dir_watch.h"
#include "sysprop/property_store.h"

namespace android {
namespace base {

std::string GetProperty(const std::string& key, const std::string& default_value) {
  auto value = sysprop::ReadProperty(key);
  return value ? *value : default_value;
}

bool GetBoolProperty(const std::string& key, bool default_value) {
  switch (ParseBool(GetProperty(key, ""))) {
    case ParseBoolResult::kTrue:
      return true;
    case ParseBoolResult::kFalse:
      return false;
    case ParseBoolResult::kError:
      break;
  }
  return default_value;
}

template <typename T>
T GetIntProperty(const std::string& key, T default_value, T min, T max) {
  T result;
  return ParseInt(GetProperty(key, ""), &result, min, max) ? result : default_value;
}

template <typename T>
T GetUintProperty(const std::string& key, T default_value, T max) {
  T result;
  return ParseUint(GetProperty(key, ""), &result, max) ? result : default_value;
}

template int8_t GetIntProperty(const std::string&, int8_t, int8_t, int8_t);
template int16_t GetIntProperty(const std::string&, int16_t, int16_t, int16_t);
template int32_t GetIntProperty(const std::string&, int32_t, int32_t, int32_t);
template int64_t GetIntProperty(const std::string&, int64_t, int64_t, int64_t);
template uint8_t GetUintProperty(const std::string&, uint8_t, uint8_t);
template uint16_t GetUintProperty(const std::string&, uint16_t, uint16_t);
template uint32_t GetUintProperty(const std::string&, uint32_t, uint32_t);
template uint64_t GetUintProperty(const std::string&, uint64_t, uint64_t);

bool SetProperty(const std::string& key, const std::string& value) {
  return sysprop::WriteProperty(key, value);
}

// Writers (tests, the app, an init script) change the store's files from
// other processes; a wait wakes on each change of the store's directory.
bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout) {
  return dirwatch::WaitUntil(sysprop::PropertyDirectory(), relative_timeout,
                             [&] { return GetProperty(key, "") == expected_value; });
}

bool WaitForPropertyCreation(const std::string& key, std::chrono::milliseconds relative_timeout) {
  return dirwatch::WaitUntil(sysprop::PropertyDirectory(), relative_timeout,
                             [&] { return sysprop::ReadProperty(key).has_value(); });
}

}  // namespace base
}  // namespace android
