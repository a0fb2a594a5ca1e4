#pragma once

#include <string>
#include <vector>

namespace mend_test {

struct ZipMember {
  std::string name;
  std::string content;
  bool compress = false;
  unsigned alignment = 0;  // 0: no alignment of the member's data
};

// Writes a zip archive with the members in order. Aborts the test binary on
// I/O failure (there is nothing sensible to test after that).
void WriteZip(const std::string& path, const std::vector<ZipMember>& members);

// The bytes of member `name` of the zip at `path`; aborts when absent.
std::string ReadZipMember(const std::string& path, const std::string& name);

}  // namespace mend_test
