#include "package_builder.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <ctime>
#include <sstream>

#include "data_blocks.h"
#include "ext4_image.h"
#include "file_io.h"
#include "hash_tree_builder.h"
#include "mend_paths.h"
#include "output_file.h"
#include "parse.h"
#include "progress.h"
#include "zip_writer.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

constexpr char kPartitionName[] = "update_payload";
constexpr uint32_t kImageAlignment = 4096;
constexpr size_t kMaxMke2fsAttempts = 6;

// A UUID derived from the inputs, so that fixed-time builds are repeatable.
std::string DerivedUuid(const MakeRequest& request, const std::vector<uint8_t>& salt) {
  const std::string seed = request.config_text + std::to_string(*request.fixed_time) + ToHex(salt);
  std::vector<uint8_t> digest(EVP_MAX_MD_SIZE);
  EVP_Digest(seed.data(), seed.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  digest[6] = (digest[6] & 0x0f) | 0x40;  // version 4 layout
  digest[8] = (digest[8] & 0x3f) | 0x80;
  const std::string hex = ToHex(std::vector<uint8_t>(digest.begin(), digest.begin() + 16));
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20);
}

// CRC-32 of the data area from per-piece CRCs computed out of order, each
// piece by one worker into its own slot. Free space is zeros, whose CRC is
// known once.
class PieceCrcs {
 public:
  explicit PieceCrcs(uint64_t data_size)
      : data_size_(data_size), crcs_(data_size / kDataPieceSize + 1, 0) {
    const std::vector<uint8_t> zeros(kDataPieceSize, 0);
    zeros_crc_ = Crc32(0, zeros.data(), zeros.size());
  }
  void Add(uint64_t offset, const uint8_t* data, size_t size) {
    const bool zeros = size == kDataPieceSize && IsAllZero(data, size);
    crcs_[offset / kDataPieceSize] = zeros ? zeros_crc_ : Crc32(0, data, size);
  }
  uint32_t Combined() const {
    uint32_t crc = 0;
    for (uint64_t offset = 0, i = 0; offset < data_size_; offset += kDataPieceSize, ++i) {
      crc = Crc32Combine(crc, crcs_[i], std::min<uint64_t>(kDataPieceSize, data_size_ - offset));
    }
    return crc;
  }

 private:
  uint64_t data_size_;
  std::vector<uint32_t> crcs_;
  uint32_t zeros_crc_;
};

// The descriptor with everything but the tree's numbers and root digest,
// and the size of the vbmeta block that will hold it.
Result<avbformat::HashtreeDescriptor> PrepareDescriptor(const MakeRequest& request,
                                                        MakeResult* result) {
  const RsaKey& key = *request.key;
  if (!key.has_private_key()) return Error() << "the key holds no private part; cannot sign";
  result->algorithm = request.algorithm;
  if (!result->algorithm) {
    result->algorithm = avbformat::FindAlgorithm("SHA256_RSA" + std::to_string(key.bits()));
  }
  if (result->algorithm->key_bits != key.bits()) {
    return Error() << result->algorithm->name << " needs a " << result->algorithm->key_bits
                   << "-bit key; the key has " << key.bits() << " bits";
  }
  if (request.salt) {
    if (request.salt->empty() || request.salt->size() > avbformat::kMaxSaltSize) {
      return Error() << "the salt must be 1 to " << avbformat::kMaxSaltSize << " bytes";
    }
    result->salt = *request.salt;
  } else {
    result->salt.resize(result->algorithm->hash_size);
    if (RAND_bytes(result->salt.data(), static_cast<int>(result->salt.size())) != 1) {
      return Error() << "cannot draw a random salt";
    }
  }
  avbformat::HashtreeDescriptor descriptor;
  // The tree hash is the vbmeta hash's family, so their digests are alike.
  descriptor.hash_algorithm = result->algorithm->hash;
  descriptor.partition_name = kPartitionName;
  descriptor.salt = result->salt;
  descriptor.root_digest.assign(result->algorithm->hash_size, 0);
  descriptor.data_block_size = kFsBlockSize;
  descriptor.hash_block_size = kFsBlockSize;
  return descriptor;
}

// Runs mke2fs at the image's place in the output file, growing an
// estimated size while it turns out too small. Fills result->layout.
Result<void> CreateFilesystem(const MakeRequest& request, const std::string& file,
                              uint64_t vbmeta_size, MakeResult* result) {
  const uint32_t digest_size = result->algorithm->hash_size;
  uint64_t fs_blocks = EstimateFsBlocks(request.tree);
  if (request.partition_size) {
    auto blocks = MaxFsBlocks(*request.partition_size, digest_size, vbmeta_size);
    if (!blocks.ok()) return blocks.error();
    fs_blocks = *blocks;
  }
  Mke2fsRequest mke2fs;
  mke2fs.source_dir = request.source_dir;
  mke2fs.output_file = file;
  mke2fs.offset = result->image_data_offset;
  mke2fs.inodes = InodeCount(request.tree);
  mke2fs.fixed_time = request.fixed_time;
  if (request.fixed_time) mke2fs.uuid = DerivedUuid(request, result->salt);
  for (;;) {
    auto layout = LayoutImage(fs_blocks, digest_size, vbmeta_size, request.partition_size);
    if (!layout.ok()) return layout.error();
    if (result->image_data_offset + layout->image_size > kMaxZipSize) {
      return Error() << "an image of " << layout->image_size
                     << " bytes does not fit a plain zip (4 GiB)";
    }
    result->layout = *layout;
    mke2fs.blocks = fs_blocks;
    auto outcome = [&] {
      Progress status("creating the ext4 filesystem", 0, layout->fs_size >= (64ull << 20));
      return RunMke2fs(mke2fs);
    }();
    if (!outcome.ok()) return outcome.error();
    result->mke2fs_commands.push_back(outcome->command);
    if (outcome->ok) return {};
    if (!outcome->out_of_space || request.partition_size ||
        result->mke2fs_commands.size() >= kMaxMke2fsAttempts) {
      const std::string hint = outcome->out_of_space && request.partition_size
                                   ? " (the tree does not fit the partition size)"
                                   : "";
      return Error() << "mke2fs failed" << hint << ":\n" << outcome->output;
    }
    fs_blocks += fs_blocks / 4 + 256;
  }
}

// Fixes times, owners and modes of the image's inodes as asked.
Result<void> StampInodes(const MakeRequest& request, int fd, const MakeResult& result) {
  InodeStamp stamp = request.stamp;
  stamp.time = request.fixed_time;
  if (!stamp.time && !stamp.uid && !stamp.gid && stamp.mode_mask == 0 &&
      request.overrides.empty()) {
    return {};
  }
  auto inodes = Ext4Inodes::Open(fd, result.image_data_offset, result.layout.fs_size);
  if (!inodes.ok()) return inodes.error();
  std::map<uint32_t, InodeOverride> overrides;
  for (const PathOverride& entry : request.overrides) {
    auto number = inodes->Lookup(entry.path);
    if (!number.ok()) return number.error();
    if (*number == 0) return Error() << "--overrides: " << entry.path << " is not in the image";
    overrides[*number] = entry.fields;
  }
  return inodes->Stamp(stamp, overrides);
}

}  // namespace

Result<std::vector<PathOverride>> ParseOverrides(const std::string& text) {
  std::vector<PathOverride> overrides;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    std::istringstream fields(line.substr(0, line.find('#')));
    std::string path, uid, gid, mode, extra;
    if (!(fields >> path)) continue;
    uint64_t values[3];
    if (!(fields >> uid >> gid >> mode) || (fields >> extra) || path[0] != '/' ||
        !ParseUnsigned(uid, 10, UINT32_MAX, &values[0]) ||
        !ParseUnsigned(gid, 10, UINT32_MAX, &values[1]) ||
        !ParseUnsigned(mode, 8, 07777, &values[2])) {
      return Error() << "line " << number << " is not 'PATH UID GID MODE' with an absolute PATH "
                     << "and an octal MODE";
    }
    overrides.push_back({path,
                         {static_cast<uint32_t>(values[0]), static_cast<uint32_t>(values[1]),
                          static_cast<uint32_t>(values[2])}});
  }
  return overrides;
}

Result<MakeResult> MakePackage(const MakeRequest& request, FailureKind* kind) {
  *kind = FailureKind::kInput;
  MakeResult result;
  auto descriptor = PrepareDescriptor(request, &result);
  if (!descriptor.ok()) return descriptor.error();
  auto hasher = BlockHasher::Create(result.algorithm->hash, result.salt);
  if (!hasher.ok()) return hasher.error();
  const std::vector<uint8_t> public_key = request.key->public_key_blob();
  const uint64_t vbmeta_size = avbformat::VbmetaSize(
      *result.algorithm, avbformat::WriteHashtreeDescriptor(*descriptor).size(), public_key.size());

  *kind = FailureKind::kOutput;
  auto file = OutputFile::Create(request.output_path);
  if (!file.ok()) return file.error();
  const time_t stamp =
      request.fixed_time ? static_cast<time_t>(*request.fixed_time) : time(nullptr);
  StoredZipWriter zip(file->fd(), stamp);
  auto config_offset = zip.AddMember(android::mend::kConfigEntryName, request.config_text);
  if (!config_offset.ok()) return config_offset.error();
  result.image_data_offset = zip.PlannedDataOffset(android::mend::kImageEntryName, kImageAlignment);

  *kind = FailureKind::kFilesystem;
  auto created = CreateFilesystem(request, file->path_for_children(), vbmeta_size, &result);
  if (!created.ok()) return created.error();
  if (auto stamped = StampInodes(request, file->fd(), result); !stamped.ok()) {
    return stamped.error();
  }
  *kind = FailureKind::kOutput;
  const ImageLayout& layout = result.layout;
  auto reserved =
      zip.ReserveMember(android::mend::kImageEntryName, layout.image_size, kImageAlignment);
  if (!reserved.ok()) return reserved.error();

  // One pass over the filesystem builds the tree and the member's CRC.
  PieceCrcs data_crcs(layout.fs_size);
  Progress progress("hashing", layout.fs_size);
  auto built =
      BuildHashTree(file->fd(), result.image_data_offset, layout.tree, *hasher, request.threads,
                    &progress, [&](uint64_t offset, const uint8_t* data, size_t size) {
                      data_crcs.Add(offset, data, size);
                    });
  progress.Finish();
  if (!built.ok()) return built.error();
  result.root_digest = built->root_digest;

  descriptor->image_size = layout.fs_size;
  descriptor->tree_offset = layout.fs_size;
  descriptor->tree_size = layout.tree.tree_size;
  descriptor->root_digest = built->root_digest;
  const std::string release = std::string("rpktool ") + kToolVersion;
  auto vbmeta = avbformat::WriteSignedVbmeta(
      *result.algorithm, avbformat::WriteHashtreeDescriptor(*descriptor), public_key, release,
      [&](const std::vector<uint8_t>& covered) -> std::optional<avbformat::HashAndSignature> {
        auto signed_by = request.key->Sign(*result.algorithm, covered);
        if (!signed_by.ok()) return std::nullopt;
        return *signed_by;
      });
  if (!vbmeta || vbmeta->size() != layout.vbmeta_size) {
    return Error() << "signing the vbmeta block with " << result.algorithm->name << " failed";
  }

  const std::vector<uint8_t> tail = BuildImageTail(layout, built->tree, *vbmeta);
  auto written =
      WriteAt(file->fd(), tail.data(), tail.size(), result.image_data_offset + layout.fs_size);
  if (!written.ok()) return Error() << "writing " << request.output_path << ": " << written.error();
  zip.SetCrc(android::mend::kImageEntryName,
             Crc32Combine(data_crcs.Combined(), Crc32(0, tail.data(), tail.size()), tail.size()));
  auto finished = zip.Finish();
  if (!finished.ok()) {
    return Error() << "writing " << request.output_path << ": " << finished.error();
  }
  auto committed = file->Commit();
  if (!committed.ok()) return committed.error();
  return result;
}

}  // namespace rpktool
