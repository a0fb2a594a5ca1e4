// config.txt checks: what the daemon would make of a config, and which
// mistakes stop a build or only warn (errors too when strict).

#include "package_config.h"

#include <gtest/gtest.h>

#include "tool_test_util.h"

namespace rpktool {
namespace {

// The issue of the wanted kind that mentions `words`, or nothing.
bool Mentions(const PackageConfig& config, bool error, const std::string& words) {
  for (const auto& issue : config.issues) {
    if (issue.is_error == error && issue.message.find(words) != std::string::npos) return true;
  }
  return false;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

const std::string kGood = mend_test::PackageConfig("demo_fix1");

TEST(PackageConfig, TheFixtureConfigIsClean) {
  const PackageConfig config = CheckPackageConfig(kGood);
  EXPECT_TRUE(config.issues.empty()) << config.issues[0].message;
  EXPECT_EQ(config.ModulePaths(), (std::vector<std::string>{"/system/lib64", "/system/app"}));
}

TEST(PackageConfig, ErrorsForWhatNeverAppliesEndsTheDaemonOrBreaksTheDevice) {
  struct Case {
    std::string text;
    std::string words;
  } cases[] = {
      {"", "defines nothing"},
      {"\n\nno value=\n", "defines nothing"},
      {Replace(kGood, "update_package_name=demo_fix1\n", ""), "update_package_name is missing"},
      {Replace(kGood, "demo_fix1", "a/b"), "mount point"},
      {Replace(kGood, "demo_fix1", "tmp"), "trial device"},
      {Replace(kGood, "demo_fix1", std::string(128, 'n')), "longer than 127"},
      {Replace(kGood, "update_version_code=3", "update_version_code=abc"), "not a number"},
      {Replace(kGood, "structure_version=1", "structure_version=99999999999"), "int range"},
      {Replace(kGood, "/system/lib64;/system/app", "/system/lib64;;/system/app"), "empty entry"},
      {Replace(kGood, "/system/app", "system/app"), "not an absolute path"},
      {Replace(kGood, "/system/app", "/system/../app"), "not an absolute path"},
      {Replace(kGood, "module_path=/system/lib64;/system/app\n", ""), "module_path is missing"},
      {kGood + "fix_method=other\n", "given again"},
      {Replace(kGood, "\n", "\r\n"), "control character 0x0d"},
      {Replace(kGood, "overlay", "over\tlay"), "control character 0x09"},
      {Replace(kGood, "overlay", "\xc3\x28"), "not UTF-8"},
  };
  for (const Case& c : cases) {
    const PackageConfig config = CheckPackageConfig(c.text);
    EXPECT_TRUE(Mentions(config, true, c.words)) << c.words << " for:\n" << c.text;
  }
}

TEST(PackageConfig, WarningsForWhatLikelyDoesNotWorkAreErrorsWhenStrict) {
  struct Case {
    std::string text;
    std::string words;
  } cases[] = {
      {Replace(kGood, "update_version_code=3", "update_version_code= 7x"), "reads 7"},
      {Replace(kGood, "update_version_code=3\n", ""), "uses 0"},
      {Replace(kGood, "trigger_rollback_count=3", "trigger_rollback_count=-1"), "negative"},
      {Replace(kGood, "is_async_exec=0", "is_async_exec=2"), "neither 0 nor 1"},
      {Replace(kGood, "module_num=2", "module_num=3"), "names 2"},
      {kGood + "colour=blue\n", "unknown"},
      {kGood + "fix_method =x\n", "blanks around it"},
      {kGood + "no equals sign\nmodule_num=\n", "defines nothing"},
      {Replace(kGood, "ro_build_display_id=BUILD.A.001;BUILD.A.002\n", ""),
       "ro_build_display_id is missing"},
      {Replace(kGood, "BUILD.A.001;", "BUILD.A.001;;"), "matches no build"},
  };
  for (const Case& c : cases) {
    const PackageConfig config = CheckPackageConfig(c.text);
    EXPECT_FALSE(config.HasErrors()) << c.text;
    EXPECT_TRUE(Mentions(config, false, c.words)) << c.words << " for:\n" << c.text;
    EXPECT_TRUE(Mentions(CheckPackageConfig(c.text, true), true, c.words)) << c.words;
  }
}

TEST(PackageConfig, ModulesMustBeDirectoriesOfTheImage) {
  PackageConfig config = CheckPackageConfig(kGood);
  CheckModuleDirectories(&config, [](const std::string& path) { return path == "/system/app"; });
  EXPECT_TRUE(Mentions(config, true, "'/system/lib64' is not a directory in the image"));
  EXPECT_FALSE(Mentions(config, true, "'/system/app'"));
}

}  // namespace
}  // namespace rpktool
