// Archives from the in-place zip writer, read back by libziparchive (as the
// daemon reads them) and by unzip.

#include "zip_writer.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ziparchive/zip_archive.h>

#include "file_io.h"
#include "tool_test_util.h"

namespace rpktool {
namespace {

using mend_test::TempDir;

// Writes config.txt and a reserved, aligned image member filled with a
// pattern, like `make` does.
void WritePackageLike(const std::string& path, const std::string& config, uint64_t image_size) {
  android::base::unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  ASSERT_GE(fd.get(), 0);
  StoredZipWriter zip(fd.get(), 1704067200);
  ASSERT_TRUE(zip.AddMember("config.txt", config).ok());
  const uint64_t planned = zip.PlannedDataOffset("update_payload.img", 4096);
  auto offset = zip.ReserveMember("update_payload.img", image_size, 4096);
  ASSERT_TRUE(offset.ok());
  ASSERT_EQ(*offset, planned);
  std::vector<uint8_t> image(image_size);
  for (uint64_t i = 0; i < image_size; ++i) image[i] = static_cast<uint8_t>(i * 7 + i / 4096);
  ASSERT_TRUE(WriteAt(fd.get(), image.data(), image.size(), *offset).ok());
  // CRC in two pieces, combined, as the builder computes it.
  const uint64_t half = image_size / 3;
  zip.SetCrc("update_payload.img",
             Crc32Combine(Crc32(0, image.data(), half),
                          Crc32(0, image.data() + half, image_size - half), image_size - half));
  ASSERT_TRUE(zip.Finish().ok());
}

TEST(StoredZipWriter, ImageDataIsStoredAndAlignedWhereTheDaemonLooks) {
  TempDir dir;
  for (size_t config_size : {size_t{279}, size_t{4000}, size_t{9000}}) {
    SCOPED_TRACE(config_size);
    const std::string path = dir / "pkg.zip";
    std::string config = mend_test::PackageConfig("demo_fix1");
    config.resize(config_size, '#');
    WritePackageLike(path, config, 3 * 4096 + 100);

    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ZipArchiveHandle handle = nullptr;
    ASSERT_EQ(OpenArchiveFd(fd.get(), path.c_str(), &handle, false), 0);
    ZipEntry entry;
    ASSERT_EQ(FindEntry(handle, "update_payload.img", &entry), 0);
    EXPECT_EQ(entry.method, 0);
    EXPECT_EQ(entry.offset % 4096, 0);
    EXPECT_GT(entry.offset, static_cast<off64_t>(config.size()));
    EXPECT_EQ(entry.uncompressed_length, 3u * 4096 + 100);
    std::vector<uint8_t> data(entry.uncompressed_length);
    EXPECT_EQ(ExtractToMemory(handle, &entry, data.data(), data.size()), 0);
    EXPECT_EQ(data[4096], static_cast<uint8_t>(4096 * 7 + 1));
    ZipEntry config_entry;
    ASSERT_EQ(FindEntry(handle, "config.txt", &config_entry), 0);
    EXPECT_EQ(config_entry.offset, 40);
    CloseArchive(handle);

    auto test = mend_test::RunProgram({"unzip", "-t", path});
    EXPECT_EQ(test.exit_code, 0) << test.out;  // checks both CRCs
  }
}

TEST(StoredZipWriter, RefusesMembersBeyondZip32) {
  TempDir dir;
  android::base::unique_fd fd(open((dir / "big.zip").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  StoredZipWriter zip(fd.get(), 0);
  EXPECT_FALSE(zip.ReserveMember("update_payload.img", 0x100000000ull, 4096).ok());
  EXPECT_TRUE(zip.ReserveMember("update_payload.img", 0xfffff000ull - 8192, 4096).ok());
  EXPECT_FALSE(zip.ReserveMember("second", 8192, 0).ok());
}

}  // namespace
}  // namespace rpktool
