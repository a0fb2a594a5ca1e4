#pragma once

#include <string>
#include <vector>

namespace mend_test {

// Writes to a tracked path are recorded and answered like a sysfs attribute
// would answer them, without touching the file: accepted, refused with an
// errno, or interrupted. Reads are served by the real file.
namespace fake_writes {
void Track(const std::string& path);
void Refuse(const std::string& path, const std::string& value, int error);
void Interrupt(const std::string& path, int times);
std::vector<std::string> Writes(const std::string& path);
void Reset();
}  // namespace fake_writes

}  // namespace mend_test
