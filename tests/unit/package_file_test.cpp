// Opening packages and verifying their AVB data with an explicit trusted
// key, on the reference packages, on copies with single bytes flipped and
// on crafted packages that break one step at a time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "avb_builder.h"
#include "avb_fixtures.h"
#include "log_recorder.h"
#include "mend_mount_file.h"
#include "test_files.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

namespace fs = std::filesystem;
using android::base::ERROR;
using android::rpk::BytesToHex;
using android::rpk::RpkFile;
using android::rpk::RpkVerityData;
using android::rpk::VerityDataFromVbmeta;

std::string Hex(const std::string& bytes) {
  return BytesToHex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string TrustedKeyHex() { return Hex(ReadWholeFile(AvbFixture("keys/rsa2048.avbpubkey"))); }

// Opens `path` trusting `key_hex` and verifies it against that key.
android::base::Result<RpkVerityData> OpenAndVerify(const std::string& path,
                                                   const std::string& key_hex) {
  auto file = RpkFile::OpenWithPublicKey(path, key_hex);
  if (!file.ok()) return file.error();
  return file->VerifyRpkVerity(file->GetPublicKey());
}

std::string Rejection(const android::base::Result<RpkVerityData>& result) {
  return result.ok() ? "(verified)" : result.error().message();
}

std::string FourBlocksOfData() { return std::string(16384, '\x6d'); }

// ---------------------------------------------------------------------------

TEST(PackageOpenTest, KeepsTheRealPathOfALinkedPackage) {
  TempDir dir;
  const std::string target = AvbFixture("pkgs/valid_2048.zip");
  fs::create_symlink(target, dir / "link.zip");
  auto file = RpkFile::OpenWithPublicKey(dir / "link.zip", "");
  ASSERT_TRUE(file.ok()) << file.error().message();
  EXPECT_EQ(file->GetPath(), fs::canonical(target).string());
  EXPECT_EQ(file->GetPublicKey(), "");
}

TEST(PackageOpenTest, RefusesPackagesWithoutAnImageSilently) {
  TempDir dir;
  WriteWholeFile(dir / "text.zip", "config.txt is not a zip");
  WriteWholeFile(dir / "empty.zip", "");
  WriteZip(dir / "no_image.zip", {{"config.txt", "update_package_name=x\n"}});
  WriteZip(dir / "other_name.zip", {{"update_payload.img.bak", "x"}});
  struct Case {
    std::string path;
    std::string message;
  } cases[] = {
      {dir / "missing.zip", "Failed to open package " + (dir / "missing.zip") + ": I/O error"},
      {dir / "text.zip", "Failed to open package " + (dir / "text.zip") + ": Invalid file"},
      {dir / "empty.zip", "Failed to open package " + (dir / "empty.zip") + ": Invalid file"},
      {dir / "no_image.zip", "Could not find entry \"update_payload.img\" in package " +
                                 (dir / "no_image.zip") + ": Entry not found"},
      {dir / "other_name.zip", "Could not find entry \"update_payload.img\" in package " +
                                   (dir / "other_name.zip") + ": Entry not found"},
  };
  for (const Case& c : cases) {
    LogRecorder log(/*echo=*/false);
    auto file = RpkFile::OpenWithPublicKey(c.path, TrustedKeyHex());
    ASSERT_FALSE(file.ok()) << c.path;
    EXPECT_EQ(file.error().message(), c.message);
    // The zip library may say why a file is no zip; the refusal itself is
    // not logged.
    for (const std::string& line : log.Lines()) EXPECT_EQ(line.rfind("D Zip: ", 0), 0u) << line;
  }
}

// ---------------------------------------------------------------------------

class PackageVerifyTest : public ::testing::Test {
 protected:
  // Writes a package holding `image` and returns its path.
  std::string Package(const std::string& name, const std::string& image) {
    const std::string path = dir_ / name;
    WritePackage(path, image);
    return path;
  }
  std::string Package(const std::string& name, const std::string& vbmeta,
                      std::optional<uint64_t> footer_vbmeta_size) {
    return Package(name, BuildImage(FourBlocksOfData(), vbmeta, footer_vbmeta_size));
  }

  TempDir dir_;
  LogRecorder log_;
};

TEST_F(PackageVerifyTest, LogsEachStepOfASuccessfulVerification) {
  const std::string path = fs::canonical(AvbFixture("pkgs/valid_2048.zip"));
  const Json::Value& tree = ManifestPackage("valid_2048")["hashtree"];
  ASSERT_TRUE(OpenAndVerify(path, TrustedKeyHex()).ok());
  const std::vector<std::string> expected = {
      "E  Kelb Rpk_File success to open " + path,
      "V AVB footer verification successful.",
      "E  Kelb Rpk_File success footer.ok",
      "E Kelb  pubkey is same vbmeta_pubkey     " + TrustedKeyHex(),
      "E Kelb  pubkey is same public_key_content" + TrustedKeyHex(),
      "E  Kelb Rpk_File success vbmeta_data.ok",
      "E  Kelb Rpk_File  hash_algorithm sha256",
      "E  Kelb Rpk_File  salt " + tree["salt"].asString(),
      "E  Kelb Rpk_File  root_digest " + tree["root_digest"].asString(),
  };
  EXPECT_EQ(log_.Lines(), expected);
}

TEST_F(PackageVerifyTest, ReadsAVbmetaOfExactlyTheLimitAndRefusesOneByteMore) {
  std::string vbmeta = SignedVbmeta(HashtreeBytes());
  vbmeta.resize(65536, '\0');  // the block, then zeros: a longer buffer is fine
  EXPECT_TRUE(OpenAndVerify(Package("limit.zip", vbmeta, 65536), TrustedKeyHex()).ok());

  vbmeta.resize(65536 + 4096, '\0');
  const auto over = OpenAndVerify(Package("over.zip", vbmeta, 65537), TrustedKeyHex());
  EXPECT_EQ(Rejection(over), "VbMeta size in footer exceeds kVbMetaMaxSize.");
  EXPECT_TRUE(log_.Has(ERROR, " Kelb Rpk_File  vbmeta_data.error "));
  EXPECT_EQ(log_.Count(ERROR, " Kelb Rpk_File success vbmeta_data.ok"), 1u) << "the first one only";
}

TEST_F(PackageVerifyTest, RefusesFootersAndVbmetaPlacesThatCannotBeRead) {
  const std::string vbmeta = SignedVbmeta(HashtreeBytes());
  std::string bad_magic = BuildImage(FourBlocksOfData(), vbmeta);
  bad_magic[bad_magic.size() - 64] = 'a';
  std::string newer_major = BuildImage(FourBlocksOfData(), vbmeta);
  StoreBe32(&newer_major, newer_major.size() - 60, 2);
  std::string far_offset = BuildImage(FourBlocksOfData(), vbmeta);
  StoreBe64(&far_offset, far_offset.size() - 64 + 20, UINT64_MAX - 4095);
  std::string past_end = BuildImage(FourBlocksOfData(), vbmeta);
  StoreBe64(&past_end, past_end.size() - 64 + 20, uint64_t{1} << 40);

  struct Case {
    std::string name;
    std::string image;
    std::string message;
    const char* log;
  } cases[] = {
      {"bad_magic.zip", bad_magic, "AVB footer verification failed.",
       " Kelb Rpk_File footer.error "},
      {"newer_major.zip", newer_major, "AVB footer verification failed.",
       " Kelb Rpk_File footer.error "},
      {"tiny_image.zip", "short", "AVB footer verification failed.",
       " Kelb Rpk_File footer.error "},
      {"far_offset.zip", far_offset,
       "Couldn't read AVB meta-data: Value too large for defined data type",
       " Kelb Rpk_File  vbmeta_data.error "},
      {"past_end.zip", past_end, "Couldn't read AVB meta-data: No data available",
       " Kelb Rpk_File  vbmeta_data.error "},
      {"empty_vbmeta.zip", BuildImage(FourBlocksOfData(), vbmeta, 0),
       "Error verifying " + dir_ / "empty_vbmeta.zip" + ": invalid vbmeta header",
       " Kelb Rpk_File  vbmeta_data.error "},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Rejection(OpenAndVerify(Package(c.name, c.image), TrustedKeyHex())), c.message)
        << c.name;
    EXPECT_TRUE(log_.Has(ERROR, c.log)) << c.name;
  }
}

TEST_F(PackageVerifyTest, ComparesTheWholeEmbeddedKeyWithTheTrustedOne) {
  const std::string path = fs::canonical(AvbFixture("pkgs/valid_2048.zip"));
  const std::string trusted = TrustedKeyHex();
  std::string first_flipped = trusted;
  first_flipped[0] = first_flipped[0] == '0' ? '1' : '0';
  std::string last_flipped = trusted;
  last_flipped.back() = last_flipped.back() == '0' ? '1' : '0';
  std::string upper = trusted;
  for (char& c : upper) c = toupper(c);
  for (const std::string& key : {first_flipped, last_flipped, trusted.substr(0, trusted.size() - 2),
                                 trusted + "00", upper, std::string()}) {
    const auto result = OpenAndVerify(path, key);
    EXPECT_EQ(Rejection(result),
              "Error verifying " + path + " : public key doesn't match the pre-installed one");
    EXPECT_TRUE(log_.Has(ERROR, "Kelb  pubkey is same public_key_content" + key));
  }
  EXPECT_EQ(log_.Count(ERROR, "Kelb  pubkey is same vbmeta_pubkey     " + trusted), 6u);
}

TEST_F(PackageVerifyTest, TakesTheFirstHashtreeDescriptorAfterOthers) {
  avbformat::HashtreeDescriptor first = SampleHashtree();
  first.salt = {'s', 'a', 'l', 't'};
  first.root_digest.assign(32, 0x01);
  first.hash_algorithm = "sha1";
  first.tree_size = 8192;
  const std::string descriptors = DescriptorBytes(AVB_DESCRIPTOR_TAG_PROPERTY, "k=v") +
                                  DescriptorBytes(AVB_DESCRIPTOR_TAG_HASH, "h") +
                                  HashtreeBytes(first) + HashtreeBytes();
  auto data = OpenAndVerify(Package("two.zip", SignedVbmeta(descriptors), std::nullopt),
                            TrustedKeyHex());
  ASSERT_TRUE(data.ok()) << data.error().message();
  EXPECT_EQ(data->hash_algorithm, "sha1");
  EXPECT_EQ(data->salt, Hex("salt"));
  EXPECT_EQ(data->root_digest, Hex(std::string(32, '\x01')));
  EXPECT_EQ(data->desc->tree_size, 8192u);
}

TEST_F(PackageVerifyTest, RefusesAHashtreeDescriptorWhoseLengthsDoNotFit) {
  std::string overlong = HashtreeBytes();
  StoreBe32(&overlong, kSaltLenOffset, 0xfffffff0);
  const auto result =
      OpenAndVerify(Package("overlong.zip", SignedVbmeta(overlong), std::nullopt), TrustedKeyHex());
  EXPECT_EQ(Rejection(result), "Couldn't validate AvbDescriptor.");
  EXPECT_TRUE(log_.Has(ERROR, " Kelb Rpk_File  verified_descriptor.error"));
}

TEST_F(PackageVerifyTest, ReportsAPackageThatVanishedSinceOpening) {
  const std::string path = dir_ / "gone.zip";
  fs::copy_file(AvbFixture("pkgs/valid_2048.zip"), path);
  auto file = RpkFile::OpenWithPublicKey(path, TrustedKeyHex());
  ASSERT_TRUE(file.ok());
  fs::remove(path);
  const auto result = file->VerifyRpkVerity(file->GetPublicKey());
  EXPECT_EQ(Rejection(result), "Failed to open " + path + ": No such file or directory");
  EXPECT_TRUE(log_.Has(ERROR, " Kelb Rpk_File Failed to open " + path));
}

TEST(VerityDataFromVbmetaTest, ChecksTheDescriptorAgainstTheBlockEnd) {
  // A hashtree tag on a short descriptor at the end of an (unsigned) block:
  // the 180-byte fixed part would run past the block.
  const std::string block =
      UnsignedVbmeta(DescriptorBytes(AVB_DESCRIPTOR_TAG_HASHTREE, std::string(8, '\0')));
  LogRecorder log(/*echo=*/false);
  auto data = VerityDataFromVbmeta(reinterpret_cast<const uint8_t*>(block.data()), block.size());
  ASSERT_FALSE(data.ok());
  EXPECT_EQ(data.error().message(), "Invalid length for AvbHashtreeDescriptor");
  EXPECT_TRUE(log.Has(ERROR, " Kelb Rpk_File  descriptor.error "));
}

TEST(VerityDataFromVbmetaTest, AlgorithmNameFillingItsFieldStaysInside) {
  avbformat::HashtreeDescriptor descriptor = SampleHashtree();
  descriptor.hash_algorithm = std::string(32, 'a');
  const std::string block = UnsignedVbmeta(HashtreeBytes(descriptor));
  LogRecorder log(/*echo=*/false);
  auto data = VerityDataFromVbmeta(reinterpret_cast<const uint8_t*>(block.data()), block.size());
  ASSERT_TRUE(data.ok()) << data.error().message();
  EXPECT_EQ(data->hash_algorithm, std::string(32, 'a'));
}

// ---------------------------------------------------------------------------

// A private copy of a reference package whose bytes a test flips one at a
// time, verifying against the trusted key after each flip.
class TamperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_ / "valid_2048.zip";
    fs::copy_file(AvbFixture("pkgs/valid_2048.zip"), path_);
    auto file = RpkFile::OpenWithPublicKey(path_, TrustedKeyHex());
    ASSERT_TRUE(file.ok());
    image_offset_ = *file->GetImageOffset();
    const uint64_t image_size = *file->GetImageSize();
    const std::string package = ReadWholeFile(path_);
    footer_offset_ = image_offset_ + image_size - 64;
    vbmeta_offset_ = image_offset_ + LoadBe64(package, footer_offset_ + 20);
    vbmeta_ = package.substr(vbmeta_offset_, LoadBe64(package, footer_offset_ + 28));
    fd_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }

  // Verification result with the package byte at `offset` inverted.
  android::base::Result<RpkVerityData> VerifyWithFlip(uint64_t offset) {
    uint8_t byte;
    EXPECT_EQ(pread(fd_, &byte, 1, offset), 1);
    const uint8_t flipped = byte ^ 0xff;
    EXPECT_EQ(pwrite(fd_, &flipped, 1, offset), 1);
    auto result = OpenAndVerify(path_, TrustedKeyHex());
    EXPECT_EQ(pwrite(fd_, &byte, 1, offset), 1);
    return result;
  }
  std::string VerifyError(const std::string& reason) const {
    return "Error verifying " + path_ + ": " + reason;
  }

  TempDir dir_;
  LogRecorder quiet_{/*echo=*/false};
  std::string path_;
  uint64_t image_offset_ = 0;
  uint64_t footer_offset_ = 0;
  uint64_t vbmeta_offset_ = 0;
  std::string vbmeta_;
  int fd_ = -1;
};

TEST_F(TamperTest, EveryVbmetaByteIsCoveredExceptTheAuthBlockPadding) {
  const VbmetaLayout layout = LayoutOf(vbmeta_);
  const size_t hash_size = layout.header.hash_size;
  const size_t padding_begin = layout.auth_offset + hash_size + layout.header.signature_size;
  const std::set<std::string> allowed = {
      VerifyError("invalid vbmeta header"), VerifyError("unsupported version"),
      VerifyError("HASH_MISMATCH"), VerifyError("SIGNATURE_MISMATCH")};

  std::vector<size_t> accepted;
  for (size_t i = 0; i < vbmeta_.size(); ++i) {
    const std::string outcome = Rejection(VerifyWithFlip(vbmeta_offset_ + i));
    if (outcome == "(verified)") {
      accepted.push_back(i);
      continue;
    }
    EXPECT_EQ(allowed.count(outcome), 1u) << "byte " << i << ": " << outcome;
    const char* expected = nullptr;
    if (i < 4) expected = "invalid vbmeta header";
    if (i >= 4 && i < 8) expected = "unsupported version";
    if (i >= layout.auth_offset && i < layout.auth_offset + hash_size) {
      expected = "HASH_MISMATCH";
    }
    if (i >= layout.auth_offset + hash_size && i < padding_begin) {
      expected = "SIGNATURE_MISMATCH";
    }
    if (i >= layout.aux_offset) expected = "HASH_MISMATCH";
    if (expected != nullptr) {
      EXPECT_EQ(outcome, VerifyError(expected)) << "byte " << i;
    }
  }
  // Only the zeros after the signature are outside both hash and signature.
  std::vector<size_t> padding;
  for (size_t i = padding_begin; i < layout.aux_offset; ++i) padding.push_back(i);
  EXPECT_EQ(accepted, padding);
}

TEST_F(TamperTest, FooterFlipsThatMatterAreRefused) {
  struct Case {
    const char* what;
    uint64_t byte;
    std::string message;
  } cases[] = {
      {"magic", 0, "AVB footer verification failed."},
      {"major version", 7, "AVB footer verification failed."},
      {"vbmeta offset", 23, "Couldn't read AVB meta-data: No data available"},
      {"vbmeta size high bytes", 28, "VbMeta size in footer exceeds kVbMetaMaxSize."},
      {"vbmeta size low byte", 35, VerifyError("invalid vbmeta header")},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Rejection(VerifyWithFlip(footer_offset_ + c.byte)), c.message) << c.what;
  }
  // Fields the verifier does not rely on.
  for (uint64_t byte : {11 /* minor version */, 19 /* original size */, 40 /* reserved */}) {
    EXPECT_TRUE(VerifyWithFlip(footer_offset_ + byte).ok()) << "byte " << byte;
  }
}

TEST_F(TamperTest, DataAndHashTreeFlipsAreLeftToDmVerity) {
  const Json::Value& tree = ManifestPackage("valid_2048")["hashtree"];
  const uint64_t data_byte = ManifestPackage("data_corrupt")["mod"]["offset"].asUInt64();
  const uint64_t tree_offset = tree["tree_offset"].asUInt64();
  for (uint64_t byte : {uint64_t{0}, data_byte, tree_offset, tree_offset + 4095,
                        tree_offset + tree["tree_size"].asUInt64() - 1}) {
    auto data = VerifyWithFlip(image_offset_ + byte);
    ASSERT_TRUE(data.ok()) << "image byte " << byte << ": " << data.error().message();
    EXPECT_EQ(data->root_digest, tree["root_digest"].asString());
  }
}

}  // namespace
}  // namespace mend_test
