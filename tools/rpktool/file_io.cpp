#include "file_io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace rpktool {

using android::base::Error;
using android::base::ErrnoError;
using android::base::Result;
using android::base::unique_fd;

namespace {

// The temporary file to remove if a signal ends the process; one at a time.
char g_pending_path[PATH_MAX];

void RemovePendingAndDie(int signal_number) {
  if (g_pending_path[0] != '\0') unlink(g_pending_path);
  ::signal(signal_number, SIG_DFL);
  raise(signal_number);
}

void SetPendingPath(const std::string& path) {
  if (path.size() < sizeof(g_pending_path)) {
    memcpy(g_pending_path, path.c_str(), path.size() + 1);
  }
}

}  // namespace

void RemovePendingFileOnSignals() {
  struct sigaction action = {};
  action.sa_handler = RemovePendingAndDie;
  for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal_number, &action, nullptr);
}

Result<void> ReadAt(int fd, void* data, size_t size, uint64_t offset) {
  auto* out = static_cast<uint8_t*>(data);
  while (size > 0) {
    ssize_t n = TEMP_FAILURE_RETRY(pread(fd, out, size, static_cast<off_t>(offset)));
    if (n < 0) return ErrnoError() << "read of " << size << " bytes at offset " << offset << " failed";
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
    ssize_t n = TEMP_FAILURE_RETRY(pwrite(fd, in, size, static_cast<off_t>(offset)));
    if (n < 0) return ErrnoError() << "write of " << size << " bytes at offset " << offset << " failed";
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

Result<std::string> ReadSmallFile(const std::string& path, size_t max_size) {
  unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd < 0) return ErrnoError() << "cannot open " << path;
  auto size = FileSize(fd.get());
  if (!size.ok()) return Error() << path << ": " << size.error();
  if (*size > max_size) return Error() << path << " is larger than " << max_size << " bytes";
  std::string text(*size, '\0');
  auto read = ReadAt(fd.get(), text.data(), text.size(), 0);
  if (!read.ok()) return Error() << path << ": " << read.error();
  return text;
}

Result<void> WriteFileAtomically(const std::string& path, const std::string& data) {
  auto file = PendingFile::Create(path);
  if (!file.ok()) return file.error();
  auto written = WriteAt(file->fd(), data.data(), data.size(), 0);
  if (!written.ok()) return Error() << file->temp_path() << ": " << written.error();
  return file->Commit();
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

Result<PendingFile> PendingFile::Create(const std::string& final_path) {
  std::string temp_path = final_path + ".tmp-XXXXXX";
  unique_fd fd(mkostemp(temp_path.data(), O_CLOEXEC));
  if (fd < 0) return ErrnoError() << "cannot create a file next to " << final_path;
  // mkstemp makes the file private; give it the usual mode for new files.
  mode_t mask = umask(0);
  umask(mask);
  fchmod(fd.get(), 0666 & ~mask);
  SetPendingPath(temp_path);
  return PendingFile(std::move(fd), std::move(temp_path), final_path);
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : fd_(std::move(other.fd_)),
      temp_path_(std::move(other.temp_path_)),
      final_path_(std::move(other.final_path_)),
      committed_(other.committed_) {
  other.committed_ = true;
}

PendingFile::~PendingFile() {
  if (committed_) return;
  unlink(temp_path_.c_str());
  if (temp_path_ == g_pending_path) g_pending_path[0] = '\0';
}

Result<void> PendingFile::Commit() {
  if (fsync(fd_.get()) != 0) return ErrnoError() << "cannot flush " << temp_path_;
  if (rename(temp_path_.c_str(), final_path_.c_str()) != 0) {
    return ErrnoError() << "cannot rename " << temp_path_ << " to " << final_path_;
  }
  committed_ = true;
  if (temp_path_ == g_pending_path) g_pending_path[0] = '\0';
  return {};
}

}  // namespace rpktool
