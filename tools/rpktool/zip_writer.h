#pragma once

// Writes a zip archive of STORED members straight into a file. A member's
// room can be reserved first (optionally with its data aligned, using a
// zero-padded alignment extra field) so that its data is written in place by
// someone else; the headers and the central directory are written last.

#include <android-base/result.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace rpktool {

// Offsets and sizes of a plain (not zip64) archive stay below this.
inline constexpr uint64_t kMaxZipSize = 0xffffffffu;
// Extra-field id that carries a member's data alignment.
inline constexpr uint16_t kAlignmentExtraId = 0xD935;

class StoredZipWriter {
 public:
  // `modified` is stored as the members' DOS time (UTC).
  StoredZipWriter(int fd, time_t modified);

  // Adds a member with its data now; returns the data offset.
  android::base::Result<uint64_t> AddMember(const std::string& name, const std::string& data);
  // Reserves `size` bytes of data for a member whose data starts at a
  // multiple of `alignment` (0 or 1: no alignment); returns the data offset.
  // The caller writes the data there and reports its CRC-32 with SetCrc.
  android::base::Result<uint64_t> ReserveMember(const std::string& name, uint64_t size,
                                                uint32_t alignment);
  void SetCrc(const std::string& name, uint32_t crc);
  // The data offset that ReserveMember would give the next member now.
  uint64_t PlannedDataOffset(const std::string& name, uint32_t alignment) const;
  // Writes the local headers and the central directory.
  android::base::Result<void> Finish();

 private:
  struct Member {
    std::string name;
    uint64_t header_offset;
    uint64_t data_offset;
    uint64_t size;
    uint32_t crc;
    uint32_t alignment;
  };

  void PutCommonFields(uint8_t* at, const Member& member) const;
  std::vector<uint8_t> LocalHeader(const Member& member) const;

  int fd_;
  uint16_t dos_time_;
  uint16_t dos_date_;
  uint64_t end_ = 0;
  std::vector<Member> members_;
};

// CRC-32 of `size` bytes, continuing `crc`.
uint32_t Crc32(uint32_t crc, const uint8_t* data, size_t size);
// CRC of A||B from the CRCs of A and B and the length of B.
uint32_t Crc32Combine(uint32_t crc_a, uint32_t crc_b, uint64_t length_b);

}  // namespace rpktool
