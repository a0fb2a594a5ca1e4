#include "file_io.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rpktool {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;

Result<void> ReadAt(int fd, void* data, size_t size, uint64_t offset) {
  auto* out = static_cast<uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = TEMP_FAILURE_RETRY(pread(fd, out, size, static_cast<off_t>(offset)));
    if (n < 0) {
      return ErrnoError() << "read of " << size << " bytes at offset " << offset << " failed";
    }
    if (n == 0) return Error() << "file ends before offset " << offset + size;
    out += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return {};
}

Result<std::vector<uint8_t>> ReadAt(int fd, size_t size, uint64_t offset) {
  std::vector<uint8_t> data(size);
  auto result = ReadAt(fd, data.data(), size, offset);
  if (!result.ok()) return result.error();
  return data;
}

Result<void> WriteAt(int fd, const void* data, size_t size, uint64_t offset) {
  const auto* in = static_cast<const uint8_t*>(data);
  while (size > 0) {
    const ssize_t n = TEMP_FAILURE_RETRY(pwrite(fd, in, size, static_cast<off_t>(offset)));
    if (n < 0) {
      return ErrnoError() << "write of " << size << " bytes at offset " << offset << " failed";
    }
    in += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return {};
}

Result<uint64_t> FileSize(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return ErrnoError() << "fstat failed";
  return static_cast<uint64_t>(st.st_size);
}

Result<std::string> ReadInput(const std::string& path, size_t max_size) {
  const bool from_stdin = path == "-";
  unique_fd fd(from_stdin ? dup(STDIN_FILENO)
                          : TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  const std::string name = from_stdin ? "standard input" : path;
  if (fd < 0) return ErrnoError() << "cannot open " << name;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return ErrnoError() << "cannot stat " << name;
  if (S_ISDIR(st.st_mode)) return Error() << name << " is a directory";
  std::string text;
  char buffer[8192];
  ssize_t n;
  while ((n = TEMP_FAILURE_RETRY(read(fd.get(), buffer, sizeof(buffer)))) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > max_size) {
      return Error() << name << " is larger than " << max_size << " bytes";
    }
  }
  if (n < 0) return ErrnoError() << "cannot read " << name;
  return text;
}

Result<ReadOnlyMapping> ReadOnlyMapping::Map(int fd, uint64_t offset, uint64_t size) {
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  const uint64_t start = offset / page * page;
  const size_t lead = static_cast<size_t>(offset - start);
  const size_t length = static_cast<size_t>(size + lead);
  void* base = mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(start));
  if (base == MAP_FAILED) return ErrnoError() << "cannot map " << size << " bytes";
  madvise(base, length, MADV_SEQUENTIAL);
  return ReadOnlyMapping(static_cast<uint8_t*>(base), length, lead);
}

ReadOnlyMapping::ReadOnlyMapping(ReadOnlyMapping&& other) noexcept
    : base_(other.base_), length_(other.length_), lead_(other.lead_) {
  other.base_ = nullptr;
}

ReadOnlyMapping::~ReadOnlyMapping() {
  if (base_ != nullptr) munmap(base_, length_);
}

}  // namespace rpktool
