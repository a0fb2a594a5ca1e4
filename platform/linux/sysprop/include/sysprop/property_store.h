#pragma once

#include <optional>
#include <string>

// The system property store of the Linux build. Each property is one file in
// PropertyDirectory(): the file name is the property name, the content its
// value (one trailing newline is ignored). A missing or empty file means the
// property is unset, so callers fall back to their defaults as on a device.
namespace sysprop {

const std::string& PropertyDirectory();

// The value of `name`, or nullopt when it is unset or empty.
std::optional<std::string> ReadProperty(const std::string& name);

// Writes `value` as the property's file. False on an invalid name or I/O error.
bool WriteProperty(const std::string& name, const std::string& value);

}  // namespace sysprop
