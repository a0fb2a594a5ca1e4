#pragma once

#include <libavb/libavb.h>

#include <android-base/result.h>

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "mend_paths.h"

namespace android {
namespace rpk {

// Largest vbmeta block the verifier reads.
inline constexpr uint64_t kVbMetaMaxSize = 64 * 1024;

// Each byte as two lowercase hex digits, in order.
std::string BytesToHex(const uint8_t* bytes, size_t length);

// Hashtree parameters taken from a verified vbmeta block.
struct RpkVerityData {
  std::unique_ptr<AvbHashtreeDescriptor> desc;  // host byte order
  std::string hash_algorithm;
  std::string salt;         // lowercase hex
  std::string root_digest;  // lowercase hex
};

// Hashtree parameters of the first hashtree descriptor in `vbmeta` (a whole
// vbmeta block of `vbmeta_size` bytes whose signature was already checked).
// Every length read from the block is checked against its end.
android::base::Result<RpkVerityData> VerityDataFromVbmeta(const uint8_t* vbmeta,
                                                          size_t vbmeta_size);

// The key blob in `key_path` as lowercase hex; fails for a file that cannot
// be read or is larger than any vbmeta block.
android::base::Result<std::string> ReadPublicKeyHex(const std::string& key_path);

// Package configuration record of the engine; nothing on the mount path
// fills or reads it.
struct RpkConfig {
  std::string name;
  std::list<std::string> provide_shared_libs;
};

// An opened repair package: where its image lies inside the zip and the
// device's trusted key. Holds no open resources.
class RpkFile {
 public:
  // Locates the image member of the package zip at `path` and loads the
  // device's trusted key (android::mend::kTrustedKeyFile).
  static android::base::Result<RpkFile> Open(const std::string& path);
  // As Open, but trusts `public_key_hex` (lowercase hex of a key blob, as
  // BytesToHex gives it; may be empty) instead of reading the device's key
  // file: for offline tools that take the key from their command line.
  static android::base::Result<RpkFile> OpenWithPublicKey(const std::string& path,
                                                          const std::string& public_key_hex);

  // Verifies the image's AVB footer and vbmeta signature against
  // `expected_public_key` (lowercase hex) and returns its hashtree parameters.
  android::base::Result<RpkVerityData> VerifyRpkVerity(
      const std::string& expected_public_key) const;

  const std::string& GetPath() const { return path_; }
  const std::optional<int32_t>& GetImageOffset() const { return image_offset_; }
  const std::optional<uint64_t>& GetImageSize() const { return image_size_; }
  const std::string& GetPublicKey() const { return public_key_; }
  const std::optional<std::string>& GetFsType() const { return fs_type_; }

 private:
  // The RpkFile of the package at `path` (resolved to its real path) whose
  // image member was found at `image_offset` with `image_size` bytes.
  static android::base::Result<RpkFile> FromImageMember(const std::string& path,
                                                        int32_t image_offset,
                                                        uint64_t image_size,
                                                        std::string public_key);

  RpkFile(std::string path, std::optional<int32_t> image_offset,
          std::optional<uint64_t> image_size, std::string public_key,
          std::optional<std::string> fs_type)
      : path_(std::move(path)),
        image_offset_(image_offset),
        image_size_(image_size),
        public_key_(std::move(public_key)),
        fs_type_(std::move(fs_type)) {}

  std::string path_;
  std::optional<int32_t> image_offset_;
  std::optional<uint64_t> image_size_;
  std::string public_key_;
  std::optional<std::string> fs_type_;
};

}  // namespace rpk
}  // namespace android
