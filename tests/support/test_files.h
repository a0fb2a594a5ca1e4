#pragma once

// Files and scratch directories for tests. The helpers abort the test binary
// on I/O failure: there is nothing sensible to test after that.

#include <android-base/file.h>

#include <cstdint>
#include <string>

namespace mend_test {

std::string ReadWholeFile(const std::string& path);
// The file's bytes, or "" when it cannot be read.
std::string ReadFileOrEmpty(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& content);
// Creates `path` with its parent directories and writes `content`.
void WriteTreeFile(const std::string& path, const std::string& content);
// XORs the byte at `offset` of the file with 0xff.
void FlipByte(const std::string& path, uint64_t offset);

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A fresh directory under $TMPDIR, removed with its contents when dropped.
// Its path is resolved, so that errors naming files in it match.
class TempDir {
 public:
  TempDir();
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  TemporaryDir dir_;
  std::string path_;
};

}  // namespace mend_test
