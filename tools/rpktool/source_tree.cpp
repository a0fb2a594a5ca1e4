#include "source_tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <sstream>

#include "byte_order.h"

namespace rpktool {

using android::base::Error;
using android::base::ErrnoError;
using android::base::Result;
using avbformat::RoundUp;

namespace {

constexpr uint64_t kBlockSize = 4096;
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
      tree->content_blocks += RoundUp(size, kBlockSize) / kBlockSize + size / kBytesPerExtentBlock;
    } else if (S_ISLNK(st.st_mode)) {
      tree->content_blocks += static_cast<uint64_t>(st.st_size) >= kInlineSymlinkMax;
    }
  }
  uint64_t blocks = RoundUp(dir_bytes, kBlockSize) / kBlockSize;
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

}  // namespace rpktool
