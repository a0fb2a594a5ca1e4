#include "mend_mount_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/result.h>
#include <android-base/unique_fd.h>
#include <ziparchive/zip_archive.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <vector>

namespace android {
namespace rpk {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;
using android::mend::kImageEntryName;
using android::mend::kTrustedKeyFile;

namespace {

static_assert(sizeof(AvbFooter) == AVB_FOOTER_SIZE);
static_assert(sizeof(AvbHashtreeDescriptor) == 180);

// Closes a zip archive handle when dropped; the archive does not own the
// package descriptor, which has its own holder.
class ArchiveHandle {
 public:
  ArchiveHandle() = default;
  ArchiveHandle(const ArchiveHandle&) = delete;
  ArchiveHandle& operator=(const ArchiveHandle&) = delete;
  ~ArchiveHandle() {
    if (handle_ != nullptr) CloseArchive(handle_);
  }
  ZipArchiveHandle* out() { return &handle_; }
  ZipArchiveHandle get() const { return handle_; }

 private:
  ZipArchiveHandle handle_ = nullptr;
};

struct AvbFreeDeleter {
  void operator()(const AvbDescriptor** descriptors) const { avb_free(descriptors); }
};
using DescriptorList = std::unique_ptr<const AvbDescriptor*[], AvbFreeDeleter>;

// Where the image member's data lies inside the package file.
struct ImageMember {
  int32_t offset;
  uint64_t size;
};

Result<ImageMember> LocateImageMember(const std::string& path) {
  unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd < 0) return Error() << "Failed to open package " << path << ": " << "I/O error";

  // The handle is closed on every path, a failed open included.
  ArchiveHandle archive;
  const int32_t open_result = OpenArchiveFd(fd.get(), path.c_str(), archive.out(), false);
  if (open_result < 0) {
    return Error() << "Failed to open package " << path << ": " << ErrorCodeString(open_result);
  }
  ZipEntry entry;
  const int32_t find_result = FindEntry(archive.get(), kImageEntryName, &entry);
  if (find_result < 0) {
    return Error() << "Could not find entry \"" << kImageEntryName << "\" in package " << path
                   << ": " << ErrorCodeString(find_result);
  }
  // The offset is kept as 32 signed bits: images starting at or beyond 2 GiB
  // into the package are not supported. A compressed member is not refused
  // here; its data would fail verification.
  return ImageMember{static_cast<int32_t>(entry.offset), entry.uncompressed_length};
}

Result<AvbFooter> ReadAvbFooter(int fd, const std::optional<int32_t>& image_offset,
                                const std::optional<uint64_t>& image_size) {
  if (!image_offset.has_value() || !image_size.has_value()) {
    return Error() << "Cannot check avb footer without image offset and size";
  }
  off64_t footer_position;
  if (*image_size > static_cast<uint64_t>(INT64_MAX) ||
      __builtin_add_overflow(static_cast<off64_t>(*image_offset),
                             static_cast<off64_t>(*image_size) - AVB_FOOTER_SIZE,
                             &footer_position)) {
    errno = EOVERFLOW;
    return ErrnoError() << "Couldn't seek to AVB footer";
  }
  if (lseek64(fd, footer_position, SEEK_SET) == -1) {
    return ErrnoError() << "Couldn't seek to AVB footer";
  }
  uint8_t raw[AVB_FOOTER_SIZE];
  errno = 0;
  const ssize_t got = TEMP_FAILURE_RETRY(read(fd, raw, sizeof(raw)));
  if (got != static_cast<ssize_t>(sizeof(raw))) {
    if (got >= 0) errno = ENODATA;  // the file ends inside the footer
    return ErrnoError() << "Couldn't read AVB footer";
  }
  AvbFooter footer;
  if (!avb_footer_validate_and_byteswap(reinterpret_cast<const AvbFooter*>(raw), &footer)) {
    return Error() << "AVB footer verification failed.";
  }
  LOG(VERBOSE) << "AVB footer verification successful.";
  return footer;
}

Result<std::vector<uint8_t>> ReadVbmeta(int fd, const std::optional<int32_t>& image_offset,
                                        const AvbFooter& footer) {
  const uint64_t vbmeta_size = footer.vbmeta_size;
  const uint64_t vbmeta_offset = footer.vbmeta_offset;
  if (vbmeta_size > kVbMetaMaxSize) {
    return Error() << "VbMeta size in footer exceeds kVbMetaMaxSize.";
  }
  if (!image_offset.has_value()) {
    return Error() << "Cannot check VbMeta size without image offset";
  }
  off64_t position;
  if (vbmeta_offset > static_cast<uint64_t>(INT64_MAX) ||
      __builtin_add_overflow(static_cast<off64_t>(*image_offset),
                             static_cast<off64_t>(vbmeta_offset), &position)) {
    errno = EOVERFLOW;
    return ErrnoError() << "Couldn't read AVB meta-data";
  }
  std::vector<uint8_t> vbmeta(vbmeta_size);
  errno = 0;
  if (!android::base::ReadFullyAtOffset(fd, vbmeta.data(), vbmeta.size(), position)) {
    if (errno == 0) errno = ENODATA;  // the file ends inside the block
    return ErrnoError() << "Couldn't read AVB meta-data";
  }
  return vbmeta;
}

// Checks the block's signature and that it was made with `expected_key`.
Result<void> CheckVbmetaSignature(const std::vector<uint8_t>& vbmeta, const std::string& path,
                                  const std::string& expected_key) {
  const uint8_t* key = nullptr;
  size_t key_length = 0;
  const AvbVBMetaVerifyResult result =
      avb_vbmeta_image_verify(vbmeta.data(), vbmeta.size(), &key, &key_length);
  switch (result) {
    case AVB_VBMETA_VERIFY_RESULT_OK: {
      const std::string vbmeta_key = BytesToHex(key, key_length);
      LOG(ERROR) << "Kelb  pubkey is same vbmeta_pubkey     " << vbmeta_key;
      LOG(ERROR) << "Kelb  pubkey is same public_key_content" << expected_key;
      if (vbmeta_key != expected_key) {
        return Error() << "Error verifying " << path << " : "
                       << "public key doesn't match the pre-installed one";
      }
      return {};
    }
    case AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED:
    case AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH:
    case AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH:
      return Error() << "Error verifying " << path << ": "
                     << avb_vbmeta_verify_result_to_string(result);
    case AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER:
      return Error() << "Error verifying " << path << ": " << "invalid vbmeta header";
    case AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION:
      return Error() << "Error verifying " << path << ": " << "unsupported version";
  }
  return Error() << "Unknown vmbeta_image_verify return value : " << static_cast<int>(result);
}

// Offset inside `vbmeta` of the first hashtree descriptor, whose fixed part
// lies inside the block.
Result<size_t> FindHashtreeDescriptor(const uint8_t* vbmeta, size_t vbmeta_size) {
  size_t count = 0;
  const DescriptorList descriptors(avb_descriptor_get_all(vbmeta, vbmeta_size, &count));
  if (!descriptors) count = 0;

  const AvbDescriptor* found = nullptr;
  for (size_t i = 0; i < count; ++i) {
    AvbDescriptor header;
    if (!avb_descriptor_validate_and_byteswap(descriptors[i], &header)) {
      return Error() << "Couldn't validate AvbDescriptor.";
    }
    if (header.tag == AVB_DESCRIPTOR_TAG_HASHTREE) {
      found = descriptors[i];
      break;
    }
  }
  if (found == nullptr) return Error() << "Couldn't find any AVB hashtree descriptors.";

  const size_t offset = reinterpret_cast<const uint8_t*>(found) - vbmeta;
  if (offset > vbmeta_size || vbmeta_size - offset < sizeof(AvbHashtreeDescriptor)) {
    return Error() << "Invalid length for AvbHashtreeDescriptor";
  }
  return offset;
}

// Fills the verity data from the validated descriptor `desc` found at
// `offset`; its name, salt and root digest follow the fixed part.
Result<RpkVerityData> ReadVerityData(const uint8_t* vbmeta, size_t vbmeta_size, size_t offset,
                                     std::unique_ptr<AvbHashtreeDescriptor> desc) {
  const uint64_t salt_at = offset + uint64_t{sizeof(AvbHashtreeDescriptor)} +
                           desc->partition_name_len;
  const uint64_t digest_at = salt_at + desc->salt_len;
  // Validation bounded these by the descriptor's length, which the walk
  // bounded by the block; checked again because the bytes are read here.
  if (digest_at + desc->root_digest_len > vbmeta_size) {
    return Error() << "Invalid length for AvbHashtreeDescriptor";
  }
  const uint8_t* algorithm = vbmeta + offset + offsetof(AvbHashtreeDescriptor, hash_algorithm);
  const size_t algorithm_length =
      strnlen(reinterpret_cast<const char*>(algorithm), sizeof(desc->hash_algorithm));

  RpkVerityData data;
  data.hash_algorithm.assign(reinterpret_cast<const char*>(algorithm), algorithm_length);
  data.salt = BytesToHex(vbmeta + salt_at, desc->salt_len);
  data.root_digest = BytesToHex(vbmeta + digest_at, desc->root_digest_len);
  data.desc = std::move(desc);
  return data;
}

}  // namespace

std::string BytesToHex(const uint8_t* bytes, size_t length) {
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  for (size_t i = 0; i < length; ++i) {
    out << std::setw(2) << static_cast<unsigned>(bytes[i]);
  }
  return out.str();
}

Result<RpkVerityData> VerityDataFromVbmeta(const uint8_t* vbmeta, size_t vbmeta_size) {
  auto offset = FindHashtreeDescriptor(vbmeta, vbmeta_size);
  if (!offset.ok()) {
    LOG(ERROR) << " Kelb Rpk_File  descriptor.error ";
    return offset.error();
  }

  auto desc = std::make_unique<AvbHashtreeDescriptor>();
  if (!avb_hashtree_descriptor_validate_and_byteswap(
          reinterpret_cast<const AvbHashtreeDescriptor*>(vbmeta + *offset), desc.get())) {
    LOG(ERROR) << " Kelb Rpk_File  verified_descriptor.error";
    return Error() << "Couldn't validate AvbDescriptor.";
  }
  auto data = ReadVerityData(vbmeta, vbmeta_size, *offset, std::move(desc));
  if (!data.ok()) {
    LOG(ERROR) << " Kelb Rpk_File  verified_descriptor.error";
    return data.error();
  }
  LOG(ERROR) << " Kelb Rpk_File  hash_algorithm " << data->hash_algorithm;
  LOG(ERROR) << " Kelb Rpk_File  salt " << data->salt;
  LOG(ERROR) << " Kelb Rpk_File  root_digest " << data->root_digest;
  return data;
}

Result<std::string> ReadPublicKeyHex(const std::string& key_path) {
  std::ifstream key_file(key_path, std::ios::in | std::ios::binary);
  std::streamoff size = -1;
  if (key_file.is_open()) {
    key_file.seekg(0, std::ios::end);
    size = key_file.tellg();
    key_file.seekg(0, std::ios::beg);
  }
  // No vbmeta block can embed a key longer than the block itself, so a larger
  // "file" (or one whose size cannot be told, such as a directory) is no key.
  if (size < 0 || static_cast<uint64_t>(size) > kVbMetaMaxSize) {
    LOG(ERROR) << "Kelb failed to open rpk_public_key";
    return Error() << "Failed to find rpk_public_key " << key_path;
  }
  std::vector<uint8_t> key(static_cast<size_t>(size), 0);
  key_file.read(reinterpret_cast<char*>(key.data()), size);
  return BytesToHex(key.data(), key.size());
}

Result<RpkFile> RpkFile::Open(const std::string& path) {
  auto member = LocateImageMember(path);
  if (!member.ok()) return member.error();
  auto key = ReadPublicKeyHex(kTrustedKeyFile);
  if (!key.ok()) return key.error();
  return FromImageMember(path, member->offset, member->size, std::move(*key));
}

Result<RpkFile> RpkFile::OpenWithPublicKey(const std::string& path,
                                           const std::string& public_key_hex) {
  auto member = LocateImageMember(path);
  if (!member.ok()) return member.error();
  return FromImageMember(path, member->offset, member->size, public_key_hex);
}

Result<RpkFile> RpkFile::FromImageMember(const std::string& path, int32_t image_offset,
                                         uint64_t image_size, std::string public_key) {
  std::string real_path;
  if (!android::base::Realpath(path, &real_path)) {
    return ErrnoError() << "can't get realpath of " << path;
  }
  return RpkFile(std::move(real_path), image_offset, image_size, std::move(public_key), "ext4");
}

Result<RpkVerityData> RpkFile::VerifyRpkVerity(const std::string& expected_public_key) const {
  unique_fd fd(TEMP_FAILURE_RETRY(open(path_.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd < 0) {
    LOG(ERROR) << " Kelb Rpk_File Failed to open " << path_;
    return ErrnoError() << "Failed to open " << path_;
  }
  LOG(ERROR) << " Kelb Rpk_File success to open " << path_;

  auto footer = ReadAvbFooter(fd.get(), image_offset_, image_size_);
  if (!footer.ok()) {
    LOG(ERROR) << " Kelb Rpk_File footer.error ";
    return footer.error();
  }
  LOG(ERROR) << " Kelb Rpk_File success footer.ok";

  auto vbmeta = ReadVbmeta(fd.get(), image_offset_, *footer);
  if (!vbmeta.ok()) {
    LOG(ERROR) << " Kelb Rpk_File  vbmeta_data.error ";
    return vbmeta.error();
  }
  if (auto signed_by_key = CheckVbmetaSignature(*vbmeta, path_, expected_public_key);
      !signed_by_key.ok()) {
    LOG(ERROR) << " Kelb Rpk_File  vbmeta_data.error ";
    return signed_by_key.error();
  }
  LOG(ERROR) << " Kelb Rpk_File success vbmeta_data.ok";

  return VerityDataFromVbmeta(vbmeta->data(), vbmeta->size());
}

}  // namespace rpk
}  // namespace android
