#include <gtest/gtest.h>

#include <list>

#include "mend_package.h"

namespace android {
namespace init {
namespace {

using Fields = std::vector<std::string>;

TEST(SplitTest, AlwaysCutsAtSemicolon) {
  EXPECT_EQ(MendRepairUtil::split("a;b", ';'), (Fields{"a", "b"}));
  EXPECT_EQ(MendRepairUtil::split("a;;b", ';'), (Fields{"a", "", "b"}));
  EXPECT_EQ(MendRepairUtil::split("a;", ';'), (Fields{"a"}));
  EXPECT_EQ(MendRepairUtil::split(";", ';'), (Fields{""}));
  EXPECT_EQ(MendRepairUtil::split("", ';'), Fields{});
  EXPECT_EQ(MendRepairUtil::split(" a ; b ", ';'), (Fields{" a ", " b "}));
  // The delimiter argument is ignored: callers rely on ";".
  EXPECT_EQ(MendRepairUtil::split("a,b", ','), (Fields{"a,b"}));
  EXPECT_EQ(MendRepairUtil::split("a;b", ','), (Fields{"a", "b"}));
}

TEST(CompareModByTaskIdTest, StableSortKeepsArrivalOrderOfEqualIds) {
  auto module = [](const std::string& name, int64_t task) {
    MendRepairModule m;
    m.parent_package.update_package_name = name;
    m.parent_package.task_id = task;
    return m;
  };
  std::list<MendRepairModule> modules = {module("late", 9), module("first-5", 5),
                                         module("neg", -3), module("second-5", 5)};
  modules.sort(compareModByTaskId);
  std::vector<std::string> order;
  for (const auto& m : modules) order.push_back(m.parent_package.update_package_name);
  EXPECT_EQ(order, (Fields{"neg", "first-5", "second-5", "late"}));
  EXPECT_FALSE(compareModByTaskId(module("a", 5), module("b", 5)));
}

TEST(ParseRepairConfigTest, FullExample) {
  const MendRepairPackage p = parseRepairConfig(
      "update_package_name=demo_fix1\nupdate_version_name=1.0.2\nupdate_version_code=3\n"
      "module_num=2\nmodule_name=libfix;appfix\nmodule_path=/system/lib64;/system/app\n"
      "fix_method=overlay\nro_build_display_id=BUILD.A.001;BUILD.A.002\n"
      "trigger_rollback_count=3\nstructure_version=1\nis_async_exec=0\n");
  EXPECT_EQ(p.update_package_name, "demo_fix1");
  EXPECT_EQ(p.update_version_name, "1.0.2");
  EXPECT_EQ(p.update_version_code, 3);
  EXPECT_EQ(p.module_num, "2");
  EXPECT_EQ(p.module_name, "libfix;appfix");
  EXPECT_EQ(p.module_path, "/system/lib64;/system/app");
  EXPECT_EQ(p.fix_method, "overlay");
  EXPECT_EQ(p.ro_build_display_id, "BUILD.A.001;BUILD.A.002");
  EXPECT_EQ(p.trigger_rollback_count, 3);
  EXPECT_EQ(p.structure_version, 1);
  EXPECT_EQ(p.is_async_exec, 0);
  EXPECT_EQ(p.image_path, "");
  EXPECT_EQ(p.task_id, 0);
}

TEST(ParseRepairConfigTest, LineRules) {
  // The value runs to the end of the line and may hold "="; "\r" stays.
  MendRepairPackage p = parseRepairConfig("update_package_name=a=b\r\nfix_method=x\r\n");
  EXPECT_EQ(p.update_package_name, "a=b\r");
  EXPECT_EQ(p.fix_method, "x\r");

  // Keys are exact: no trimming, case-sensitive; unknown keys ignored.
  p = parseRepairConfig("module_path = /x\nUPDATE_PACKAGE_NAME=b\nother=1\n");
  EXPECT_EQ(p.module_path, "");
  EXPECT_EQ(p.update_package_name, "");

  // The last value wins; an empty value or a bare key defines nothing.
  p = parseRepairConfig("update_package_name=one\nupdate_package_name=two\n"
                        "update_package_name=\nupdate_package_name\nfix_method=\n");
  EXPECT_EQ(p.update_package_name, "two");
  EXPECT_EQ(p.fix_method, "");

  // A last line without "\n" still counts.
  EXPECT_EQ(parseRepairConfig("update_package_name=z").update_package_name, "z");
  EXPECT_EQ(parseRepairConfig("\n\n  \n").update_package_name, "");
}

TEST(ParseRepairConfigTest, NumbersConvertLikeStoi) {
  MendRepairPackage p = parseRepairConfig(
      "update_version_code= 7x\ntrigger_rollback_count=12\r\nstructure_version=-4\n"
      "is_async_exec=+1\n");
  EXPECT_EQ(p.update_version_code, 7);
  EXPECT_EQ(p.trigger_rollback_count, 12);
  EXPECT_EQ(p.structure_version, -4);
  EXPECT_EQ(p.is_async_exec, 1);
  // 32-bit conversion, sign-extended into the 64-bit member.
  EXPECT_EQ(parseRepairConfig("update_version_code=-2147483648\n").update_version_code,
            INT64_C(-2147483648));
  EXPECT_EQ(parseRepairConfig("update_version_code=2147483647\n").update_version_code,
            INT64_C(2147483647));
}

// The daemon never catches these; the sandbox tests show the process ending.
TEST(ParseRepairConfigTest, UnconvertibleNumberRaisesTheConversionError) {
  EXPECT_THROW(parseRepairConfig("update_version_code=abc\n"), std::invalid_argument);
  EXPECT_THROW(parseRepairConfig("trigger_rollback_count= \n"), std::invalid_argument);
  EXPECT_THROW(parseRepairConfig("is_async_exec=2147483648\n"), std::out_of_range);
}

// The non-fatal check agrees with the conversion the daemon runs.
TEST(ParseRepairConfigTest, NumberCheckAgreesWithTheConversion) {
  for (const char* value : {"7", " 7x", "+5", "-2147483648", "2147483647", "12\r", "abc", " ",
                            "2147483648", "-2147483649", "99999999999999999999", "x1"}) {
    bool converts = true;
    try {
      std::stoi(value, nullptr, 10);
    } catch (const std::exception&) {
      converts = false;
    }
    EXPECT_EQ(convertsToConfigNumber(value), converts) << value;
  }
}

}  // namespace
}  // namespace init
}  // namespace android
