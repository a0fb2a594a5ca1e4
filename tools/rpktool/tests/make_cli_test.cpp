// `rpktool make` and `extract-public-key` end to end: packages for every key
// size and digest verify with our verifier and with veritysetup, hold a
// sound ext4 filesystem with the source files, and obey the options.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tool_test_util.h"

namespace mend_test {
namespace {

// Builds a package of the sample tree; returns the run.
ProgramRun Make(const TempDir& dir, const std::string& key, const std::string& output,
             std::vector<std::string> extra = {}, const std::vector<std::string>& env = {}) {
  if (access((dir / "config.txt").c_str(), F_OK) != 0) WriteWholeFile(dir / "config.txt", PackageConfig("demo_fix1"));
  if (access((dir / "root").c_str(), F_OK) != 0) MakeSampleTree(dir);
  std::vector<std::string> args = {"make", "--config", dir / "config.txt", "--root", dir / "root",
                                   "--key", key, "--output", output};
  args.insert(args.end(), extra.begin(), extra.end());
  return RunTool(args, env);
}

// veritysetup's own check of the image with the parameters info prints.
void ExpectVeritysetupAccepts(const TempDir& dir, const std::string& package) {
  const Json::Value tree = Info(package)["hashtree"];
  const std::string image = dir / "image.raw";
  ExtractImage(package, image);
  ProgramRun run = RunProgram(
      {"veritysetup", "verify", image, image, tree["root_digest"].asString(),
       "--hash-offset=" + tree["tree_offset"].asString(), "--no-superblock", "--format=1",
       "--data-block-size=" + tree["data_block_size"].asString(),
       "--hash-block-size=" + tree["hash_block_size"].asString(),
       "--data-blocks=" + tree["num_data_blocks"].asString(),
       "--hash=" + tree["hash_algorithm"].asString(), "--salt=" + tree["salt"].asString()});
  EXPECT_EQ(run.exit_code, 0) << run.out;
}

TEST(ExtractPublicKey, ReproducesTheFixtureBlobs) {
  TempDir dir;
  for (const std::string name : {"rsa2048", "rsa4096"}) {
    const std::string out = dir / (name + ".blob");
    ProgramRun run = RunTool({"extract-public-key", "--key", AvbFixture("keys/" + name + ".pem"),
                           "--output", out});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_TRUE(ReadWholeFile(out) == ReadWholeFile(AvbFixture("keys/" + name + ".avbpubkey"))) << name;
  }
  // The public half alone gives the same blob, here on standard output.
  ProgramRun pub = RunProgram({"openssl", "rsa", "-in", AvbFixture("keys/rsa2048.pem"), "-pubout",
                            "-out", dir / "public.pem"});
  ASSERT_EQ(pub.exit_code, 0) << pub.out;
  ProgramRun run = RunTool({"extract-public-key", "--key", dir / "public.pem", "--output", "-"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(run.out == ReadWholeFile(AvbFixture("keys/rsa2048.avbpubkey")));
}

TEST(ExtractPublicKey, WritesNothingForAFileThatIsNoPemKey) {
  TempDir dir;
  const ProgramRun run = RunTool(
      {"extract-public-key", "--key", AvbFixture("keys/rsa2048.avbpubkey"), "--output", dir / "x"});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(Contains(run.err, "no PEM")) << run.err;
  EXPECT_NE(access((dir / "x").c_str(), F_OK), 0) << "nothing written on failure";
}

struct Signing {
  unsigned bits;
  const char* algorithm;
  const char* tree_hash;
};

void PrintTo(const Signing& signing, std::ostream* out) { *out << signing.algorithm; }

class MakeEachAlgorithm : public ::testing::TestWithParam<Signing> {};

TEST_P(MakeEachAlgorithm, PackageVerifiesAndVeritysetupAgrees) {
  const Signing& s = GetParam();
  TempDir dir;
  const std::string key = s.bits == 4096 ? AvbFixture("keys/rsa4096.pem") : TestKey(s.bits);
  const std::string package = dir / "pkg.zip";
  ProgramRun made = Make(dir, key, package, {"--algorithm", s.algorithm});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  // A clean config gives no warnings; a tree made by an ordinary user gets
  // the one about owners.
  if (getuid() == 0) {
    EXPECT_EQ(made.err, "");
  } else {
    EXPECT_FALSE(Contains(made.err, "error")) << made.err;
  }

  const Json::Value info = Info(package);
  EXPECT_EQ(info["vbmeta"]["algorithm"].asString(), s.algorithm);
  EXPECT_EQ(info["vbmeta"]["required_libavb_version"].asString(), "1.0");
  EXPECT_EQ(info["public_key"]["bits"].asUInt(), s.bits);
  EXPECT_EQ(info["hashtree"]["hash_algorithm"].asString(), s.tree_hash);
  EXPECT_EQ(info["hashtree"]["salt"].asString().size(), std::string(s.tree_hash) == "sha512" ? 128u : 64u);
  EXPECT_EQ(info["image"]["offset"].asUInt64() % 4096, 0u);
  EXPECT_TRUE(info["image"]["stored"].asBool());
  EXPECT_EQ(info["problems"].size(), 0u) << info["problems"];
  // Footer in the last 64 bytes; vbmeta right after the tree.
  EXPECT_EQ(info["footer"]["vbmeta_offset"].asUInt64(),
            info["hashtree"]["tree_offset"].asUInt64() + info["hashtree"]["tree_size"].asUInt64());

  ProgramRun verified = RunTool({"verify", "--key", ExtractKeyBlob(dir, key), package});
  EXPECT_EQ(verified.exit_code, 0) << verified.out << verified.err;
  EXPECT_TRUE(Contains(verified.out, "result:     OK")) << verified.out;
  ExpectVeritysetupAccepts(dir, package);
}

INSTANTIATE_TEST_SUITE_P(
    KeySizesAndDigests, MakeEachAlgorithm,
    ::testing::Values(Signing{2048, "SHA256_RSA2048", "sha256"},
                      Signing{2048, "SHA512_RSA2048", "sha512"},
                      Signing{4096, "SHA256_RSA4096", "sha256"},
                      Signing{4096, "SHA512_RSA4096", "sha512"},
                      Signing{8192, "SHA256_RSA8192", "sha256"},
                      Signing{8192, "SHA512_RSA8192", "sha512"}),
    [](const ::testing::TestParamInfo<Signing>& info) { return std::string(info.param.algorithm); });

TEST(Make, ImageIsASoundExt4FilesystemWithTheSourceFiles) {
  TempDir dir;
  const std::string package = dir / "pkg.zip";
  ProgramRun made = Make(dir, AvbFixture("keys/rsa2048.pem"), package);
  ASSERT_EQ(made.exit_code, 0) << made.err;
  const Json::Value info = Info(package);
  EXPECT_EQ(info["vbmeta"]["algorithm"].asString(), "SHA256_RSA2048") << "default from key size";
  ExtractImage(package, dir / "image.raw");
  const uint64_t fs_size = info["footer"]["original_image_size"].asUInt64();
  WriteWholeFile(dir / "fs.img", ReadWholeFile(dir / "image.raw").substr(0, fs_size));
  ProgramRun fsck = RunProgram({"e2fsck", "-fn", dir / "fs.img"});
  EXPECT_EQ(fsck.exit_code, 0) << fsck.out;
  ProgramRun cat = RunProgram({"debugfs", "-R", "cat /system/lib64/libfix.so", dir / "fs.img"});
  EXPECT_TRUE(Contains(cat.out, ReadWholeFile(dir / "root/system/lib64/libfix.so")));
  ProgramRun link = RunProgram({"debugfs", "-R", "stat /system/app/libfix_link.so", dir / "fs.img"});
  EXPECT_TRUE(Contains(link.out, "../lib64/libfix.so")) << link.out;
  ProgramRun features = RunProgram({"dumpe2fs", "-h", dir / "fs.img"});
  EXPECT_FALSE(Contains(features.out, "has_journal"));
  EXPECT_TRUE(Contains(features.out, "Block size:               4096"));
  // config.txt is stored as given.
  EXPECT_TRUE(Contains(made.out, "root digest: " + info["hashtree"]["root_digest"].asString()));
}

TEST(Make, ManyFilesAndALargeFileFitTheAutomaticSize) {
  TempDir dir;
  std::filesystem::create_directories(dir / "root/system/many");
  for (int i = 0; i < 1500; ++i) {
    WriteWholeFile(dir / ("root/system/many/file_with_a_long_name_" + std::to_string(i)),
              std::string(i % 7 == 0 ? 5000 : 10, 'x'));
  }
  WriteWholeFile(dir / "root/system/big.bin", std::string(6 << 20, 'b'));
  WriteWholeFile(dir / "config.txt", PackageConfig("demo_fix1"));
  ProgramRun made = Make(dir, AvbFixture("keys/rsa2048.pem"), dir / "pkg.zip");
  ASSERT_EQ(made.exit_code, 0) << made.err;
  ProgramRun verified = RunTool({"verify", dir / "pkg.zip"});
  EXPECT_EQ(verified.exit_code, 0) << verified.out;
}

TEST(Make, PartitionSizeIsExactAndMustLeaveRoom) {
  TempDir dir;
  const std::string key = AvbFixture("keys/rsa2048.pem");
  ProgramRun made = Make(dir, key, dir / "pkg.zip", {"--partition-size", "3M"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  const Json::Value info = Info(dir / "pkg.zip");
  EXPECT_EQ(info["image"]["size"].asUInt64(), 3u << 20);
  // The filesystem takes what the tree, vbmeta block and footer block leave.
  const uint64_t vbmeta_offset = info["footer"]["vbmeta_offset"].asUInt64();
  EXPECT_LE(vbmeta_offset + 2 * 4096, 3u << 20);
  EXPECT_GT(vbmeta_offset + 2 * 4096 + 3 * 4096, 3u << 20);

  ProgramRun too_small = Make(dir, key, dir / "small.zip", {"--partition-size", "256K"});
  EXPECT_EQ(too_small.exit_code, 1);
  EXPECT_TRUE(Contains(too_small.err, "does not fit the partition size")) << too_small.err;
  ProgramRun unaligned = Make(dir, key, dir / "odd.zip", {"--partition-size", "3000000"});
  EXPECT_EQ(unaligned.exit_code, 1);
  EXPECT_TRUE(Contains(unaligned.err, "multiple of 4096")) << unaligned.err;
  ProgramRun garbage = Make(dir, key, dir / "odd.zip", {"--partition-size", "3Q"});
  EXPECT_EQ(garbage.exit_code, 2);
}

TEST(Make, FixedTimeAndSaltRebuildByteForByte) {
  TempDir dir;
  const std::string key = AvbFixture("keys/rsa2048.pem");
  const std::string salt = std::string(62, 'a') + "01";
  const std::vector<std::string> env = {"SOURCE_DATE_EPOCH=1704067200"};
  ASSERT_EQ(Make(dir, key, dir / "a.zip", {"--salt", salt}, env).exit_code, 0);
  ASSERT_EQ(Make(dir, key, dir / "b.zip", {"--salt", salt}, env).exit_code, 0);
  EXPECT_TRUE(ReadWholeFile(dir / "a.zip") == ReadWholeFile(dir / "b.zip"));
  EXPECT_EQ(Info(dir / "a.zip")["hashtree"]["salt"].asString(), salt);
  // Without a fixed salt the salt is drawn afresh.
  ASSERT_EQ(Make(dir, key, dir / "c.zip").exit_code, 0);
  ASSERT_EQ(Make(dir, key, dir / "d.zip").exit_code, 0);
  EXPECT_NE(Info(dir / "c.zip")["hashtree"]["salt"], Info(dir / "d.zip")["hashtree"]["salt"]);
}

TEST(Make, RefusesBadInputsWithoutTouchingTheOutput) {
  TempDir dir;
  const std::string key = AvbFixture("keys/rsa2048.pem");
  const std::string output = dir / "pkg.zip";
  WriteWholeFile(output, "previous package");
  struct Case {
    std::vector<std::string> extra;
    std::string words;
    int exit_code;
  };
  for (const Case& c : std::vector<Case>{
           {{"--algorithm", "SHA256_RSA4096"}, "needs a 4096-bit key", 1},
           {{"--algorithm", "MD5_RSA2048"}, "unknown algorithm", 1},
           {{"--algorithm", "NONE"}, "unknown algorithm", 1},
           {{"--salt", "abc"}, "odd number", 2},
           {{"--salt", "zz"}, "not a hex digit", 2},
           {{"--bogus"}, "unknown option --bogus", 2},
       }) {
    ProgramRun run = Make(dir, key, output, c.extra);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.words;
    EXPECT_TRUE(Contains(run.err, c.words)) << c.words << " not in: " << run.err;
  }
  ProgramRun no_root = RunTool({"make", "--config", dir / "config.txt", "--root", dir / "nowhere",
                             "--key", key, "--output", output});
  EXPECT_EQ(no_root.exit_code, 1);
  EXPECT_TRUE(Contains(no_root.err, "nowhere")) << no_root.err;

  WriteWholeFile(dir / "bad.txt", "update_package_name=x\nupdate_version_code=abc\nmodule_path=/a\n"
                             "ro_build_display_id=B\n");
  ProgramRun bad_config = RunTool({"make", "--config", dir / "bad.txt", "--root", dir / "root",
                                "--key", key, "--output", output});
  EXPECT_EQ(bad_config.exit_code, 1);
  EXPECT_TRUE(Contains(bad_config.err, "error: update_version_code='abc' is not a number"))
      << bad_config.err;
  EXPECT_EQ(ReadWholeFile(output), "previous package");

  ProgramRun forced = RunTool({"make", "--config", dir / "bad.txt", "--root", dir / "root", "--key",
                            key, "--output", output, "--force"});
  EXPECT_EQ(forced.exit_code, 0) << forced.err;
  EXPECT_NE(ReadWholeFile(output), "previous package");
  ProgramRun listing = RunProgram({"ls", "-a", dir.path()});
  EXPECT_FALSE(Contains(listing.out, ".tmp-")) << "no temporary files left: " << listing.out;
}

TEST(Make, WarnsAboutFilesNotOwnedByRoot) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to give a file another owner";
  TempDir dir;
  MakeSampleTree(dir);
  ASSERT_EQ(chown((dir / "root/system/app/Demo/Demo.txt").c_str(), 1000, 1000), 0);
  ProgramRun run = Make(dir, AvbFixture("keys/rsa2048.pem"), dir / "pkg.zip");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_TRUE(Contains(run.err, "not owned by root")) << run.err;
}

TEST(Cli, VerbsHelpAndUsageErrors) {
  for (const std::string verb : {"make", "extract-public-key", "info", "verify"}) {
    const ProgramRun help = RunTool({verb, "--help"});
    EXPECT_EQ(help.exit_code, 0) << verb;
    EXPECT_TRUE(Contains(help.out, "usage: rpktool " + verb)) << help.out;
  }
  struct Case {
    std::vector<std::string> args;
    std::string words;
  } cases[] = {
      {{}, "usage: rpktool VERB"},
      {{"frobnicate"}, "unknown verb 'frobnicate'"},
      {{"extract-public-key", "--key", AvbFixture("keys/rsa2048.pem")}, "--output is required"},
      {{"info"}, "ZIP is required"},
      {{"info", "a.zip", "b.zip"}, "unexpected argument 'b.zip'"},
  };
  for (const Case& c : cases) {
    const ProgramRun run = RunTool(c.args);
    EXPECT_EQ(run.exit_code, 2) << c.words;
    EXPECT_TRUE(Contains(run.err, c.words)) << run.err;
  }
}

}  // namespace
}  // namespace mend_test
