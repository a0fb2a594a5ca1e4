// `info` and `verify` on the reference packages and on edited copies:
// the values info reports equal the manifest's, verify reaches each
// package's stated outcome with the daemon's own error texts, and info and
// verify accept exactly the same images.

#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "avb_builder.h"
#include "tool_test_util.h"

namespace mend_test {
namespace {

namespace fs = std::filesystem;

std::string TrustedBlob() { return AvbFixture("keys/rsa2048.avbpubkey"); }

TEST(Info, ReportsTheManifestValuesOfEveryFixture) {
  ASSERT_GE(ManifestPackages().size(), 6u);
  for (const Json::Value& expected : ManifestPackages()) {
    SCOPED_TRACE(expected["name"].asString());
    const ProgramRun run = RunTool({"info", "--json", AvbFixture(expected["package"].asString())});
    const Json::Value info = ParseJson(run.out);
    for (const auto& key : expected["hashtree"].getMemberNames()) {
      EXPECT_EQ(info["hashtree"][key], expected["hashtree"][key]) << key;
    }
    for (const auto& member : expected["zip_members"].getMemberNames()) {
      for (const char* field : {"data_offset", "uncompressed_size", "method", "crc32"}) {
        EXPECT_EQ(info["zip_members"][member][field], expected["zip_members"][member][field])
            << member << " " << field;
      }
    }
    EXPECT_EQ(info["config"]["values"]["update_package_name"], expected["config_package_name"]);
    EXPECT_EQ(info["footer"]["vbmeta_size"].asString(),
              expected["avbcheck"]["footer_vbmeta_size"].asString());
    // Refused by the daemon before any data is read: only unsigned packages
    // and those without a hashtree descriptor (the key is the package's own).
    const std::string name = expected["name"].asString();
    EXPECT_EQ(run.exit_code, name == "unsigned" || name == "hash_descriptor_only" ? 1 : 0)
        << run.err;
  }
}

// The manifest states the engine's outcome for the package on the device;
// verify gives the same text naming the package where it lies.
TEST(Verify, EachFixtureReachesItsStatedOutcome) {
  for (const Json::Value& package : ManifestPackages()) {
    const std::string name = package["name"].asString();
    SCOPED_TRACE(name);
    const std::string path = AvbFixture(package["package"].asString());
    const ProgramRun run =
        RunTool({"verify", "--json", "--key",
                 AvbFixture("keys/" + package["key"].asString() + ".avbpubkey"), path});
    const Json::Value result = ParseJson(run.out);
    ASSERT_TRUE(result.isObject()) << run.out << run.err;
    const std::string engine = android::base::StringReplace(
        package["expected"]["part41"].asString(), "/data/rvx/imgs/" + name + ".zip", path, true);
    const bool avb_ok = android::base::StartsWith(engine, "success");
    EXPECT_EQ(result["avb"]["ok"].asBool(), avb_ok);
    if (!avb_ok) {
      EXPECT_EQ(result["avb"]["error"].asString(), engine);
    }
    const bool accepted = package["expect"].asString() == "accept";
    EXPECT_EQ(result["ok"].asBool(), accepted);
    EXPECT_EQ(run.exit_code, accepted ? 0 : 1) << run.out;
    if (!accepted) {
      EXPECT_EQ(result["error"]["kind"].asString(), "verification");
    }
  }
  const Json::Value corrupt = ParseJson(
      RunTool({"verify", "--json", "--key", TrustedBlob(), AvbFixture("pkgs/data_corrupt.zip")})
          .out);
  const Json::Value& bad = corrupt["hash_tree"]["bad_block"];
  EXPECT_EQ(bad["kind"].asString(), "data");
  EXPECT_EQ(bad["index"].asUInt64(), 13u);
  EXPECT_FALSE(bad["zero_at_signing"].asBool());
  EXPECT_EQ(corrupt["failure"], bad["description"]);
}

TEST(Verify, TakesTheEmbeddedKeyAPemKeyOrABlob) {
  // Signed with a key the device would not trust, but intact and
  // consistent: that is all a check without --key can say.
  EXPECT_EQ(RunTool({"verify", AvbFixture("pkgs/wrong_key.zip")}).exit_code, 0);
  EXPECT_EQ(RunTool({"verify", "--key", AvbFixture("keys/rsa4096.pem"),
                     AvbFixture("pkgs/valid_sha512.zip")})
                .exit_code,
            0);
  TempDir dir;
  WriteWholeFile(dir / "short.blob", ReadWholeFile(TrustedBlob()).substr(0, 100));
  const ProgramRun bad =
      RunTool({"verify", "--key", dir / "short.blob", AvbFixture("pkgs/valid_2048.zip")});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_TRUE(Contains(bad.err, "neither a PEM key nor a public key blob")) << bad.err;
}

// Copies of valid_2048 with one part of the signed metadata changed (and
// re-signed where the signature covers it): info and verify (without a
// key) must agree on each, and with the device.
TEST(InfoAndVerify, AcceptExactlyTheSameImages) {
  TempDir dir;
  const std::string original = AvbFixture("pkgs/valid_2048.zip");
  const Json::Value info = Info(original);
  const uint64_t image = info["image"]["offset"].asUInt64();
  const uint64_t footer = image + info["image"]["size"].asUInt64() - 64;
  const uint64_t vbmeta_at = image + info["footer"]["vbmeta_offset"].asUInt64();
  const std::string block = ReadWholeFile(original).substr(vbmeta_at, 1408);
  const std::string hashtree = block.substr(LayoutOf(block).aux_offset, 264);

  // Writes `bytes` at `offset` of a fresh copy; a vbmeta block also gets
  // its size into the footer.
  auto edited = [&](uint64_t offset, const std::string& bytes) {
    const std::string path = dir / "edited.zip";
    std::string zip = ReadWholeFile(original);
    zip.replace(offset, bytes.size(), bytes);
    if (offset == vbmeta_at) {
      std::string size(8, '\0');
      StoreBe64(&size, 0, bytes.size());
      zip.replace(footer + 28, 8, size);
    }
    WriteWholeFile(path, zip);
    return path;
  };
  std::string unaligned = DescriptorBytes(0, "x");
  StoreBe64(&unaligned, 8, 12);
  std::string overlong = hashtree;
  StoreBe32(&overlong, kSaltLenOffset, 0xfffffff0);
  struct Case {
    const char* what;
    uint64_t offset;
    std::string bytes;
    bool accepted;
  } cases[] = {
      {"footer version 1.7", footer + 8, std::string("\0\0\0\x07", 4), true},
      {"footer version 2.0", footer + 4, std::string("\0\0\0\x02", 4), false},
      {"vbmeta larger than the daemon reads", footer + 28, std::string("\0\0\0\0\0\x01\0\x01", 8),
       false},
      {"a bad descriptor after the hashtree", vbmeta_at, SignedVbmeta(hashtree + unaligned), true},
      {"hashtree lengths beyond the descriptor", vbmeta_at, SignedVbmeta(overlong), false},
      {"not signed", vbmeta_at, UnsignedVbmeta(hashtree), false},
  };
  for (const Case& c : cases) {
    const std::string path = edited(c.offset, c.bytes);
    const ProgramRun shown = RunTool({"info", path});
    const ProgramRun verified = RunTool({"verify", path});
    EXPECT_EQ(shown.exit_code, c.accepted ? 0 : 1) << c.what << shown.err;
    EXPECT_EQ(verified.exit_code, c.accepted ? 0 : 1) << c.what << verified.err;
  }
}

}  // namespace
}  // namespace mend_test
