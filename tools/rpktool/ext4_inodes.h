#pragma once

// The inodes of an ext4 filesystem as mke2fs writes it (extents, 4 KiB
// blocks), inside a file at an offset: looking up a path, and stamping
// times, owners and modes so that an image does not depend on where its
// source tree lay or who owned it. Every block number and length read from
// the filesystem is checked before use; an inode's stored checksum must
// match before it is rewritten, so a layout this code does not understand
// is refused instead of damaged.

#include <android-base/result.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace rpktool {

// Applied to the root, lost+found and every inode of the tree.
struct InodeStamp {
  std::optional<int64_t> time;  // access, change, modification and creation time
  std::optional<uint32_t> uid;
  std::optional<uint32_t> gid;
  uint32_t mode_mask = 0;  // permission bits cleared
};

// Exact owner, group and permission bits of one inode, instead of the stamp's.
struct InodeOverride {
  uint32_t uid;
  uint32_t gid;
  uint32_t mode;  // permission bits (07777)
};

class Ext4Inodes {
 public:
  // The filesystem in [offset, offset + size) of `fd`.
  static android::base::Result<Ext4Inodes> Open(int fd, uint64_t offset, uint64_t size);

  // The inode number of absolute `path`, or 0 when there is none; symlinks
  // are not followed.
  android::base::Result<uint32_t> Lookup(const std::string& path) const;
  android::base::Result<bool> IsDirectory(const std::string& path) const;

  android::base::Result<void> Stamp(const InodeStamp& stamp,
                                    const std::map<uint32_t, InodeOverride>& overrides) const;

 private:
  Ext4Inodes() = default;

  struct Group {
    uint64_t inode_bitmap;
    uint64_t inode_table;
    uint32_t used_inodes;  // in the table; the rest were never initialised
  };

  android::base::Result<void> ReadBlocks(uint64_t block, uint64_t count, uint8_t* out) const;
  android::base::Result<std::vector<uint8_t>> ReadInode(uint32_t number) const;
  // Physical blocks of an inode's data, through its extent tree.
  android::base::Result<std::vector<uint64_t>> DataBlocks(const std::vector<uint8_t>& inode) const;
  android::base::Result<uint32_t> FindEntry(uint32_t directory, const std::string& name) const;
  uint32_t Checksum(uint32_t number, const uint8_t* inode) const;

  int fd_ = -1;
  uint64_t offset_ = 0;
  uint64_t block_size_ = 0;
  uint64_t blocks_count_ = 0;
  uint32_t inodes_per_group_ = 0;
  uint32_t inode_size_ = 0;
  uint32_t first_inode_ = 0;
  std::optional<uint32_t> checksum_seed_;  // set with metadata checksums
  std::vector<Group> groups_;
};

}  // namespace rpktool
