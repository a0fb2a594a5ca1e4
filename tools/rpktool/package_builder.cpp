#include "package_builder.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <ctime>
#include <optional>

#include "avb_structs.h"
#include "block_hasher.h"
#include "byte_order.h"
#include "data_blocks.h"
#include "ext4_image.h"
#include "file_io.h"
#include "hash_tree_builder.h"
#include "hex.h"
#include "package_reader.h"
#include "public_key_blob.h"
#include "rsa_key.h"
#include "vbmeta_builder.h"
#include "zip_writer.h"

namespace rpktool {

using android::base::Error;
using android::base::Result;

namespace {

constexpr char kPartitionName[] = "update_payload";
constexpr uint32_t kImageAlignment = 4096;
constexpr size_t kMaxSaltSize = 256;
constexpr size_t kMaxMke2fsAttempts = 6;

// A UUID derived from the inputs, so that fixed-time builds are repeatable.
std::string DerivedUuid(const MakeRequest& request, const std::vector<uint8_t>& salt) {
  std::string seed = request.config_text + std::to_string(*request.fixed_time) + ToHex(salt);
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(seed.data(), seed.size(), digest, &length, EVP_sha256(), nullptr);
  digest[6] = (digest[6] & 0x0f) | 0x40;  // version 4 layout
  digest[8] = (digest[8] & 0x3f) | 0x80;
  std::string hex = ToHex(digest, 16);
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20);
}

// CRC-32 of the data area from per-piece CRCs computed out of order, each
// piece by one worker into its own slot.
class PieceCrcs {
 public:
  explicit PieceCrcs(uint64_t data_size)
      : data_size_(data_size), crcs_(data_size / kDataPieceSize + 1, 0) {}
  void Add(uint64_t offset, const uint8_t* data, size_t size) {
    crcs_[offset / kDataPieceSize] = Crc32(0, data, size);
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
};

// What signing needs, settled before any filesystem work.
struct Signing {
  std::optional<RsaKey> key;
  std::vector<uint8_t> public_key;
  HashtreeDescriptor descriptor;  // root digest still zero
  uint64_t vbmeta_size = 0;
};

Result<Signing> PrepareSigning(const MakeRequest& request, MakeResult* result) {
  Signing signing;
  auto key = RsaKey::LoadPem(request.key_path);
  if (!key.ok()) return key.error();
  if (!key->has_private_key()) return Error() << request.key_path << " holds no private key";
  auto algorithm = request.algorithm ? FindSigningAlgorithm(*request.algorithm)
                                     : DefaultAlgorithmForKeyBits(key->bits());
  if (!algorithm.ok()) return algorithm.error();
  if (algorithm->key_bits != key->bits()) {
    return Error() << algorithm->name << " needs a " << algorithm->key_bits << "-bit key; "
                   << request.key_path << " has " << key->bits() << " bits";
  }
  result->algorithm = *algorithm;
  // The tree hash is the vbmeta hash's family, so their digests are alike.
  result->tree_hash = algorithm->tree_hash;
  if (request.salt) {
    if (request.salt->empty() || request.salt->size() > kMaxSaltSize) {
      return Error() << "the salt must be 1 to " << kMaxSaltSize << " bytes";
    }
    result->salt = *request.salt;
  } else {
    result->salt.resize(algorithm->hash_size);
    if (RAND_bytes(result->salt.data(), static_cast<int>(result->salt.size())) != 1) {
      return Error() << "cannot draw a random salt";
    }
  }
  auto public_key = EncodePublicKeyBlob(*key);
  if (!public_key.ok()) return public_key.error();
  signing.public_key = *public_key;
  signing.key.emplace(std::move(*key));

  HashtreeDescriptor& descriptor = signing.descriptor;
  descriptor.hash_algorithm = result->tree_hash;
  descriptor.partition_name = kPartitionName;
  descriptor.salt = result->salt;
  descriptor.root_digest.assign(algorithm->hash_size, 0);
  descriptor.data_block_size = kFsBlockSize;
  descriptor.hash_block_size = kFsBlockSize;
  signing.vbmeta_size = VbmetaSize(*algorithm, SerializeHashtreeDescriptor(descriptor).size(),
                                   signing.public_key.size());
  return signing;
}

// Runs mke2fs at the image's place in the output file, growing an
// estimated size while it turns out too small. Fills result->layout.
Result<void> CreateFilesystem(const MakeRequest& request, const SourceTree& tree,
                              const std::string& file, uint64_t vbmeta_size, MakeResult* result) {
  const uint32_t digest_size = result->algorithm.hash_size;
  uint64_t fs_blocks = 0;
  if (request.partition_size) {
    auto blocks = MaxFsBlocks(*request.partition_size, digest_size, vbmeta_size);
    if (!blocks.ok()) return blocks.error();
    fs_blocks = *blocks;
  } else {
    fs_blocks = EstimateFsBlocks(tree);
  }

  Mke2fsRequest mke2fs;
  mke2fs.source_dir = request.source_dir;
  mke2fs.output_file = file;
  mke2fs.offset = result->image_data_offset;
  mke2fs.inodes = InodeCount(tree);
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
      StatusLine status("creating the ext4 filesystem",
                        request.show_progress && layout->fs_size >= (64ull << 20));
      return RunMke2fs(mke2fs);
    }();
    if (!outcome.ok()) return outcome.error();
    result->mke2fs_commands.push_back(outcome->command);
    if (outcome->ok) return {};
    if (!outcome->out_of_space || request.partition_size ||
        result->mke2fs_commands.size() >= kMaxMke2fsAttempts) {
      std::string hint = outcome->out_of_space && request.partition_size
                             ? " (the tree does not fit the partition size)"
                             : "";
      return Error() << "mke2fs failed" << hint << ":\n" << outcome->output;
    }
    fs_blocks += fs_blocks / 4 + 256;
  }
}

}  // namespace

Result<MakeResult> MakePackage(const MakeRequest& request) {
  MakeResult result;
  auto signing = PrepareSigning(request, &result);
  if (!signing.ok()) return signing.error();
  auto hasher = BlockHasher::Create(result.tree_hash, result.salt);
  if (!hasher.ok()) return hasher.error();

  auto tree = ScanSourceTree(request.source_dir);
  if (!tree.ok()) return tree.error();
  if (tree->not_root_owned > 0) {
    result.warnings.push_back(std::to_string(tree->not_root_owned) +
                              " entries of the source tree are not owned by root:root (e.g. " +
                              tree->not_root_example +
                              "); the image keeps their owners, which the device will see");
  }

  auto file = PendingFile::Create(request.output_path);
  if (!file.ok()) return file.error();
  const time_t stamp = request.fixed_time ? static_cast<time_t>(*request.fixed_time) : time(nullptr);
  StoredZipWriter zip(file->fd(), stamp);
  auto config_offset = zip.AddMember(kConfigEntryName, request.config_text);
  if (!config_offset.ok()) return config_offset.error();
  result.image_data_offset = zip.PlannedDataOffset(kImageEntryName, kImageAlignment);

  auto created = CreateFilesystem(request, *tree, file->temp_path(), signing->vbmeta_size, &result);
  if (!created.ok()) return created.error();
  const ImageLayout& layout = result.layout;
  auto reserved = zip.ReserveMember(kImageEntryName, layout.image_size, kImageAlignment);
  if (!reserved.ok()) return reserved.error();

  // One pass over the filesystem builds the tree and the member's CRC.
  PieceCrcs data_crcs(layout.fs_size);
  Progress progress("hashing", layout.fs_size, request.show_progress);
  auto built = BuildHashTree(file->fd(), result.image_data_offset, layout.tree, *hasher,
                             request.threads, &progress,
                             [&](uint64_t offset, const uint8_t* data, size_t size) {
                               data_crcs.Add(offset, data, size);
                             });
  progress.Finish();
  if (!built.ok()) return built.error();
  result.root_digest = built->root_digest;

  HashtreeDescriptor& descriptor = signing->descriptor;
  descriptor.image_size = layout.fs_size;
  descriptor.tree_offset = layout.fs_size;
  descriptor.tree_size = layout.tree.tree_size;
  descriptor.root_digest = built->root_digest;
  auto vbmeta = BuildSignedVbmeta(result.algorithm, *signing->key,
                                  SerializeHashtreeDescriptor(descriptor), signing->public_key);
  if (!vbmeta.ok()) return vbmeta.error();
  if (vbmeta->size() != layout.vbmeta_size) {
    return Error() << "vbmeta came out at " << vbmeta->size() << " bytes, planned "
                   << layout.vbmeta_size;
  }

  const std::vector<uint8_t> tail = BuildImageTail(layout, built->tree, *vbmeta);
  auto written = WriteAt(file->fd(), tail.data(), tail.size(),
                         result.image_data_offset + layout.fs_size);
  if (!written.ok()) return Error() << "writing " << file->temp_path() << ": " << written.error();
  zip.SetCrc(kImageEntryName,
             Crc32Combine(data_crcs.Combined(), Crc32(0, tail.data(), tail.size()), tail.size()));
  auto finished = zip.Finish();
  if (!finished.ok()) return Error() << "writing " << file->temp_path() << ": " << finished.error();
  auto committed = file->Commit();
  if (!committed.ok()) return committed.error();
  return result;
}

}  // namespace rpktool
