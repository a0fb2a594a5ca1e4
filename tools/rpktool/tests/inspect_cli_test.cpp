// `info` and `verify` on the fixture packages: the hash tree parameters
// info reports equal the manifest's values, and verify reaches each
// package's stated outcome with the daemon's own error texts.

#include <gtest/gtest.h>

#include "tool_test_util.h"

namespace rpktool_test {
namespace {

bool Contains(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

const Json::Value& Manifest() {
  static const Json::Value manifest = ParseJson(ReadFile(FixturePath("manifest.json")));
  return manifest;
}

TEST(Info, ReportsTheManifestValuesOfEveryFixture) {
  ASSERT_GE(Manifest()["packages"].size(), 6u);
  for (const Json::Value& expected : Manifest()["packages"]) {
    const std::string name = expected["name"].asString();
    SCOPED_TRACE(name);
    const Json::Value info = Info(FixturePath(expected["package"].asString()));
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
    EXPECT_EQ(info["config"]["values"]["update_package_name"],
              expected["config_package_name"]);
    EXPECT_EQ(info["footer"]["vbmeta_size"].asString(),
              expected["avbcheck"]["footer_vbmeta_size"].asString());
  }
}

TEST(Info, TextNamesTheVerityTablesAndAlgorithm) {
  ToolRun run = RunTool({"info", FixturePath("pkgs/valid_sha512.zip")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "SHA512_RSA4096"));
  for (const auto& key : {"expected_verity_table_trial", "expected_verity_table_real"}) {
    std::string table = Manifest()["packages"][1][key].asString();
    for (size_t at; (at = table.find("<loop>")) != std::string::npos;) table.replace(at, 6, "DEV");
    EXPECT_TRUE(Contains(run.out, table)) << table;
  }
}

TEST(Info, FailsOnFilesThatAreNoPackage) {
  ScratchDir dir;
  WriteFile(dir / "junk.zip", "this is no zip");
  ToolRun junk = RunTool({"info", dir / "junk.zip"});
  EXPECT_EQ(junk.exit_code, 1);
  EXPECT_TRUE(Contains(junk.err, "is not a readable zip")) << junk.err;
  // A zip whose image has no AVB footer: described, but exit 1.
  ASSERT_EQ(RunProgram({"sh", "-c", "cd " + dir.path() +
                                        " && head -c 8192 /dev/zero > update_payload.img"
                                        " && echo update_package_name=x > config.txt"
                                        " && zip -q -0 plain.zip config.txt update_payload.img"})
                .exit_code,
            0);
  ToolRun plain = RunTool({"info", "--json", dir / "plain.zip"});
  EXPECT_EQ(plain.exit_code, 1);
  EXPECT_TRUE(Contains(ParseJson(plain.out)["problems"].toStyledString(), "no AVB footer"));
  EXPECT_EQ(RunTool({"info"}).exit_code, 2);
  EXPECT_EQ(RunTool({"info", "a.zip", "b.zip"}).exit_code, 2);
}

struct Outcome {
  const char* package;
  const char* key;
  const char* words;  // in the failure; null for success
};

TEST(Verify, EachFixtureReachesItsStatedOutcome) {
  for (const Outcome& o : {
           Outcome{"valid_2048", "rsa2048", nullptr},
           Outcome{"valid_sha512", "rsa4096", nullptr},
           Outcome{"wrong_key", "rsa2048",
                   " : public key doesn't match the pre-installed one"},
           Outcome{"unsigned", "rsa2048", ": OK_NOT_SIGNED"},
           Outcome{"hash_descriptor_only", "rsa2048", "Couldn't find any AVB hashtree descriptors."},
           Outcome{"data_corrupt", "rsa2048", "data block 13 "},
       }) {
    SCOPED_TRACE(o.package);
    const std::string package = FixturePath(std::string("pkgs/") + o.package + ".zip");
    ToolRun run = RunTool({"verify", "--json", "--key",
                           FixturePath(std::string("keys/") + o.key + ".avbpubkey"), package});
    const Json::Value result = ParseJson(run.out);
    ASSERT_TRUE(result.isObject()) << run.out << run.err;
    if (o.words == nullptr) {
      EXPECT_EQ(run.exit_code, 0) << run.out;
      EXPECT_TRUE(result["ok"].asBool());
      EXPECT_EQ(result["hash_tree"]["data_blocks"].asUInt64(), 1024u);
      continue;
    }
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_FALSE(result["ok"].asBool());
    EXPECT_TRUE(Contains(result["failure"].asString(), o.words)) << result["failure"];
    EXPECT_TRUE(Contains(run.err, o.words)) << run.err;
  }
}

TEST(Verify, DaemonTextNamesThePackagePath) {
  ToolRun run = RunTool({"verify", "--key", FixturePath("keys/rsa2048.avbpubkey"),
                         FixturePath("pkgs/unsigned.zip")});
  EXPECT_TRUE(Contains(run.out, "Error verifying " + FixturePath("pkgs/unsigned.zip") +
                                    ": OK_NOT_SIGNED"))
      << run.out;
}

TEST(Verify, CorruptFixtureFailsTheTreeButPassesAvb) {
  ToolRun run = RunTool({"verify", "--json", "--key", FixturePath("keys/rsa2048.avbpubkey"),
                         FixturePath("pkgs/data_corrupt.zip")});
  const Json::Value result = ParseJson(run.out);
  EXPECT_TRUE(result["avb"]["ok"].asBool());
  const Json::Value& bad = result["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "data");
  EXPECT_EQ(bad["index"].asUInt64(), 13u);
  EXPECT_EQ(bad["image_offset"].asUInt64(), 53248u);
  EXPECT_FALSE(bad["zero_at_signing"].asBool());
}

TEST(Verify, WithoutAKeyChecksTheEmbeddedOne) {
  // Signed with a key the device would not trust, but intact and
  // consistent: that is all a check without --key can say.
  ToolRun run = RunTool({"verify", FixturePath("pkgs/wrong_key.zip")});
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
  EXPECT_TRUE(Contains(run.out, "embedded in the package")) << run.out;
  ToolRun unsigned_run = RunTool({"verify", FixturePath("pkgs/unsigned.zip")});
  EXPECT_EQ(unsigned_run.exit_code, 1);
  EXPECT_TRUE(Contains(unsigned_run.out, "OK_NOT_SIGNED")) << unsigned_run.out;
}

TEST(Verify, AcceptsAPemKeyAndRefusesAMalformedBlob) {
  ToolRun pem = RunTool({"verify", "--key", FixturePath("keys/rsa4096.pem"),
                         FixturePath("pkgs/valid_sha512.zip")});
  EXPECT_EQ(pem.exit_code, 0) << pem.out << pem.err;
  ScratchDir dir;
  WriteFile(dir / "short.blob", ReadFile(FixturePath("keys/rsa2048.avbpubkey")).substr(0, 100));
  ToolRun bad = RunTool({"verify", "--key", dir / "short.blob", FixturePath("pkgs/valid_2048.zip")});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_TRUE(Contains(bad.err, "neither a PEM key nor a public key blob")) << bad.err;
}

}  // namespace
}  // namespace rpktool_test
