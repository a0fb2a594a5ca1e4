// `rpktool make` and `extract-public-key` end to end: packages for every key
// size and digest verify with our verifier and with veritysetup; what would
// hurt the user or the device is refused; rebuilds are byte-identical; the
// command line behaves.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "tool_test_util.h"

namespace mend_test {
namespace {

namespace fs = std::filesystem;

std::string Fixture2048() { return AvbFixture("keys/rsa2048.pem"); }

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

struct Signing {
  unsigned bits;
  const char* algorithm;
  const char* tree_hash;
};

class MakeEachAlgorithm : public ::testing::TestWithParam<Signing> {};

TEST_P(MakeEachAlgorithm, PackageVerifiesAndVeritysetupAgrees) {
  const Signing& s = GetParam();
  TempDir dir;
  MakeSampleInputs(dir);
  const std::string key = s.bits == 4096 ? AvbFixture("keys/rsa4096.pem") : TestKey(s.bits);
  const std::string package = dir / "pkg.zip";
  ProgramRun made =
      Make(dir, key, package, {"--algorithm", s.algorithm, "--owner", "0", "--group", "0"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  EXPECT_EQ(made.err, "") << "a clean config and tree give no warnings";

  const Json::Value info = Info(package);
  EXPECT_EQ(info["vbmeta"]["algorithm"].asString(), s.algorithm);
  EXPECT_EQ(info["public_key"]["bits"].asUInt(), s.bits);
  EXPECT_EQ(info["hashtree"]["hash_algorithm"].asString(), s.tree_hash);

  const std::string blob = dir / "key.blob";
  ASSERT_EQ(RunTool({"extract-public-key", "--key", key, "--output", blob}).exit_code, 0);
  ProgramRun verified = RunTool({"verify", "--key", blob, package});
  EXPECT_EQ(verified.exit_code, 0) << verified.out << verified.err;
  ExpectVeritysetupAccepts(dir, package);
}

INSTANTIATE_TEST_SUITE_P(KeySizesAndDigests, MakeEachAlgorithm,
                         ::testing::Values(Signing{2048, "SHA256_RSA2048", "sha256"},
                                           Signing{2048, "SHA512_RSA2048", "sha512"},
                                           Signing{4096, "SHA256_RSA4096", "sha256"},
                                           Signing{4096, "SHA512_RSA4096", "sha512"},
                                           Signing{8192, "SHA256_RSA8192", "sha256"},
                                           Signing{8192, "SHA512_RSA8192", "sha512"}),
                         [](const ::testing::TestParamInfo<Signing>& info) {
                           return std::string(info.param.algorithm);
                         });

// Two copies of a tree in different places, with different times and
// modes, give the same package with a fixed time and salt; owners, groups
// and modes come from the options, and the filesystem stays sound.
TEST(Make, FixedTimeAndOwnersGiveTheSameBytesWhereverTheTreeLies) {
  TempDir a, b;
  MakeSampleInputs(a);
  MakeSampleInputs(b);
  for (const auto& entry : fs::recursive_directory_iterator(b / "root")) {
    if (entry.is_symlink()) continue;
    fs::last_write_time(entry.path(), fs::file_time_type::clock::now() - std::chrono::hours(99));
    fs::permissions(entry.path(), fs::perms::group_write, fs::perm_options::add);
  }
  WriteWholeFile(a / "overrides",
                 "# path uid gid mode\n/system/app/Demo/Demo.txt 1000 2000 0750\n");
  const std::vector<std::string> options = {
      "--salt", "00ff",        "--owner", "0",           "--group",
      "0",      "--mode-mask", "022",     "--overrides", a / "overrides"};
  const std::vector<std::string> env = {"SOURCE_DATE_EPOCH=1704067200"};
  ASSERT_EQ(Make(a, Fixture2048(), a / "pkg.zip", options, env).exit_code, 0);
  ASSERT_EQ(Make(b, Fixture2048(), b / "pkg.zip", options, env).exit_code, 0);
  EXPECT_TRUE(ReadWholeFile(a / "pkg.zip") == ReadWholeFile(b / "pkg.zip"));

  ExtractImage(a / "pkg.zip", a / "image.raw");
  ASSERT_EQ(
      RunProgram({"truncate", "-s", Info(a / "pkg.zip")["footer"]["original_image_size"].asString(),
                  a / "image.raw"})
          .exit_code,
      0);
  ProgramRun fsck = RunProgram({"e2fsck", "-fn", a / "image.raw"});
  EXPECT_EQ(fsck.exit_code, 0) << fsck.out;
  ProgramRun cat = RunProgram({"debugfs", "-R", "cat /system/lib64/libfix.so", a / "image.raw"});
  EXPECT_TRUE(Contains(cat.out, ReadWholeFile(a / "root/system/lib64/libfix.so")));
  for (const auto& [path, fields] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"/system/app/Demo/Demo.txt", {"Mode:  0750", "User:  1000   Group:  2000"}},
           {"/system/app", {"Mode:  0755", "User:     0   Group:     0"}},
           {"/system/app/libfix_link.so", {"../lib64/libfix.so"}}}) {
    ProgramRun stat = RunProgram({"debugfs", "-R", "stat " + path, a / "image.raw"});
    for (const auto& field : fields) EXPECT_TRUE(Contains(stat.out, field)) << path << stat.out;
    EXPECT_TRUE(Contains(stat.out, "mtime: 0x65920080:00000000")) << path << stat.out;
  }
}

TEST(Make, PartitionSizeIsExactAndChecked) {
  TempDir dir;
  MakeSampleInputs(dir);
  ASSERT_EQ(Make(dir, Fixture2048(), dir / "pkg.zip", {"--partition-size", "3M"}).exit_code, 0);
  EXPECT_EQ(Info(dir / "pkg.zip")["image"]["size"].asUInt64(), 3u << 20);
  struct Case {
    std::string size;
    int exit_code;
    std::string words;
  };
  for (const Case& c : std::vector<Case>{{"256K", 1, "does not fit the partition size"},
                                         {"3000000", 2, "not a multiple of 4096"},
                                         {"18446744073709547520", 2, "a package can hold"},
                                         {"16777216G", 2, "a package can hold"},
                                         {"3Q", 2, "partition-size"}}) {
    ProgramRun run = Make(dir, Fixture2048(), dir / "small.zip", {"--partition-size", c.size});
    EXPECT_EQ(run.exit_code, c.exit_code) << c.size << run.err;
    EXPECT_TRUE(Contains(run.err, c.words)) << c.size << run.err;
  }
}

TEST(Make, ManyFilesAndALargeFileFitTheAutomaticSize) {
  TempDir dir;
  MakeSampleInputs(dir);
  for (int i = 0; i < 1500; ++i) {
    WriteWholeFile(dir / ("root/system/app/file_with_a_long_name_" + std::to_string(i)),
                   std::string(i % 7 == 0 ? 5000 : 10, 'x'));
  }
  WriteWholeFile(dir / "root/system/big.bin", std::string(6 << 20, 'b'));
  ASSERT_EQ(Make(dir, Fixture2048(), dir / "pkg.zip").exit_code, 0);
  EXPECT_EQ(RunTool({"verify", dir / "pkg.zip"}).exit_code, 0);
}

// Outputs never replace what the user owns, whatever the path says.
TEST(Make, RefusesOutputsThatAreInputsOrInsideTheTree) {
  TempDir dir;
  MakeSampleInputs(dir);
  const std::string key = dir / "key.pem";
  fs::copy_file(Fixture2048(), key);
  ASSERT_EQ(link(key.c_str(), (dir / "key_link.pem").c_str()), 0);
  const std::string original_key = ReadWholeFile(key);
  const std::string original_config = ReadWholeFile(dir / "config.txt");
  struct Case {
    std::vector<std::string> args;
    std::string words;
  } cases[] = {
      {{"make", "--config", dir / "config.txt", "--root", dir / "root", "--key", key, "--output",
        key},
       "is the --key file"},
      {{"make", "--config", dir / "config.txt", "--root", dir / "root", "--key", key, "--output",
        dir / "root/system/../../config.txt"},
       "is the --config file"},
      {{"make", "--config", dir / "config.txt", "--root", dir / "root", "--key", key, "--output",
        dir / "root/system/app/pkg.zip"},
       "inside the tree"},
      {{"extract-public-key", "--key", key, "--output", dir / "key_link.pem"}, "is the --key file"},
  };
  for (const Case& c : cases) {
    ProgramRun run = RunTool(c.args);
    EXPECT_EQ(run.exit_code, 1) << c.words;
    EXPECT_TRUE(Contains(run.err, c.words)) << run.err;
  }
  EXPECT_EQ(ReadWholeFile(key), original_key);
  EXPECT_EQ(ReadWholeFile(dir / "config.txt"), original_config);
  EXPECT_FALSE(fs::exists(dir / "root/system/app/pkg.zip"));

  // A name that starts like an option is only a name.
  ProgramRun dashed =
      RunProgram({"sh", "-c",
                  "cd " + dir.path() + " && " + RPKTOOL_BINARY +
                      " make --config config.txt --root root --key " + key + " --output -pkg.zip"});
  EXPECT_EQ(dashed.exit_code, 0) << dashed.out;
  EXPECT_TRUE(fs::exists(dir / "-pkg.zip"));
}

// A stand-in mke2fs that records its pid and waits: killing the tool must
// kill it too, and leave no file behind.
TEST(Make, ChildrenAndPartialOutputsEndWithTheTool) {
  TempDir dir;
  MakeSampleInputs(dir);
  WriteTreeFile(dir / "bin/mke2fs",
                "#!/bin/sh\necho $$ > " + (dir / "mke2fs.pid") + "\nexec sleep 60\n");
  fs::permissions(dir / "bin/mke2fs", fs::perms::owner_all);
  fs::create_directories(dir / "out");
  for (const std::string signal : {"TERM", "KILL"}) {
    SCOPED_TRACE(signal);
    fs::remove(dir / "mke2fs.pid");
    ProgramRun run = RunProgram(
        {"sh", "-c",
         "PATH=" + (dir / "bin") + ":$PATH " + RPKTOOL_BINARY + " make --config " +
             (dir / "config.txt") + " --root " + (dir / "root") + " --key " + Fixture2048() +
             " --output " + (dir / "out/pkg.zip") + " & tool=$!; for i in $(seq 100); do [ -s " +
             (dir / "mke2fs.pid") + " ] && break; sleep 0.1; done; kill -" + signal +
             " $tool; wait $tool; "
             "sleep 0.5; cat " +
             (dir / "mke2fs.pid")});
    const std::string pid = run.out.substr(0, run.out.find('\n'));
    ASSERT_FALSE(pid.empty()) << run.out;
    const std::string stat = ReadFileOrEmpty("/proc/" + pid + "/stat");
    EXPECT_TRUE(stat.empty() || Contains(stat, ") Z ")) << "mke2fs still runs: " << stat;
    EXPECT_TRUE(fs::is_empty(dir / "out"));
  }
}

// Configs and trees that a device would fail on, or that end the daemon.
TEST(Make, RefusesWhatADeviceWouldFailOn) {
  TempDir dir;
  MakeSampleInputs(dir);
  const std::string good = PackageConfig("demo_fix1");
  auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  fs::create_directories(dir / "empty");
  struct Case {
    std::string config;
    std::string words;
    std::string root = "root";
  } cases[] = {
      {with("demo_fix1", std::string("demo\0fix", 8)), "control character 0x00"},
      {with("demo_fix1", "demo\x1b[2Jfix"), "control character 0x1b"},
      {with("demo_fix1", "demo\xff"), "not UTF-8"},
      {good + "update_version_code=4\n", "given again"},
      {with("demo_fix1", "tmp"), "trial device"},
      {with("/system/app", "/system/vendor_fix"), "not a directory in the image"},
      {good, "is empty", "empty"},
  };
  for (const Case& c : cases) {
    WriteWholeFile(dir / "bad.txt", c.config);
    ProgramRun run = RunTool({"make", "--config", dir / "bad.txt", "--root", dir / c.root, "--key",
                              Fixture2048(), "--output", dir / "bad.zip"});
    EXPECT_EQ(run.exit_code, 1) << c.words;
    EXPECT_TRUE(Contains(run.err, c.words)) << c.words << " not in " << run.err;
    EXPECT_FALSE(fs::exists(dir / "bad.zip"));
  }
  // Forced, such a package is made; info shows its config escaped and fails.
  WriteWholeFile(dir / "bad.txt", with("demo_fix1", std::string("demo\x1b[2J\0fix", 12)));
  ASSERT_EQ(RunTool({"make", "--config", dir / "bad.txt", "--root", dir / "root", "--key",
                     Fixture2048(), "--output", dir / "bad.zip", "--force"})
                .exit_code,
            0);
  ProgramRun info = RunTool({"info", dir / "bad.zip"});
  EXPECT_EQ(info.exit_code, 1);
  EXPECT_TRUE(Contains(info.out, "demo\\x1b[2J\\x00fix")) << info.out;
  EXPECT_FALSE(Contains(info.out + info.err, "\x1b"));
}

TEST(Make, StrictTurnsWarningsIntoErrors) {
  TempDir dir;
  MakeSampleInputs(dir);
  WriteWholeFile(dir / "config.txt", PackageConfig("demo_fix1") + "colour=blue\n");
  ProgramRun lenient = Make(dir, Fixture2048(), dir / "pkg.zip");
  EXPECT_EQ(lenient.exit_code, 0);
  EXPECT_TRUE(Contains(lenient.err, "warning:")) << lenient.err;
  EXPECT_EQ(Make(dir, Fixture2048(), dir / "pkg.zip", {"--strict"}).exit_code, 1);
}

TEST(Cli, HelpVersionUsageErrorsAndCompletion) {
  const std::string manual = ReadWholeFile(SourcePath("man/rpktool.1"));
  for (const std::string verb : {"make", "extract-public-key", "info", "verify"}) {
    const ProgramRun help = RunTool({verb, "--help"});
    EXPECT_EQ(help.exit_code, 0) << verb;
    EXPECT_TRUE(Contains(help.out, "usage: rpktool " + verb)) << help.out;
    // The manual describes every option the verb has.
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.compare(0, 4, "  --") != 0) continue;
      const std::string option = line.substr(4, line.find(' ', 4) - 4);
      EXPECT_TRUE(
          Contains(manual, "\\-\\-" + android::base::StringReplace(option, "-", "\\-", true)))
          << verb << " --" << option;
    }
  }
  EXPECT_TRUE(Contains(RunTool({"--version"}).out, "rpktool "));
  struct Case {
    std::vector<std::string> args;
    std::string words;
  } cases[] = {
      {{}, "usage: rpktool VERB"},
      {{"frobnicate"}, "unknown verb 'frobnicate'"},
      {{"extract-public-key", "--key", Fixture2048()}, "--output is required"},
      {{"info"}, "ZIP is required"},
      {{"info", "a.zip", "b.zip"}, "unexpected argument 'b.zip'"},
      {{"verify", "--jobs", "0", "a.zip"}, "not a thread count"},
      {{"make", "--config", "c", "--root", "r", "--key", "k", "--output", "o", "--salt", "abc"},
       "odd number"},
      {{"make", "--config", "c", "--root", "r", "--key", "k", "--output", "o", "--salt", "zz"},
       "not a hex digit"},
  };
  for (const Case& c : cases) {
    const ProgramRun run = RunTool(c.args);
    EXPECT_EQ(run.exit_code, 2) << c.words;
    EXPECT_TRUE(Contains(run.err, c.words)) << run.err;
  }
  EXPECT_TRUE(RunTool({"extract-public-key", "--key", Fixture2048(), "--output", "-"}).out ==
              ReadWholeFile(AvbFixture("keys/rsa2048.avbpubkey")));
  const Json::Value error = ParseJson(RunTool({"make", "--bogus", "--json"}).out)["error"];
  EXPECT_EQ(error["kind"].asString(), "usage") << error;
  EXPECT_EQ(error["message"].asString(), "unknown option --bogus");

  ProgramRun completion = RunProgram(
      {"bash", "-c",
       std::string("source <(") + RPKTOOL_BINARY +
           " completion bash); "
           "COMP_WORDS=(rpktool make --alg); COMP_CWORD=2; _rpktool; echo ${COMPREPLY[@]}; "
           "COMP_WORDS=(rpktool make --algorithm SHA5); COMP_CWORD=3; _rpktool; echo "
           "${COMPREPLY[@]}"});
  EXPECT_EQ(completion.out, "--algorithm\nSHA512_RSA2048 SHA512_RSA4096 SHA512_RSA8192\n");
}

}  // namespace
}  // namespace mend_test
