// `info` and `verify` on the reference packages: the hash tree parameters
// info reports equal the manifest's values, verify reaches each package's
// stated outcome with the daemon's own error texts, and names what changed
// after signing.

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tool_test_util.h"

namespace mend_test {
namespace {

TEST(Info, ReportsTheManifestValuesOfEveryFixture) {
  ASSERT_GE(ManifestPackages().size(), 6u);
  for (const Json::Value& expected : ManifestPackages()) {
    SCOPED_TRACE(expected["name"].asString());
    const Json::Value info = Info(AvbFixture(expected["package"].asString()));
    if (expected["hashtree"].isNull()) {
      EXPECT_FALSE(info.isMember("hashtree"));
      EXPECT_TRUE(Contains(info["problems"][0].asString(), "no hashtree descriptor"));
    } else {
      for (const auto& key : expected["hashtree"].getMemberNames()) {
        EXPECT_EQ(info["hashtree"][key], expected["hashtree"][key]) << key;
      }
    }
    for (const auto& member : expected["zip_members"].getMemberNames()) {
      const Json::Value& want = expected["zip_members"][member];
      const Json::Value& got = info["zip_members"][member];
      for (const char* field : {"data_offset", "uncompressed_size", "method", "crc32"}) {
        EXPECT_EQ(got[field], want[field]) << member << " " << field;
      }
    }
    EXPECT_EQ(info["image"]["size"].asUInt64(), expected["image_size"].asUInt64());
    EXPECT_EQ(info["config"]["values"]["update_package_name"], expected["config_package_name"]);
    EXPECT_EQ(info["footer"]["vbmeta_size"].asString(),
              expected["avbcheck"]["footer_vbmeta_size"].asString());
  }
}

TEST(Info, TextNamesTheVerityTablesAndAlgorithm) {
  const ProgramRun run = RunTool({"info", AvbFixture("pkgs/valid_sha512.zip")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "SHA512_RSA4096"));
  for (const auto& key : {"expected_verity_table_trial", "expected_verity_table_real"}) {
    const std::string table = android::base::StringReplace(
        ManifestPackage("valid_sha512")[key].asString(), "<loop>", "DEV", true);
    EXPECT_TRUE(Contains(run.out, table)) << table;
  }
}

TEST(Info, FailsOnFilesThatAreNoPackage) {
  TempDir dir;
  WriteWholeFile(dir / "junk.zip", "this is no zip");
  const ProgramRun junk = RunTool({"info", dir / "junk.zip"});
  EXPECT_EQ(junk.exit_code, 1);
  EXPECT_TRUE(Contains(junk.err, "is not a readable zip")) << junk.err;
  // A zip whose image has no AVB footer: described, but exit 1.
  ASSERT_EQ(RunProgram({"sh", "-c", "cd " + dir.path() +
                                        " && head -c 8192 /dev/zero > update_payload.img"
                                        " && echo update_package_name=x > config.txt"
                                        " && zip -q -0 plain.zip config.txt update_payload.img"})
                .exit_code,
            0);
  const ProgramRun plain = RunTool({"info", "--json", dir / "plain.zip"});
  EXPECT_EQ(plain.exit_code, 1);
  EXPECT_TRUE(Contains(ParseJson(plain.out)["problems"].toStyledString(), "no AVB footer"));
}

// The manifest states the engine's outcome for the package on the device;
// verify gives the same text naming the package where it lies.
TEST(Verify, EachFixtureReachesItsStatedOutcome) {
  for (const Json::Value& package : ManifestPackages()) {
    const std::string name = package["name"].asString();
    SCOPED_TRACE(name);
    const std::string path = AvbFixture(package["package"].asString());
    const ProgramRun run = RunTool(
        {"verify", "--json", "--key", AvbFixture("keys/" + package["key"].asString() + ".avbpubkey"),
         path});
    const Json::Value result = ParseJson(run.out);
    ASSERT_TRUE(result.isObject()) << run.out << run.err;
    const std::string engine = android::base::StringReplace(
        package["expected"]["part41"].asString(), "/data/rvx/imgs/" + name + ".zip", path, true);
    const bool avb_ok = android::base::StartsWith(engine, "success");
    EXPECT_EQ(result["avb"]["ok"].asBool(), avb_ok);
    if (!avb_ok) {
      EXPECT_EQ(result["avb"]["error"].asString(), engine);
      EXPECT_TRUE(Contains(run.err, engine)) << run.err;
    }
    const bool accepted = package["expect"].asString() == "accept";
    EXPECT_EQ(result["ok"].asBool(), accepted);
    EXPECT_EQ(run.exit_code, accepted ? 0 : 1) << run.out;
    if (accepted) {
      EXPECT_EQ(result["hash_tree"]["data_blocks"].asUInt64(), 1024u);
    }
  }
}

TEST(Verify, CorruptFixtureFailsTheTreeButPassesAvb) {
  const ProgramRun run = RunTool({"verify", "--json", "--key", AvbFixture("keys/rsa2048.avbpubkey"),
                                  AvbFixture("pkgs/data_corrupt.zip")});
  const Json::Value result = ParseJson(run.out);
  EXPECT_TRUE(result["avb"]["ok"].asBool());
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "data");
  EXPECT_EQ(bad["index"].asUInt64(), 13u);
  EXPECT_EQ(bad["image_offset"].asUInt64(), 53248u);
  EXPECT_FALSE(bad["zero_at_signing"].asBool());
  EXPECT_TRUE(Contains(bad["description"].asString(), "a dm-verity read of it fails")) << bad;
  EXPECT_EQ(result["failure"], bad["description"]);
}

// valid_2048 with one image byte changed after signing: a flip in the hash
// tree passes AVB and is named by block and level; a flip in the signed
// metadata fails in the daemon's code before the tree is looked at.
TEST(Verify, NamesWhatChangedAfterSigning) {
  TempDir dir;
  const std::string path = dir / "changed.zip";
  const std::string original = AvbFixture("pkgs/valid_2048.zip");
  const Json::Value info = Info(original);
  auto verify_with_flip = [&](uint64_t image_byte) {
    std::filesystem::copy_file(original, path, std::filesystem::copy_options::overwrite_existing);
    FlipByte(path, info["image"]["offset"].asUInt64() + image_byte);
    const ProgramRun run =
        RunTool({"verify", "--json", "--key", AvbFixture("keys/rsa2048.avbpubkey"), path});
    EXPECT_EQ(run.exit_code, 1) << run.out;
    return ParseJson(run.out);
  };

  // The last tree block belongs to level 0, the level of data-block digests.
  const uint64_t last_tree_block =
      info["hashtree"]["tree_offset"].asUInt64() + info["hashtree"]["tree_size"].asUInt64() - 4096;
  Json::Value result = verify_with_flip(last_tree_block + 10);
  EXPECT_TRUE(result["avb"]["ok"].asBool());
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "hash");
  EXPECT_EQ(bad["level"].asUInt(), 0u);
  EXPECT_EQ(bad["image_offset"].asUInt64(), last_tree_block);

  // Inside the signed auxiliary block, after the 256-byte header and the
  // 320-byte authentication block.
  result = verify_with_flip(info["footer"]["vbmeta_offset"].asUInt64() + 600);
  EXPECT_EQ(result["avb"]["error"].asString(), "Error verifying " + path + ": HASH_MISMATCH");
  EXPECT_FALSE(result["hash_tree"]["checked"].asBool());
}

TEST(Verify, WithoutAKeyChecksTheEmbeddedOne) {
  // Signed with a key the device would not trust, but intact and
  // consistent: that is all a check without --key can say.
  const ProgramRun run = RunTool({"verify", AvbFixture("pkgs/wrong_key.zip")});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
  EXPECT_TRUE(Contains(run.out, "embedded in the package")) << run.out;
  const ProgramRun unsigned_run = RunTool({"verify", AvbFixture("pkgs/unsigned.zip")});
  EXPECT_EQ(unsigned_run.exit_code, 1);
  EXPECT_TRUE(Contains(unsigned_run.out, "Error verifying " + AvbFixture("pkgs/unsigned.zip") +
                                             ": OK_NOT_SIGNED"))
      << unsigned_run.out;
}

TEST(Verify, AcceptsAPemKeyAndRefusesAMalformedBlob) {
  const ProgramRun pem = RunTool(
      {"verify", "--key", AvbFixture("keys/rsa4096.pem"), AvbFixture("pkgs/valid_sha512.zip")});
  EXPECT_EQ(pem.exit_code, 0) << pem.out << pem.err;
  TempDir dir;
  WriteWholeFile(dir / "short.blob",
                 ReadWholeFile(AvbFixture("keys/rsa2048.avbpubkey")).substr(0, 100));
  const ProgramRun bad =
      RunTool({"verify", "--key", dir / "short.blob", AvbFixture("pkgs/valid_2048.zip")});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_TRUE(Contains(bad.err, "neither a PEM key nor a public key blob")) << bad.err;
}

}  // namespace
}  // namespace mend_test
