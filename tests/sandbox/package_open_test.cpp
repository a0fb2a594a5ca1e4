// Opening and verifying packages the way the daemon does, with the device's
// trusted key file at its fixed path. The binary runs inside a fresh
// sandbox root (tests/support/in_fresh_sandbox), where it owns /system and
// /data.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

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
using android::mend::kTrustedKeyFile;
using android::rpk::RpkFile;
using android::rpk::RpkVerityData;

constexpr char kPackageDir[] = "/data/rvx/imgs/";
// How the daemon words a package refused by verification.
constexpr char kRefusedByVerification[] =
    "first mount failed  Failed to verify rpk Verity data for ";

std::string Hex(const std::string& bytes) {
  return BytesToHex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

std::string KeyBlob(const std::string& name) {
  return ReadWholeFile(AvbFixture("keys/" + name + ".avbpubkey"));
}

class DeviceKeyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Never write the device paths of the machine the tests run on.
    ASSERT_NE(getenv("MEND_FRESH_SANDBOX"), nullptr)
        << "run through tests/support/in_fresh_sandbox";
    fs::create_directories(kPackageDir);
    fs::remove_all(kTrustedKeyFile);
  }

  static void InstallTrustedKey(const std::string& bytes) {
    fs::create_directories(fs::path(kTrustedKeyFile).parent_path());
    WriteWholeFile(kTrustedKeyFile, bytes);
  }
  // Copies reference package `name` into the package directory.
  static std::string InstallPackage(const std::string& name) {
    const std::string path = kPackageDir + name + ".zip";
    fs::copy_file(AvbFixture("pkgs/" + name + ".zip"), path,
                  fs::copy_options::overwrite_existing);
    return path;
  }

  LogRecorder log_;
};

// ---------------------------------------------------------------------------

class ReferencePackageTest : public DeviceKeyTest,
                             public ::testing::WithParamInterface<std::string> {};

void ExpectHashtree(const RpkVerityData& data, const Json::Value& tree) {
  const AvbHashtreeDescriptor& desc = *data.desc;
  EXPECT_EQ(data.hash_algorithm, tree["hash_algorithm"].asString());
  EXPECT_EQ(data.salt, tree["salt"].asString());
  EXPECT_EQ(data.root_digest, tree["root_digest"].asString());
  EXPECT_EQ(desc.parent_descriptor.tag, uint64_t{AVB_DESCRIPTOR_TAG_HASHTREE});
  EXPECT_EQ(desc.dm_verity_version, tree["dm_verity_version"].asUInt());
  EXPECT_EQ(desc.image_size, tree["image_size"].asUInt64());
  EXPECT_EQ(desc.tree_offset, tree["tree_offset"].asUInt64());
  EXPECT_EQ(desc.tree_size, tree["tree_size"].asUInt64());
  EXPECT_EQ(desc.data_block_size, tree["data_block_size"].asUInt());
  EXPECT_EQ(desc.hash_block_size, tree["hash_block_size"].asUInt());
  EXPECT_EQ(desc.fec_num_roots, tree["fec_num_roots"].asUInt());
  EXPECT_EQ(desc.fec_offset, tree["fec_offset"].asUInt64());
  EXPECT_EQ(desc.fec_size, tree["fec_size"].asUInt64());
  EXPECT_EQ(desc.flags, tree["flags"].asUInt());
  EXPECT_EQ(desc.partition_name_len, tree["partition_name"].asString().size());
}

TEST_P(ReferencePackageTest, GivesTheOutcomeTheManifestStates) {
  const Json::Value& package = ManifestPackage(GetParam());
  const std::string path = InstallPackage(GetParam());
  InstallTrustedKey(KeyBlob(package["key"].asString()));

  auto file = RpkFile::Open(path);
  ASSERT_TRUE(file.ok()) << file.error().message();
  EXPECT_EQ(file->GetPublicKey(), Hex(KeyBlob(package["key"].asString())));
  const Json::Value& member = package["zip_members"]["update_payload.img"];
  EXPECT_EQ(*file->GetImageOffset(), member["data_offset"].asInt());
  EXPECT_EQ(*file->GetImageSize(), member["uncompressed_size"].asUInt64());
  EXPECT_EQ(file->GetFsType(), std::optional<std::string>("ext4"));
  EXPECT_EQ(file->GetPath(), path);
  auto data = file->VerifyRpkVerity(file->GetPublicKey());

  const Json::Value& reason = package["expected"]["reason"];
  const bool refused = reason.isString() && reason.asString().rfind(kRefusedByVerification, 0) == 0;
  if (!refused) {
    ASSERT_TRUE(data.ok()) << data.error().message();
    ExpectHashtree(*data, package["hashtree"]);
    return;
  }
  ASSERT_FALSE(data.ok());
  EXPECT_EQ(kRefusedByVerification + path + ": " + data.error().message(), reason.asString());
  if (package.isMember("signed_with")) {
    // Both keys are logged before the refusal.
    EXPECT_TRUE(log_.Has(ERROR, "Kelb  pubkey is same vbmeta_pubkey     " +
                         Hex(KeyBlob(package["signed_with"].asString()))));
    EXPECT_TRUE(log_.Has(ERROR, "Kelb  pubkey is same public_key_content" +
                         Hex(KeyBlob(package["key"].asString()))));
  }
}

std::vector<std::string> ManifestPackageNames() {
  std::vector<std::string> names;
  for (const Json::Value& package : ManifestPackages()) names.push_back(package["name"].asString());
  return names;
}

INSTANTIATE_TEST_SUITE_P(Manifest, ReferencePackageTest,
                         ::testing::ValuesIn(ManifestPackageNames()),
                         [](const auto& info) { return info.param; });

// ---------------------------------------------------------------------------

TEST_F(DeviceKeyTest, MissingKeyFileFailsEveryOpen) {
  const std::string path = InstallPackage("valid_2048");
  for (int i = 0; i < 2; ++i) {
    auto file = RpkFile::Open(path);
    ASSERT_FALSE(file.ok());
    EXPECT_EQ(file.error().message(),
              "Failed to find rpk_public_key /system/etc/security/rpk_public_key");
  }
  EXPECT_EQ(log_.Count(ERROR, "Kelb failed to open rpk_public_key"), 2u);

  // A package without an image is refused before the key is looked for.
  WriteZip(kPackageDir + std::string("config_only.zip"), {{"config.txt", "x=1\n"}});
  auto file = RpkFile::Open(kPackageDir + std::string("config_only.zip"));
  ASSERT_FALSE(file.ok());
  EXPECT_EQ(file.error().message(),
            "Could not find entry \"update_payload.img\" in package "
            "/data/rvx/imgs/config_only.zip: Entry not found");
  EXPECT_EQ(log_.Count(ERROR, "Kelb failed to open rpk_public_key"), 2u);
}

TEST_F(DeviceKeyTest, KeyFileThatCannotBeAKeyIsTreatedAsMissing) {
  fs::create_directories(kTrustedKeyFile);
  auto file = RpkFile::Open(InstallPackage("valid_2048"));
  ASSERT_FALSE(file.ok());
  EXPECT_EQ(file.error().message(),
            "Failed to find rpk_public_key /system/etc/security/rpk_public_key");
  EXPECT_TRUE(log_.Has(ERROR, "Kelb failed to open rpk_public_key"));
}

TEST_F(DeviceKeyTest, EmptyKeyFileOpensButMatchesNoPackage) {
  InstallTrustedKey("");
  const std::string path = InstallPackage("valid_2048");
  auto file = RpkFile::Open(path);
  ASSERT_TRUE(file.ok()) << file.error().message();
  auto data = file->VerifyRpkVerity(file->GetPublicKey());
  ASSERT_FALSE(data.ok());
  EXPECT_EQ(data.error().message(),
            "Error verifying " + path + " : public key doesn't match the pre-installed one");
}

}  // namespace
}  // namespace mend_test
