#pragma once

// Positioned whole reads and writes, and an output file that appears at its
// final path only once it is complete.

#include <android-base/result.h>
#include <android-base/unique_fd.h>

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
android::base::Result<std::string> ReadSmallFile(const std::string& path, size_t max_size);
android::base::Result<void> WriteFileAtomically(const std::string& path, const std::string& data);

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

// A temporary file next to `final_path`, renamed over it by Commit() and
// removed if dropped before that, or if the process is interrupted (see
// RemovePendingFileOnSignals).
class PendingFile {
 public:
  static android::base::Result<PendingFile> Create(const std::string& final_path);
  PendingFile(PendingFile&& other) noexcept;
  PendingFile& operator=(PendingFile&&) = delete;
  PendingFile(const PendingFile&) = delete;
  ~PendingFile();

  int fd() const { return fd_.get(); }
  const std::string& temp_path() const { return temp_path_; }
  // Flushes the data to disk, then renames the file to its final path.
  android::base::Result<void> Commit();

 private:
  PendingFile(android::base::unique_fd fd, std::string temp_path, std::string final_path)
      : fd_(std::move(fd)), temp_path_(std::move(temp_path)), final_path_(std::move(final_path)) {}

  android::base::unique_fd fd_;
  std::string temp_path_;
  std::string final_path_;
  bool committed_ = false;
};

// Makes SIGINT, SIGTERM and SIGHUP remove the pending file of the moment
// before the process ends.
void RemovePendingFileOnSignals();

}  // namespace rpktool
