#include "zip_builder.h"

#include <ziparchive/zip_archive.h>
#include <ziparchive/zip_writer.h>

#include <cstdio>
#include <cstdlib>

namespace mend_test {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  fprintf(stderr, "test support: %s\n", what.c_str());
  abort();
}

}  // namespace

void WriteZip(const std::string& path, const std::vector<ZipMember>& members) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) Fail("cannot create " + path);
  ZipWriter writer(file);
  for (const ZipMember& member : members) {
    const size_t flags = member.compress ? ZipWriter::kCompress : 0;
    int32_t rc = member.alignment ? writer.StartAlignedEntry(member.name, flags, member.alignment)
                                  : writer.StartEntry(member.name, flags);
    if (rc == 0) rc = writer.WriteBytes(member.content.data(), member.content.size());
    if (rc == 0) rc = writer.FinishEntry();
    if (rc != 0) Fail("cannot add " + member.name + " to " + path);
  }
  if (writer.Finish() != 0) Fail("cannot finish " + path);
  fclose(file);
}

std::string ReadZipMember(const std::string& path, const std::string& name) {
  ZipArchiveHandle handle = nullptr;
  if (OpenArchive(path.c_str(), &handle) != 0) Fail("cannot open zip " + path);
  ZipEntry entry;
  std::string data;
  if (FindEntry(handle, name, &entry) == 0) {
    data.resize(entry.uncompressed_length);
    if (ExtractToMemory(handle, &entry, reinterpret_cast<uint8_t*>(data.data()),
                        entry.uncompressed_length) != 0) {
      Fail("cannot extract " + name + " from " + path);
    }
  } else {
    Fail("no " + name + " in " + path);
  }
  CloseArchive(handle);
  return data;
}

}  // namespace mend_test
