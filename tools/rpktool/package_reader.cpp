#include "package_reader.h"

#include <fcntl.h>
#include <ziparchive/zip_archive.h>

#include "file_io.h"
#include "mend_paths.h"

namespace rpktool {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;

namespace {

// Config files are small; anything larger is not one.
constexpr uint64_t kMaxConfigSize = 1 << 20;

class ArchiveCloser {
 public:
  explicit ArchiveCloser(ZipArchiveHandle handle) : handle_(handle) {}
  ~ArchiveCloser() { CloseArchive(handle_); }
  ArchiveCloser(const ArchiveCloser&) = delete;
  ArchiveCloser& operator=(const ArchiveCloser&) = delete;

 private:
  ZipArchiveHandle handle_;
};

}  // namespace

Result<PackageFile> OpenPackage(const std::string& path) {
  PackageFile package;
  package.path = path;
  package.fd.reset(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (package.fd < 0) return ErrnoError() << "cannot open " << path;
  auto size = FileSize(package.fd.get());
  if (!size.ok()) return Error() << path << ": " << size.error();
  package.size = *size;

  ZipArchiveHandle handle = nullptr;
  int32_t rc = OpenArchiveFd(package.fd.get(), path.c_str(), &handle, false);
  ArchiveCloser closer(handle);
  if (rc < 0) return Error() << path << " is not a readable zip: " << ErrorCodeString(rc);

  void* cookie = nullptr;
  rc = StartIteration(handle, &cookie);
  if (rc < 0) return Error() << path << ": cannot list members: " << ErrorCodeString(rc);
  ZipEntry entry;
  std::string name;
  while ((rc = Next(cookie, &entry, &name)) == 0) {
    ZipMemberInfo member;
    member.name = name;
    member.method = entry.method;
    member.data_offset = static_cast<uint64_t>(entry.offset);
    member.compressed_size = entry.compressed_length;
    member.uncompressed_size = entry.uncompressed_length;
    member.crc32 = entry.crc32;
    package.members.push_back(member);
    if (name == android::mend::kImageEntryName) package.image = member;
    if (name == android::mend::kConfigEntryName) {
      if (entry.uncompressed_length > kMaxConfigSize) {
        EndIteration(cookie);
        return Error() << path << ": config.txt is larger than " << kMaxConfigSize << " bytes";
      }
      std::string text(entry.uncompressed_length, '\0');
      int32_t extracted = ExtractToMemory(handle, &entry, reinterpret_cast<uint8_t*>(text.data()),
                                          static_cast<uint32_t>(text.size()));
      if (extracted != 0) {
        EndIteration(cookie);
        return Error() << path << ": cannot extract config.txt: " << ErrorCodeString(extracted);
      }
      package.config_text = text;
    }
  }
  EndIteration(cookie);
  if (rc != -1) return Error() << path << ": cannot list members: " << ErrorCodeString(rc);
  return package;
}

}  // namespace rpktool
