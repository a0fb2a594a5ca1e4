// mendctl on the virtual device after a real run of the daemon: one boot.
// Packages repaired, stacked and refused for each reason; then a loop device
// leaked by hand, an image corrupted under its mounted verity device, found
// by check --verify and, once the table no longer restarts on corruption and
// the kernel read the bad block, reported by the kernel too.
#include <gtest/gtest.h>
#include <json/json.h>

#include <map>

#include "avb_fixtures.h"
#include "daemon_records.h"
#include "test_files.h"
#include "virtual_device.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

// Byte 100 of data block 13 of the reference image, which holds file data.
constexpr int kCorruptOffset = 4096 + 13 * 4096 + 100;

const std::string kScript = std::string("M='") + MENDCTL_BINARY + "'; '" + MEND_BINARY + "'\n" +
                            R"SH(
section() { echo "== $1"; shift; "$@"; echo "== exit $?"; }
dm_of() { grep -l "^$1\$" /sys/block/dm-*/dm/name | cut -d/ -f4; }
section status "$M" status --json
section check "$M" check --json
section plan "$M" plan --json
section overlays grep ' overlay ' /proc/mounts
losetup -f /data/rvx/imgs/junk.zip
printf 'X' | dd of=/data/rvx/imgs/valid_2048.zip bs=1 seek=CORRUPT conv=notrunc 2>/dev/null
sync; echo 3 > /proc/sys/vm/drop_caches
section verify "$M" check --json --verify
modes='s/ 2 restart_on_corruption ignore_zero_blocks/ 1 ignore_zero_blocks/'
table=$(/usr/sbin/dmsetup table demo_fix1 | sed "$modes")
/usr/sbin/dmsetup --noudevsync reload --readonly demo_fix1 --table "$table"
/usr/sbin/dmsetup --noudevsync resume demo_fix1
cat /dev/$(dm_of demo_fix1) > /dev/null 2>&1
section after "$M" status --json demo_fix1
section end true
)SH";

std::string Config(const std::string& name, const std::string& body) {
  return "update_package_name=" + name + "\nupdate_version_code=3\ntrigger_rollback_count=3\n" +
         body;
}

class MendctlOnDeviceTest : public ::testing::Test {
 protected:
  MendctlOnDeviceTest() {
    LayOutRepairDevice(&device_);
    for (const char* binary : {MEND_BINARY, MENDCTL_BINARY, "/usr/sbin/dmsetup"}) {
      device_.AddBinary(binary);
    }
  }

  // The reference image `fixture` under `config` in <file>.zip, with a state
  // record of `record` (version 3, task `task`) unless `record` is empty.
  void Add(const std::string& file, const std::string& fixture, const std::string& config,
           const std::string& record, int task, SpRecord extra = {}) {
    const std::string path = "/data/rvx/imgs/" + file + ".zip";
    WriteZip(device_.root().HostPath(path),
             {{"config.txt", config},
              {"update_payload.img",
               ReadZipMember(AvbFixture("pkgs/" + fixture + ".zip"), "update_payload.img"), false,
               4096}});
    if (record.empty()) return;
    extra.name = record;
    extra.image_path = path;
    extra.task_id = task;
    state_ += extra.Line() + "\n";
  }

  VirtualDevice device_;
  std::string state_;
};

std::string Section(const std::string& output, const std::string& name) {
  const std::string start = "== " + name + "\n";
  size_t a = output.find(start);
  if (a == std::string::npos) return "";
  a += start.size();
  return output.substr(a, output.find("== exit", a) - a);
}

int ExitOf(const std::string& output, const std::string& name) {
  const size_t at = output.find("== exit ", output.find("== " + name + "\n"));
  return at == std::string::npos ? -1 : std::atoi(output.c_str() + at + 8);
}

Json::Value Parse(const std::string& output, const std::string& name) {
  Json::Value root;
  EXPECT_TRUE(Json::Reader().parse(Section(output, name), root)) << name << "\n" << output;
  return root;
}

TEST_F(MendctlOnDeviceTest, ExplainsARealRunAndFindsCorruption) {
  const std::string valid = PackageConfig("demo_fix1");
  Add("valid_2048", "valid_2048", valid, "demo_fix1", 1);
  Add("stack_fix", "valid_2048",
      Config("stack_fix",
             "module_path=/system/app\n"
             "ro_build_display_id=BUILD.A.002\n"),
      "stack_fix", 2);
  device_.root().WriteFile("/data/rvx/imgs/junk.zip", "not a zip");
  Add("norecord", "valid_2048", PackageConfig("norecord_fix"), "", 0);
  SpRecord version4;
  version4.version_code = 4;
  Add("version", "valid_2048", PackageConfig("version_fix"), "version_fix", 4, version4);
  SpRecord cancelled;
  cancelled.need_cancel = true;
  Add("cancel", "valid_2048", PackageConfig("cancel_fix"), "cancel_fix", 5, cancelled);
  SpRecord failing;
  failing.boot_failed_count = 3;  // 4 once this run counts it, above the limit of 3
  Add("boot", "valid_2048", PackageConfig("boot_fix"), "boot_fix", 6, failing);
  Add("build", "valid_2048", PackageConfig("build_fix", "ro_build_display_id=OTHER\n"), "build_fix",
      7);
  Add("buildless", "valid_2048", Config("buildless_fix", "module_path=/system/app\n"),
      "buildless_fix", 8);
  Add("wrong_key", "wrong_key", PackageConfig("fix_wrong_key"), "fix_wrong_key", 9);
  Add("corrupt", "data_corrupt", PackageConfig("fix_data_corrupt"), "fix_data_corrupt", 10);
  Add("async", "valid_2048", PackageConfig("async_fix", "is_async_exec=1\n"), "async_fix", 11);
  device_.root().WriteFile("/data/rvx/files/shared_prefs.cfg", state_);

  std::string script = kScript;
  script.replace(script.find("CORRUPT"), 7, std::to_string(kCorruptOffset));
  const VmRun run = device_.Run({"/bin/sh", "-c", script});
  ASSERT_TRUE(run.finished) << run.end << "\n" << run.output;
  ASSERT_TRUE(Contains(run.output, "== end")) << run.output;

  // Status: the repaired and the stacked package are in force on healthy
  // devices; every other one says why not.
  const Json::Value status = Parse(run.output, "status");
  std::map<std::string, Json::Value> packages;
  for (const Json::Value& package : status["packages"]) {
    packages[package["name"].isNull() ? "" : package["name"].asString()] = package;
  }
  const Json::Value& repaired = packages["demo_fix1"];
  EXPECT_TRUE(repaired["in_force"].asBool()) << repaired;
  EXPECT_EQ(repaired["status_name"], "REPAIR_START_SUCCESS");
  EXPECT_EQ(repaired["verity"], "ok");
  EXPECT_EQ(repaired["loop_device"].asString().rfind("loop", 0), 0u) << repaired;
  EXPECT_EQ(repaired["overlaid"].size(), 2u);
  EXPECT_TRUE(packages["stack_fix"]["in_force"].asBool()) << packages["stack_fix"];
  const std::map<std::string, std::string> refusals = {
      {"", "no_config"},
      {"norecord_fix", "no_state_record"},
      {"version_fix", "version_mismatch"},
      {"cancel_fix", "cancel_requested"},
      {"boot_fix", "boot_failed_limit"},
      {"build_fix", "build_mismatch"},
      {"buildless_fix", "build_list_empty"},
      {"fix_wrong_key", "image_invalid"},
      {"fix_data_corrupt", "image_invalid"},
      {"async_fix", "not_mounted"},
  };
  for (const auto& [name, refusal] : refusals) {
    EXPECT_EQ(packages[name]["refusal"], refusal) << name << ": " << packages[name];
    EXPECT_FALSE(packages[name]["in_force"].asBool()) << name;
  }
  EXPECT_TRUE(Contains(packages["fix_data_corrupt"]["reason"].asString(), "data block 13"));

  // The final judgement reported the refused packages as repaired.
  const Json::Value check = Parse(run.output, "check");
  EXPECT_EQ(ExitOf(run.output, "status"), 0);
  EXPECT_EQ(ExitOf(run.output, "check"), 1);
  std::multimap<std::string, std::string> problems;
  for (const Json::Value& problem : check["problems"]) {
    problems.emplace(problem["kind"].asString(), problem["name"].asString());
  }
  EXPECT_EQ(problems.count("reported_repaired_not_in_force"), 5u) << check;
  EXPECT_EQ(problems.count("leaked_device"), 0u) << check;

  // Plan and status agree with the kernel's overlay of two packages.
  const std::string kernel = Section(run.output, "overlays");
  EXPECT_TRUE(Contains(kernel,
                       "lowerdir=/mnt/rvx/demo_fix1/system/app:"
                       "/mnt/rvx/stack_fix/system/app:/system/app"))
      << kernel;
  const Json::Value plan = Parse(run.output, "plan");
  Json::Value app_stack;
  for (const Json::Value& stack : plan["runs"][0]["stacks"]) {
    if (stack["path"] == "/system/app") app_stack = stack["lower"];
  }
  Json::Value mounted_stack;
  for (const Json::Value& overlay : status["overlays"]) {
    if (overlay["path"] == "/system/app") mounted_stack = overlay["lower"];
  }
  EXPECT_EQ(app_stack, mounted_stack) << plan;
  EXPECT_EQ(app_stack.size(), 3u) << plan;
  EXPECT_TRUE(Contains(Json::FastWriter().write(plan["shadowed"]),
                       "\"hides\":\"stack_fix\",\"name\":\"demo_fix1\""))
      << plan["shadowed"];

  // The leaked loop device and the corrupted block, found in user space.
  const Json::Value verify = Parse(run.output, "verify");
  const std::string verified = Json::FastWriter().write(verify);
  EXPECT_TRUE(Contains(verified, "\"kind\":\"leaked_device\"")) << verify;
  EXPECT_TRUE(Contains(verified, "data block 13")) << verify;
  EXPECT_EQ(ExitOf(run.output, "verify"), 1);

  // The kernel saw it too once the block was read without restarting.
  const Json::Value after = Parse(run.output, "after")["packages"][0];
  EXPECT_EQ(after["verity"], "corrupted") << after;
}

}  // namespace
}  // namespace mend_test
