#pragma once

// Positioned whole reads and writes, small input files (or standard input)
// and read-only mappings.

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rpktool {

// Reads exactly `size` bytes at `offset`; reaching the end of the file first
// is an error.
android::base::Result<void> ReadAt(int fd, void* data, size_t size, uint64_t offset);
android::base::Result<std::vector<uint8_t>> ReadAt(int fd, size_t size, uint64_t offset);
android::base::Result<void> WriteAt(int fd, const void* data, size_t size, uint64_t offset);
android::base::Result<uint64_t> FileSize(int fd);
// A whole file of at most `max_size` bytes; "-" reads standard input.
android::base::Result<std::string> ReadInput(const std::string& path, size_t max_size);

// A read-only mapping of part of a file; unmapped when dropped. The caller
// makes sure the file covers the range: touching a page past the end of the
// file raises SIGBUS.
class ReadOnlyMapping {
 public:
  static android::base::Result<ReadOnlyMapping> Map(int fd, uint64_t offset, uint64_t size);
  ReadOnlyMapping(ReadOnlyMapping&& other) noexcept;
  ReadOnlyMapping& operator=(ReadOnlyMapping&&) = delete;
  ReadOnlyMapping(const ReadOnlyMapping&) = delete;
  ~ReadOnlyMapping();

  // The byte at `offset` of the file.
  const uint8_t* data() const { return base_ + lead_; }

 private:
  ReadOnlyMapping(uint8_t* base, size_t length, size_t lead)
      : base_(base), length_(length), lead_(lead) {}

  uint8_t* base_;
  size_t length_;
  size_t lead_;  // bytes mapped before `offset` to start on a page
};

}  // namespace rpktool
