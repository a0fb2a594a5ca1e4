#include "ext4_inodes.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <functional>

#include "byte_order.h"
#include "file_io.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;
using avbformat::GetLe;
using avbformat::PutLe;

namespace {

constexpr uint64_t kSuperblockOffset = 1024;
constexpr size_t kSuperblockSize = 1024;
constexpr uint16_t kMagic = 0xef53;
constexpr uint32_t kIncompat64Bit = 0x80;
constexpr uint32_t kIncompatChecksumSeed = 0x2000;
constexpr uint32_t kRoCompatGroupChecksum = 0x10;
constexpr uint32_t kRoCompatMetadataChecksum = 0x400;
constexpr uint16_t kGroupInodesUninitialised = 0x1;
constexpr uint32_t kRootInode = 2;
constexpr size_t kOldInodeSize = 128;
constexpr uint32_t kExtentsFlag = 0x80000;
constexpr uint16_t kExtentMagic = 0xf30a;
constexpr size_t kExtentEntrySize = 12;
constexpr int kMaxExtentDepth = 5;

// Inode fields: offsets; fields at or past kOldInodeSize exist only when
// the inode's extra size covers them.
constexpr size_t kMode = 0x00, kUid = 0x02, kAtime = 0x08, kCtime = 0x0c, kMtime = 0x10,
                 kGid = 0x18, kFlags = 0x20, kBlock = 0x28, kGeneration = 0x64, kUidHigh = 0x78,
                 kGidHigh = 0x7a, kChecksumLow = 0x7c, kExtraSize = 0x80, kChecksumHigh = 0x82,
                 kCtimeExtra = 0x84, kMtimeExtra = 0x88, kAtimeExtra = 0x8c, kCrtime = 0x90,
                 kCrtimeExtra = 0x94;

// The CRC-32C update (Castagnoli, reflected) ext4 uses, without the final
// inversion.
uint32_t Crc32c(uint32_t crc, const uint8_t* data, size_t size) {
  static const auto kTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t value = i;
      for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ (value & 1 ? 0x82f63b78 : 0);
      table[i] = value;
    }
    return table;
  }();
  for (size_t i = 0; i < size; ++i) crc = kTable[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
  return crc;
}

bool HasField(const uint8_t* inode, size_t inode_size, size_t field, size_t width) {
  if (field < kOldInodeSize) return true;
  return inode_size > kOldInodeSize &&
         kOldInodeSize + GetLe(inode + kExtraSize, 2) >= field + width;
}

// Seconds as ext4 stores them: the low 32 bits, and in the extra field two
// bits that extend the signed 32-bit range.
void PutTime(uint8_t* inode, size_t inode_size, size_t field, size_t extra, int64_t seconds) {
  PutLe(inode + field, 4, static_cast<uint64_t>(seconds));
  if (HasField(inode, inode_size, extra, 4)) {
    const int64_t epoch = (seconds - static_cast<int32_t>(seconds)) >> 32;
    PutLe(inode + extra, 4, static_cast<uint64_t>(epoch) & 3);
  }
}

void PutId(uint8_t* inode, size_t low, size_t high, uint32_t id) {
  PutLe(inode + low, 2, id & 0xffff);
  PutLe(inode + high, 2, id >> 16);
}

}  // namespace

Result<Ext4Inodes> Ext4Inodes::Open(int fd, uint64_t offset, uint64_t size) {
  uint8_t sb[kSuperblockSize];
  if (size < kSuperblockOffset + kSuperblockSize) return Error() << "no ext4 superblock";
  if (auto read = ReadAt(fd, sb, sizeof(sb), offset + kSuperblockOffset); !read.ok()) {
    return read.error();
  }
  Ext4Inodes fs;
  fs.fd_ = fd;
  fs.offset_ = offset;
  const uint32_t log_block_size = static_cast<uint32_t>(GetLe(sb + 0x18, 4));
  fs.inodes_per_group_ = static_cast<uint32_t>(GetLe(sb + 0x28, 4));
  fs.first_inode_ = static_cast<uint32_t>(GetLe(sb + 0x54, 4));
  fs.inode_size_ = static_cast<uint32_t>(GetLe(sb + 0x58, 2));
  const uint32_t incompat = static_cast<uint32_t>(GetLe(sb + 0x60, 4));
  const uint32_t ro_compat = static_cast<uint32_t>(GetLe(sb + 0x64, 4));
  const uint64_t desc_size = incompat & kIncompat64Bit ? GetLe(sb + 0xfe, 2) : 32;
  const uint64_t inodes_count = GetLe(sb + 0x00, 4);
  if (GetLe(sb + 0x38, 2) != kMagic || log_block_size > 6 || fs.inodes_per_group_ == 0 ||
      fs.inode_size_ < kOldInodeSize || (fs.inode_size_ & (fs.inode_size_ - 1)) != 0 ||
      desc_size < 32 || fs.first_inode_ <= kRootInode) {
    return Error() << "not an ext4 filesystem this tool understands";
  }
  fs.block_size_ = uint64_t{1024} << log_block_size;
  fs.blocks_count_ =
      GetLe(sb + 0x04, 4) | (incompat & kIncompat64Bit ? GetLe(sb + 0x150, 4) << 32 : 0);
  if (fs.inode_size_ > fs.block_size_ || fs.inodes_per_group_ > fs.block_size_ * 8) {
    return Error() << "not an ext4 filesystem this tool understands";
  }
  if (fs.blocks_count_ > size / fs.block_size_) {
    return Error() << "the ext4 filesystem is larger than its image";
  }
  if (ro_compat & kRoCompatMetadataChecksum) {
    fs.checksum_seed_ = incompat & kIncompatChecksumSeed
                            ? static_cast<uint32_t>(GetLe(sb + 0x270, 4))
                            : Crc32c(~0u, sb + 0x68, 16);
  }
  const bool counts_unused = ro_compat & (kRoCompatGroupChecksum | kRoCompatMetadataChecksum);

  const uint64_t group_count = (inodes_count + fs.inodes_per_group_ - 1) / fs.inodes_per_group_;
  const uint64_t first_data_block = GetLe(sb + 0x14, 4);
  if (first_data_block >= fs.blocks_count_ ||
      group_count * desc_size > (fs.blocks_count_ - first_data_block - 1) * fs.block_size_) {
    return Error() << "the ext4 group descriptors lie outside the filesystem";
  }
  std::vector<uint8_t> descriptors(group_count * desc_size);
  if (auto read = ReadAt(fd, descriptors.data(), descriptors.size(),
                         offset + (first_data_block + 1) * fs.block_size_);
      !read.ok()) {
    return read.error();
  }
  for (uint64_t g = 0; g < group_count; ++g) {
    const uint8_t* d = &descriptors[g * desc_size];
    const bool wide = desc_size >= 64;
    Group group{GetLe(d + 0x04, 4) | (wide ? GetLe(d + 0x24, 4) << 32 : 0),
                GetLe(d + 0x08, 4) | (wide ? GetLe(d + 0x28, 4) << 32 : 0), 0};
    const uint64_t unused = GetLe(d + 0x1c, 2) | (wide ? GetLe(d + 0x32, 2) << 16 : 0);
    if (!(GetLe(d + 0x12, 2) & kGroupInodesUninitialised)) {
      group.used_inodes = counts_unused
                              ? fs.inodes_per_group_ - static_cast<uint32_t>(std::min<uint64_t>(
                                                           unused, fs.inodes_per_group_))
                              : fs.inodes_per_group_;
    }
    const uint64_t table_blocks =
        (uint64_t{group.used_inodes} * fs.inode_size_ + fs.block_size_ - 1) / fs.block_size_;
    if (group.inode_bitmap >= fs.blocks_count_ || group.inode_table >= fs.blocks_count_ ||
        table_blocks > fs.blocks_count_ - group.inode_table) {
      return Error() << "ext4 group " << g << " points outside the filesystem";
    }
    fs.groups_.push_back(group);
  }
  return fs;
}

Result<void> Ext4Inodes::ReadBlocks(uint64_t block, uint64_t count, uint8_t* out) const {
  if (block >= blocks_count_ || count > blocks_count_ - block) {
    return Error() << "ext4 block " << block << " lies outside the filesystem";
  }
  return ReadAt(fd_, out, count * block_size_, offset_ + block * block_size_);
}

Result<std::vector<uint8_t>> Ext4Inodes::ReadInode(uint32_t number) const {
  const uint64_t group = (uint64_t{number} - 1) / inodes_per_group_;
  const uint32_t index = (number - 1) % inodes_per_group_;
  if (number == 0 || group >= groups_.size() || index >= groups_[group].used_inodes) {
    return Error() << "ext4 inode " << number << " does not exist";
  }
  std::vector<uint8_t> inode(inode_size_);
  auto read =
      ReadAt(fd_, inode.data(), inode.size(),
             offset_ + groups_[group].inode_table * block_size_ + uint64_t{index} * inode_size_);
  if (!read.ok()) return read.error();
  return inode;
}

Result<std::vector<uint64_t>> Ext4Inodes::DataBlocks(const std::vector<uint8_t>& inode) const {
  if (!(GetLe(&inode[kFlags], 4) & kExtentsFlag)) {
    return Error() << "ext4 directories without extents are not supported";
  }
  std::vector<uint64_t> blocks;
  // Walks one node: a header, then leaf extents or index entries.
  std::function<Result<void>(const uint8_t*, size_t, int)> walk =
      [&](const uint8_t* node, size_t size, int depth_left) -> Result<void> {
    const uint64_t entries = GetLe(node + 2, 2);
    const uint64_t depth = GetLe(node + 6, 2);
    if (GetLe(node, 2) != kExtentMagic || (entries + 1) * kExtentEntrySize > size ||
        depth_left < 0) {
      return Error() << "damaged ext4 extent tree";
    }
    for (uint64_t i = 0; i < entries; ++i) {
      const uint8_t* e = node + (i + 1) * kExtentEntrySize;
      if (depth == 0) {
        uint64_t length = GetLe(e + 4, 2);
        if (length > 32768) length -= 32768;  // an unwritten extent
        const uint64_t start = GetLe(e + 8, 4) | GetLe(e + 6, 2) << 32;
        if (start >= blocks_count_ || length > blocks_count_ - start) {
          return Error() << "ext4 extent outside the filesystem";
        }
        for (uint64_t b = 0; b < length; ++b) blocks.push_back(start + b);
        continue;
      }
      std::vector<uint8_t> child(block_size_);
      auto read = ReadBlocks(GetLe(e + 4, 4) | GetLe(e + 8, 2) << 32, 1, child.data());
      if (!read.ok()) return read;
      if (auto r = walk(child.data(), child.size(), depth_left - 1); !r.ok()) return r;
    }
    return {};
  };
  auto walked = walk(&inode[kBlock], 60, kMaxExtentDepth);
  if (!walked.ok()) return walked.error();
  return blocks;
}

Result<uint32_t> Ext4Inodes::FindEntry(uint32_t directory, const std::string& name) const {
  auto inode = ReadInode(directory);
  if (!inode.ok()) return inode.error();
  if (!S_ISDIR(GetLe(&(*inode)[kMode], 2))) return 0;
  auto blocks = DataBlocks(*inode);
  if (!blocks.ok()) return blocks.error();
  std::vector<uint8_t> data(block_size_);
  for (uint64_t block : *blocks) {
    if (auto read = ReadBlocks(block, 1, data.data()); !read.ok()) return read.error();
    for (uint64_t at = 0; at + 8 <= block_size_;) {
      const uint8_t* entry = &data[at];
      const uint64_t length = GetLe(entry + 4, 2);
      const uint64_t name_length = entry[6];
      if (length < 8 || length > block_size_ - at || 8 + name_length > length) {
        return Error() << "damaged ext4 directory entry in inode " << directory;
      }
      const uint32_t number = static_cast<uint32_t>(GetLe(entry, 4));
      if (number != 0 && name.size() == name_length &&
          memcmp(entry + 8, name.data(), name_length) == 0) {
        return number;
      }
      at += length;
    }
  }
  return 0;
}

Result<uint32_t> Ext4Inodes::Lookup(const std::string& path) const {
  uint32_t number = kRootInode;
  size_t at = 0;
  while (number != 0 && at < path.size()) {
    const size_t end = std::min(path.find('/', at), path.size());
    if (end > at) {
      auto found = FindEntry(number, path.substr(at, end - at));
      if (!found.ok()) return found.error();
      number = *found;
    }
    at = end + 1;
  }
  return number;
}

Result<bool> Ext4Inodes::IsDirectory(const std::string& path) const {
  auto number = Lookup(path);
  if (!number.ok()) return number.error();
  if (*number == 0) return false;
  auto inode = ReadInode(*number);
  if (!inode.ok()) return inode.error();
  return S_ISDIR(GetLe(&(*inode)[kMode], 2));
}

uint32_t Ext4Inodes::Checksum(uint32_t number, const uint8_t* inode) const {
  // Over the inode number, the generation and the inode, the checksum
  // fields counted as zeros.
  static const uint8_t kZeros[2] = {0, 0};
  uint8_t le[4];
  PutLe(le, 4, number);
  uint32_t crc = Crc32c(*checksum_seed_, le, 4);
  crc = Crc32c(crc, inode + kGeneration, 4);
  crc = Crc32c(crc, inode, kChecksumLow);
  crc = Crc32c(crc, kZeros, 2);
  if (!HasField(inode, inode_size_, kChecksumHigh, 2)) {
    return Crc32c(crc, inode + kChecksumLow + 2, inode_size_ - kChecksumLow - 2);
  }
  crc = Crc32c(crc, inode + kChecksumLow + 2, kChecksumHigh - kChecksumLow - 2);
  crc = Crc32c(crc, kZeros, 2);
  return Crc32c(crc, inode + kChecksumHigh + 2, inode_size_ - kChecksumHigh - 2);
}

Result<void> Ext4Inodes::Stamp(const InodeStamp& stamp,
                               const std::map<uint32_t, InodeOverride>& overrides) const {
  std::vector<uint8_t> bitmap(block_size_);
  for (size_t g = 0; g < groups_.size(); ++g) {
    const Group& group = groups_[g];
    if (group.used_inodes == 0) continue;
    if (auto read = ReadBlocks(group.inode_bitmap, 1, bitmap.data()); !read.ok()) return read;
    const uint64_t table_offset = offset_ + group.inode_table * block_size_;
    auto table = ReadAt(fd_, uint64_t{group.used_inodes} * inode_size_, table_offset);
    if (!table.ok()) return table.error();
    for (uint32_t i = 0; i < group.used_inodes; ++i) {
      const uint32_t number = static_cast<uint32_t>(g * inodes_per_group_ + i + 1);
      uint8_t* inode = &(*table)[uint64_t{i} * inode_size_];
      const bool used = bitmap[i / 8] & (1u << (i % 8));
      if (!used || (number != kRootInode && number < first_inode_)) continue;
      const bool has_high = HasField(inode, inode_size_, kChecksumHigh, 2);
      if (checksum_seed_) {
        const uint32_t stored =
            static_cast<uint32_t>(GetLe(inode + kChecksumLow, 2) |
                                  (has_high ? GetLe(inode + kChecksumHigh, 2) << 16 : 0));
        const uint32_t computed = Checksum(number, inode);
        if (stored != (has_high ? computed : computed & 0xffff)) {
          return Error() << "ext4 inode " << number << " has a checksum this tool cannot check";
        }
      }
      uint32_t mode = static_cast<uint32_t>(GetLe(inode + kMode, 2));
      const auto override = overrides.find(number);
      if (override != overrides.end()) {
        PutId(inode, kUid, kUidHigh, override->second.uid);
        PutId(inode, kGid, kGidHigh, override->second.gid);
        mode = (mode & S_IFMT) | (override->second.mode & 07777);
      } else {
        if (stamp.uid) PutId(inode, kUid, kUidHigh, *stamp.uid);
        if (stamp.gid) PutId(inode, kGid, kGidHigh, *stamp.gid);
        mode &= ~(stamp.mode_mask & 07777);
      }
      PutLe(inode + kMode, 2, mode);
      if (stamp.time) {
        PutTime(inode, inode_size_, kAtime, kAtimeExtra, *stamp.time);
        PutTime(inode, inode_size_, kCtime, kCtimeExtra, *stamp.time);
        PutTime(inode, inode_size_, kMtime, kMtimeExtra, *stamp.time);
        if (HasField(inode, inode_size_, kCrtime, 4)) {
          PutTime(inode, inode_size_, kCrtime, kCrtimeExtra, *stamp.time);
        }
      }
      if (checksum_seed_) {
        const uint32_t crc = Checksum(number, inode);
        PutLe(inode + kChecksumLow, 2, crc & 0xffff);
        if (has_high) PutLe(inode + kChecksumHigh, 2, crc >> 16);
      }
    }
    if (auto written = WriteAt(fd_, table->data(), table->size(), table_offset); !written.ok()) {
      return written;
    }
  }
  return {};
}

}  // namespace rpktool
