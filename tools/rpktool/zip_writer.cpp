#include "zip_writer.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>

#include "byte_order.h"
#include "file_io.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;
using avbformat::PutLe;
using avbformat::RoundUp;

namespace {

constexpr uint32_t kLocalHeaderSignature = 0x04034b50;
constexpr uint32_t kCentralHeaderSignature = 0x02014b50;
constexpr uint32_t kEndOfCentralDirectorySignature = 0x06054b50;
constexpr size_t kLocalHeaderSize = 30;
constexpr size_t kCentralHeaderSize = 46;
constexpr size_t kEndOfCentralDirectorySize = 22;
constexpr size_t kAlignmentExtraMinSize = 6;  // id, length, alignment value
constexpr uint16_t kVersionNeededStored = 10;
constexpr uint16_t kVersionMadeByUnix = (3 << 8) | 20;
constexpr uint32_t kRegularFileMode = 0100644;

}  // namespace

uint32_t Crc32(uint32_t crc, const uint8_t* data, size_t size) {
  while (size > 0) {
    const uInt piece = static_cast<uInt>(std::min<size_t>(size, 1u << 30));
    crc = static_cast<uint32_t>(crc32(crc, data, piece));
    data += piece;
    size -= piece;
  }
  return crc;
}

uint32_t Crc32Combine(uint32_t crc_a, uint32_t crc_b, uint64_t length_b) {
  return static_cast<uint32_t>(crc32_combine64(crc_a, crc_b, static_cast<z_off64_t>(length_b)));
}

StoredZipWriter::StoredZipWriter(int fd, time_t modified) : fd_(fd) {
  struct tm utc;
  gmtime_r(&modified, &utc);
  // DOS dates run from 1980 to 2107.
  if (utc.tm_year < 80 || utc.tm_year > 207) {
    const int year = utc.tm_year < 80 ? 80 : 207;
    utc = {};
    utc.tm_year = year;
    utc.tm_mday = 1;
  }
  dos_time_ = static_cast<uint16_t>(utc.tm_hour << 11 | utc.tm_min << 5 | utc.tm_sec / 2);
  dos_date_ = static_cast<uint16_t>((utc.tm_year - 80) << 9 | (utc.tm_mon + 1) << 5 | utc.tm_mday);
}

Result<uint64_t> StoredZipWriter::AddMember(const std::string& name, const std::string& data) {
  auto offset = ReserveMember(name, data.size(), 0);
  if (!offset.ok()) return offset.error();
  auto written = WriteAt(fd_, data.data(), data.size(), *offset);
  if (!written.ok()) return written.error();
  SetCrc(name, Crc32(0, reinterpret_cast<const uint8_t*>(data.data()), data.size()));
  return *offset;
}

uint64_t StoredZipWriter::PlannedDataOffset(const std::string& name, uint32_t alignment) const {
  const uint64_t data_offset = end_ + kLocalHeaderSize + name.size();
  if (alignment <= 1) return data_offset;
  return RoundUp(data_offset + kAlignmentExtraMinSize, alignment);
}

Result<uint64_t> StoredZipWriter::ReserveMember(const std::string& name, uint64_t size,
                                                uint32_t alignment) {
  if (name.empty() || name.size() > 0xffff) return Error() << "bad zip member name";
  const uint64_t header_offset = end_;
  const uint64_t data_offset = PlannedDataOffset(name, alignment);
  if (size > kMaxZipSize || data_offset + size > kMaxZipSize) {
    return Error() << "member " << name << " would end beyond 4 GiB, which plain zip cannot hold";
  }
  members_.push_back({name, header_offset, data_offset, size, 0, alignment});
  end_ = data_offset + size;
  return data_offset;
}

void StoredZipWriter::SetCrc(const std::string& name, uint32_t crc) {
  for (auto& member : members_) {
    if (member.name == name) member.crc = crc;
  }
}

// The fields local and central headers share, from "version needed" to the
// name's length (flags and method stay 0: stored).
void StoredZipWriter::PutCommonFields(uint8_t* p, const Member& m) const {
  PutLe(p, 2, kVersionNeededStored);
  PutLe(p + 6, 2, dos_time_);
  PutLe(p + 8, 2, dos_date_);
  PutLe(p + 10, 4, m.crc);
  PutLe(p + 14, 4, m.size);
  PutLe(p + 18, 4, m.size);
  PutLe(p + 22, 2, m.name.size());
}

std::vector<uint8_t> StoredZipWriter::LocalHeader(const Member& m) const {
  const size_t extra = m.data_offset - m.header_offset - kLocalHeaderSize - m.name.size();
  std::vector<uint8_t> out(kLocalHeaderSize + m.name.size() + extra, 0);
  uint8_t* p = out.data();
  PutLe(p, 4, kLocalHeaderSignature);
  PutCommonFields(p + 4, m);
  PutLe(p + 28, 2, extra);
  std::copy(m.name.begin(), m.name.end(), p + kLocalHeaderSize);
  if (extra >= kAlignmentExtraMinSize) {
    uint8_t* field = p + kLocalHeaderSize + m.name.size();
    PutLe(field, 2, kAlignmentExtraId);
    PutLe(field + 2, 2, extra - 4);
    PutLe(field + 4, 2, std::min<uint32_t>(m.alignment, 0xffff));
  }
  return out;
}

Result<void> StoredZipWriter::Finish() {
  std::vector<uint8_t> directory;
  for (const auto& m : members_) {
    auto local = LocalHeader(m);
    auto written = WriteAt(fd_, local.data(), local.size(), m.header_offset);
    if (!written.ok()) return written.error();

    std::vector<uint8_t> entry(kCentralHeaderSize + m.name.size(), 0);
    uint8_t* p = entry.data();
    PutLe(p, 4, kCentralHeaderSignature);
    PutLe(p + 4, 2, kVersionMadeByUnix);
    PutCommonFields(p + 6, m);
    PutLe(p + 38, 4, kRegularFileMode << 16);
    PutLe(p + 42, 4, m.header_offset);
    std::copy(m.name.begin(), m.name.end(), p + kCentralHeaderSize);
    directory.insert(directory.end(), entry.begin(), entry.end());
  }
  const uint64_t directory_offset = end_;
  std::vector<uint8_t> tail(kEndOfCentralDirectorySize, 0);
  PutLe(tail.data(), 4, kEndOfCentralDirectorySignature);
  PutLe(tail.data() + 8, 2, members_.size());
  PutLe(tail.data() + 10, 2, members_.size());
  PutLe(tail.data() + 12, 4, directory.size());
  PutLe(tail.data() + 16, 4, directory_offset);
  directory.insert(directory.end(), tail.begin(), tail.end());
  if (directory_offset + directory.size() > kMaxZipSize) {
    return Error() << "the archive would exceed 4 GiB, which plain zip cannot hold";
  }
  auto written = WriteAt(fd_, directory.data(), directory.size(), directory_offset);
  if (!written.ok()) return written.error();
  if (ftruncate(fd_, static_cast<off_t>(directory_offset + directory.size())) != 0) {
    return android::base::ErrnoError() << "cannot set the archive's size";
  }
  return {};
}

}  // namespace rpktool
