#pragma once

#include <sys/cdefs.h>

#include <chrono>
#include <limits>
#include <string>

namespace android {
namespace base {

// The property's value, or `default_value` when it is unset or empty.
std::string GetProperty(const std::string& key, const std::string& default_value);

// true for "1", "y", "yes", "on", "true"; false for "0", "n", "no", "off",
// "false"; `default_value` for anything else.
bool GetBoolProperty(const std::string& key, bool default_value);

// The property parsed as an integer within [min, max], else `default_value`.
template <typename T>
T GetIntProperty(const std::string& key, T default_value, T min = std::numeric_limits<T>::min(),
                 T max = std::numeric_limits<T>::max());
template <typename T>
T GetUintProperty(const std::string& key, T default_value, T max = std::numeric_limits<T>::max());

bool SetProperty(const std::string& key, const std::string& value);

// Waits until the property has exactly `expected_value`; false when
// `relative_timeout` runs out first. The maximum timeout never runs out.
bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());

// Waits until the property is set to anything.
bool WaitForPropertyCreation(const std::string& key, std::chrono::milliseconds relative_timeout =
                                                         std::chrono::milliseconds::max());

}  // namespace base
}  // namespace android
