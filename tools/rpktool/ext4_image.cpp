#include "ext4_image.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <sstream>
#include <vector>

#include "byte_order.h"
#include "subprocess.h"

namespace rpktool {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using avbformat::RoundUp;

namespace {

constexpr uint64_t kBlocksPerGroup = 32768;
constexpr uint64_t kInodeSize = 256;
// Symlink targets shorter than this live inside the inode.
constexpr uint64_t kInlineSymlinkMax = 60;
// Extent tree blocks: one per this much file data, generously.
constexpr uint64_t kBytesPerExtentBlock = 64ull << 20;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

Result<void> Walk(const std::string& path, SourceTree* tree) {
  std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
  if (!dir) return ErrnoError() << "cannot read directory " << path;
  uint64_t dir_bytes = 24;  // "." and ".."
  while (dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string child = path + "/" + name;
    struct stat st;
    if (lstat(child.c_str(), &st) != 0) return ErrnoError() << "cannot stat " << child;
    ++tree->entries;
    dir_bytes += RoundUp(8 + name.size(), 4);
    if ((st.st_uid != 0 || st.st_gid != 0) && tree->not_root_owned++ == 0) {
      tree->not_root_example = child;
    }
    if (S_ISDIR(st.st_mode)) {
      if (auto result = Walk(child, tree); !result.ok()) return result;
    } else if (S_ISREG(st.st_mode)) {
      const uint64_t size = static_cast<uint64_t>(st.st_size);
      tree->content_blocks +=
          RoundUp(size, kFsBlockSize) / kFsBlockSize + size / kBytesPerExtentBlock;
    } else if (S_ISLNK(st.st_mode)) {
      tree->content_blocks += static_cast<uint64_t>(st.st_size) >= kInlineSymlinkMax;
    }
  }
  uint64_t blocks = RoundUp(dir_bytes, kFsBlockSize) / kFsBlockSize;
  if (blocks > 1) ++blocks;  // hashed-directory index block
  tree->content_blocks += blocks;
  return {};
}

}  // namespace

Result<SourceTree> ScanSourceTree(const std::string& root) {
  struct stat st;
  if (stat(root.c_str(), &st) != 0) return ErrnoError() << "cannot stat " << root;
  if (!S_ISDIR(st.st_mode)) return Error() << root << " is not a directory";
  SourceTree tree;
  if (auto result = Walk(root, &tree); !result.ok()) return result.error();
  return tree;
}

bool IsDirectoryInTree(const std::string& root, const std::string& path) {
  std::istringstream components(path);
  std::string component;
  std::string at = root;
  while (std::getline(components, component, '/')) {
    if (component.empty()) continue;
    at += "/" + component;
    struct stat st;
    if (lstat(at.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  }
  return true;
}

uint64_t InodeCount(const SourceTree& tree) {
  // 11 reserved inodes, the root, lost+found, then slack.
  return tree.entries + 13 + std::max<uint64_t>(16, tree.entries / 16);
}

uint64_t EstimateFsBlocks(const SourceTree& tree) {
  const uint64_t inode_table_blocks =
      RoundUp(InodeCount(tree) * kInodeSize, kFsBlockSize) / kFsBlockSize;
  // Content plus 5% and 1 MiB of free room, lost+found and the inode tables.
  uint64_t blocks = tree.content_blocks + tree.content_blocks / 20 + 256 + 4 + inode_table_blocks;
  // Per group: two bitmaps, and at most a superblock and descriptor copy.
  const uint64_t groups = blocks / kBlocksPerGroup + 1;
  blocks += groups * 4;
  return blocks;
}

Result<Mke2fsOutcome> RunMke2fs(const Mke2fsRequest& request) {
  auto mke2fs = FindProgram("mke2fs");
  if (!mke2fs.ok()) return mke2fs.error();

  std::string extended = "offset=" + std::to_string(request.offset) + ",nodiscard,root_owner=0:0";
  std::vector<std::string> env;
  std::vector<std::string> argv = {*mke2fs, "-q", "-F", "-t", "ext4", "-b",
                                   std::to_string(kFsBlockSize),
                                   // Package images are read-only: no journal, never resized,
                                   // no blocks reserved for root.
                                   "-O", "^has_journal,^resize_inode", "-m", "0", "-N",
                                   std::to_string(request.inodes), "-L", "update_payload"};
  if (request.uuid) {
    argv.insert(argv.end(), {"-U", *request.uuid});
    extended += ",hash_seed=" + *request.uuid;
  }
  if (request.fixed_time) {
    env.push_back("E2FSPROGS_FAKE_TIME=" + std::to_string(*request.fixed_time));
  }
  argv.insert(argv.end(), {"-E", extended, "-d", PathArgument(request.source_dir),
                           PathArgument(request.output_file), std::to_string(request.blocks)});

  auto run = RunProcess(argv, env);
  if (!run.ok()) return run.error();
  Mke2fsOutcome outcome;
  for (const auto& word : env) outcome.command += word + " ";
  for (const auto& word : argv) outcome.command += (word == argv[0] ? "" : " ") + word;
  outcome.ok = run->exit_code == 0;
  outcome.output = run->output;
  if (!outcome.ok) {
    for (const char* marker : {"Could not allocate", "No free space", "No space left"}) {
      if (run->output.find(marker) != std::string::npos) outcome.out_of_space = true;
    }
  }
  return outcome;
}

}  // namespace rpktool
