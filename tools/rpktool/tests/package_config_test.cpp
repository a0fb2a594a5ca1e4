// config.txt checks: what the daemon would make of a config, and which
// mistakes stop a build.

#include <gtest/gtest.h>

#include "package_config.h"
#include "tool_test_util.h"

namespace rpktool {
namespace {

// True when some issue of the wanted kind mentions `words`.
bool Mentions(const PackageConfig& config, bool error, const std::string& words) {
  for (const auto& issue : config.issues) {
    if (issue.is_error == error && issue.message.find(words) != std::string::npos) return true;
  }
  return false;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  text.replace(text.find(from), from.size(), to);
  return text;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

TEST(PackageConfig, TheFixtureConfigIsClean) {
  PackageConfig config = ParsePackageConfig(mend_test::PackageConfig("demo_fix1"));
  EXPECT_TRUE(config.issues.empty()) << config.issues[0].message;
  EXPECT_EQ(config.Get("module_path"), "/system/lib64;/system/app");
  EXPECT_EQ(config.values.size(), 11u);
}

TEST(PackageConfig, ReadsLinesAsTheDaemonDoes) {
  PackageConfig config = ParsePackageConfig(
      "update_package_name=a\nupdate_package_name=b\nfix_method=x=y\nmodule_num=\n"
      "module_num=2\nmodule_num=\nno equals sign here\n\nmodule_path = /x\n");
  EXPECT_EQ(config.Get("update_package_name"), "b");
  EXPECT_EQ(config.Get("fix_method"), "x=y");
  EXPECT_EQ(config.Get("module_num"), "2") << "an empty value does not override";
  EXPECT_EQ(config.values.count("module_path "), 1u);
  EXPECT_TRUE(Mentions(config, false, "given again"));
  EXPECT_TRUE(Mentions(config, false, "has no value"));
  EXPECT_TRUE(Mentions(config, false, "no '='"));
  EXPECT_TRUE(Mentions(config, false, "blanks around it"));
  EXPECT_TRUE(Mentions(config, true, "module_path is missing"));
}

TEST(PackageConfig, ErrorsForPackagesThatEndTheDaemonOrNeverApply) {
  const std::string good = mend_test::PackageConfig("demo_fix1");
  struct Case {
    std::string text;
    std::string words;
  };
  for (const Case& c : std::vector<Case>{
           {"", "empty"},
           {"\n\n", "empty"},
           {Replace(good, "update_package_name=demo_fix1\n", ""), "update_package_name is missing"},
           {Replace(good, "demo_fix1", "a/b"), "mount point"},
           {Replace(good, "update_version_code=3", "update_version_code=abc"), "not a number"},
           {Replace(good, "structure_version=1", "structure_version=99999999999"), "out of int"},
           {Replace(good, "is_async_exec=0", "is_async_exec=-"), "not a number"},
           {Replace(good, "/system/lib64;/system/app", "/system/lib64;;/system/app"), "empty entry"},
           {Replace(good, "/system/lib64;/system/app", ";/system/app"), "empty entry"},
           {Replace(good, "trigger_rollback_count=3", "trigger_rollback_count=-1"), "negative"},
           // The CR stays in every value, the package name included.
           {ReplaceAll(good, "\n", "\r\n"), "control characters"},
           {Replace(good, "ro_build_display_id=BUILD.A.001;BUILD.A.002\n", ""),
            "ro_build_display_id is missing"},
       }) {
    PackageConfig config = ParsePackageConfig(c.text);
    EXPECT_TRUE(config.HasErrors()) << c.text;
    EXPECT_TRUE(Mentions(config, true, c.words)) << c.words << " for:\n" << c.text;
  }
}

TEST(PackageConfig, WarningsForLikelyMistakes) {
  const std::string good = mend_test::PackageConfig("demo_fix1");
  struct Case {
    std::string text;
    std::string words;
  };
  for (const Case& c : std::vector<Case>{
           {Replace(good, "update_version_code=3", "update_version_code= 7x"), "reads 7"},
           {Replace(good, "update_version_code=3\n", ""), "uses 0"},
           {Replace(good, "is_async_exec=0", "is_async_exec=2"), "neither 0 nor 1"},
           {Replace(good, "module_num=2", "module_num=3"), "names 2"},
           {Replace(good, "/system/app", "system/app"), "not an absolute path"},
           {good + "colour=blue\n", "unknown key"},
           {Replace(good, "BUILD.A.001;", "BUILD.A.001;;"), "matches no build"},
       }) {
    PackageConfig config = ParsePackageConfig(c.text);
    EXPECT_FALSE(config.HasErrors()) << c.text;
    EXPECT_TRUE(Mentions(config, false, c.words)) << c.words << " for:\n" << c.text;
  }
  PackageConfig crlf = ParsePackageConfig(ReplaceAll(good, "\n", "\r\n"));
  EXPECT_TRUE(Mentions(crlf, false, "CR line endings"));
  EXPECT_FALSE(Mentions(crlf, false, "trailing text")) << "the CR warning says it once";
  // A trailing ';' adds no empty module, as in the daemon.
  PackageConfig trailing = ParsePackageConfig(Replace(good, "/system/app", "/system/app;"));
  EXPECT_FALSE(trailing.HasErrors());
  EXPECT_EQ(SplitConfigList("a;;b").size(), 3u);
  EXPECT_EQ(SplitConfigList("a;").size(), 1u);
}

}  // namespace
}  // namespace rpktool
