#include "ext4_image.h"

#include <vector>

#include "byte_order.h"
#include "subprocess.h"

namespace rpktool {

using android::base::Result;
using avbformat::RoundUp;

namespace {

constexpr uint64_t kBlocksPerGroup = 32768;
constexpr uint64_t kInodeSize = 256;

}  // namespace

uint64_t InodeCount(const SourceTree& tree) {
  // 11 reserved inodes, the root, lost+found, then slack.
  return tree.entries + 13 + std::max<uint64_t>(16, tree.entries / 16);
}

uint64_t EstimateFsBlocks(const SourceTree& tree) {
  const uint64_t inode_table_blocks = RoundUp(InodeCount(tree) * kInodeSize, kFsBlockSize) / kFsBlockSize;
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
                                   "-O", "^has_journal,^resize_inode", "-m", "0",
                                   "-N", std::to_string(request.inodes), "-L", "update_payload"};
  if (request.uuid) {
    argv.insert(argv.end(), {"-U", *request.uuid});
    extended += ",hash_seed=" + *request.uuid;
  }
  if (request.fixed_time) env.push_back("E2FSPROGS_FAKE_TIME=" + std::to_string(*request.fixed_time));
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
