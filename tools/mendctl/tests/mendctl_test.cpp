// mendctl's judgement on device trees laid out in a temporary directory:
// the daemon's rules as status and plan apply them, overlay stacks, what the
// kernel shows (a fake mountinfo and sysfs) and the readable output.
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "avb_fixtures.h"
#include "check.h"
#include "daemon_records.h"
#include "plan.h"
#include "report_json.h"
#include "report_text.h"
#include "test_files.h"
#include "zip_builder.h"

namespace mendctl {
namespace {

using mend_test::SpRecord;

// A device tree in a temporary directory, with the reference key.
struct DeviceTree {
  DeviceTree() {
    mend_test::WriteTreeFile(
        dir_ / "system/etc/security/rpk_public_key",
        mend_test::ReadWholeFile(mend_test::AvbFixture("keys/rsa2048.avbpubkey")));
  }

  void AddPackage(const std::string& file, const std::string& config,
                  const std::string& fixture = "valid_2048") {
    const std::string image = mend_test::ReadZipMember(
        mend_test::AvbFixture("pkgs/" + fixture + ".zip"), "update_payload.img");
    mend_test::WriteTreeFile(dir_ / ("data/rvx/imgs/" + file), "");
    mend_test::WriteZip(dir_ / ("data/rvx/imgs/" + file),
                        {{"config.txt", config}, {"update_payload.img", image, false, 4096}});
  }
  void AddRecord(SpRecord record) { records_ += record.Line() + "\n"; }
  void Write(const std::string& path, const std::string& content) {
    mend_test::WriteTreeFile(dir_ / path, content);
  }

  Snapshot Read() {
    Write("data/rvx/files/shared_prefs.cfg", records_);
    Snapshot snapshot = ReadSnapshot(root_);
    snapshot.support = snapshot.persist_support = "1";
    snapshot.build_id = "BUILD.A.002";
    return snapshot;
  }

  mend_test::TempDir dir_;
  DeviceRoot root_{dir_.path()};
  std::string records_;
};

std::string Refusal(const std::optional<Verdict>& verdict) {
  return verdict ? RefusalName(verdict->refusal) : "";
}

TEST(MendctlTest, StatusAndPlanApplyTheDaemonsRulesInItsOrder) {
  const struct {
    const char* what;
    const char* config;  // after the reference config
    std::function<void(SpRecord*)> record;
    const char* fixture;
    const char* status;  // nothing is mounted: a package that passes is "not_mounted"
    const char* sync;    // "": selected
    const char* async;
  } kCases[] = {
      {"passes", "", nullptr, "valid_2048", "not_mounted", "", "not_selected_in_this_mode"},
      {"async", "is_async_exec=1\n", nullptr, "valid_2048", "not_mounted",
       "not_selected_in_this_mode", ""},
      {"limit reached once the run counts", "", [](SpRecord* r) { r->boot_failed_count = 3; },
       "valid_2048", "not_mounted", "boot_failed_limit", "not_selected_in_this_mode"},
      {"a confirmed boot is not counted", "",
       [](SpRecord* r) { r->boot_failed_count = 3, r->is_boot_success = true; }, "valid_2048",
       "not_mounted", "", "not_selected_in_this_mode"},
      {"cancelled", "", [](SpRecord* r) { r->need_cancel = true; }, "valid_2048",
       "cancel_requested", "cancel_requested", "cancel_requested"},
      {"other version", "", [](SpRecord* r) { r->version_code = 4; }, "valid_2048",
       "version_mismatch", "version_mismatch", "version_mismatch"},
      {"no record", "", [](SpRecord* r) { r->name = "other"; }, "valid_2048", "no_state_record",
       "no_state_record", "no_state_record"},
      {"other build", "ro_build_display_id=OTHER\n", nullptr, "valid_2048", "build_mismatch",
       "build_mismatch", "not_selected_in_this_mode"},
      {"unsigned", "", nullptr, "unsigned", "image_invalid", "image_invalid",
       "not_selected_in_this_mode"},
      {"corrupt data", "", nullptr, "data_corrupt", "image_invalid", "image_invalid",
       "not_selected_in_this_mode"},
      {"bad number", "update_version_code=abc\n", nullptr, "valid_2048", "no_config", "no_config",
       "no_config"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    DeviceTree tree;
    tree.AddPackage("p.zip", mend_test::PackageConfig("p", c.config), c.fixture);
    SpRecord record{"p", 3, "/data/rvx/imgs/p.zip"};
    if (c.record) c.record(&record);
    tree.AddRecord(record);
    const Snapshot snapshot = tree.Read();
    ImageChecker images(tree.root_);
    EXPECT_EQ(Refusal(JudgeStatus(snapshot, images).packages.at(0).refusal), c.status);
    const Plan plan = MakePlan(snapshot, tree.root_, images);
    EXPECT_EQ(Refusal(plan.runs[0].packages.at(0).refusal), c.sync);
    EXPECT_EQ(Refusal(plan.runs[1].packages.at(0).refusal), c.async);
  }
}

TEST(MendctlTest, AnInputTheDaemonEndsOnStopsTheWholeRun) {
  DeviceTree d;
  d.AddPackage("p.zip", mend_test::PackageConfig("p"));
  d.AddRecord({"p", 3, "/data/rvx/imgs/p.zip"});
  d.records_ += "{\"update_package_name\":\"q\",\"task_id\":\"x\"}\n";
  const Snapshot snapshot = d.Read();
  ASSERT_EQ(snapshot.fatal.size(), 1u);
  EXPECT_EQ(snapshot.fatal[0].where, "/data/rvx/files/shared_prefs.cfg:2");
  ImageChecker images(d.root_);
  const Plan plan = MakePlan(snapshot, d.root_, images);
  const PlannedPackage& planned = plan.runs[0].packages.at(0);
  EXPECT_EQ(Refusal(planned.refusal), "not_mounted");
  EXPECT_NE(planned.refusal->reason.find("shared_prefs.cfg:2"), std::string::npos);
}

TEST(MendctlTest, StacksFollowTaskIdsAndShadowedFilesAreFound) {
  DeviceTree d;
  d.AddPackage("a.zip", mend_test::PackageConfig("late", "module_path=/system/app\n"));
  d.AddPackage("b.zip", mend_test::PackageConfig("early"));
  d.AddPackage("c.zip", mend_test::PackageConfig("early"));  // the name mounts only once
  SpRecord late{"late", 3, ""}, early{"early", 3, ""};
  late.task_id = 9;
  early.task_id = 5;
  d.AddRecord(late);
  d.AddRecord(early);
  // Both images mounted now, the directory itself not overlaid.
  d.Write("proc/self/mountinfo",
          "30 1 7:0 / /mnt/rvx/late ro - ext4 /dev/dm-0 ro\n"
          "31 1 7:1 / /mnt/rvx/early ro - ext4 /dev/dm-1 ro\n");
  d.Write("mnt/rvx/late/system/app/A.apk", "late");
  d.Write("mnt/rvx/early/system/app/A.apk", "early");
  d.Write("mnt/rvx/early/system/app/B.apk", "early");
  d.Write("system/app/B.apk", "stock");
  const Snapshot snapshot = d.Read();
  ImageChecker images(d.root_);
  const Plan plan = MakePlan(snapshot, d.root_, images);
  const PlannedRun& sync = plan.runs[0];
  EXPECT_EQ(Refusal(sync.packages.at(2).refusal), "not_mounted");
  ASSERT_EQ(sync.stacks.size(), 2u);
  EXPECT_EQ(sync.stacks[0].path, "/system/app");
  EXPECT_EQ(sync.stacks[0].lower,
            (std::vector<std::string>{"/mnt/rvx/early/system/app", "/mnt/rvx/late/system/app",
                                      "/system/app"}));
  std::set<std::string> shadowed;
  for (const ShadowedFile& file : plan.shadowed) {
    shadowed.insert(file.path + " " + file.name + ">" + file.hides);
  }
  EXPECT_EQ(shadowed, (std::set<std::string>{"/system/app/A.apk early>late",
                                             "/system/app/B.apk early>/system/app"}));
}

TEST(MendctlTest, TheKernelsMountsAndDevicesDecideWhatIsInForce) {
  DeviceTree d;
  d.AddPackage("a.zip", mend_test::PackageConfig("a"));  // repairs /system/lib64 too
  d.AddRecord({"a", 3, "/data/rvx/imgs/a.zip"});
  d.Write("data/rvx/msgs/native.msg",
          "{\"update_package_name\":\"a\",\"response_content\":\"{\\\"status\\\":-8}\"}\n");
  d.Write("proc/self/mountinfo",
          "30 1 253:0 / /mnt/rvx/a ro shared:1 - ext4 /dev/block/dm-0 ro\n"
          "31 1 0:40 / /system/app ro - overlay overlayfs-system_app "
          "ro,lowerdir=/mnt/rvx/a/system/app:/tmp/x:/system/app\n"
          "32 1 0:41 / /mnt/rvx/gh\\040ost ro - tmpfs none rw\n");
  d.Write("sys/block/dm-0/dev", "253:0\n");
  d.Write("sys/block/dm-0/dm/name", "a\n");
  d.Write("sys/block/dm-0/slaves/loop0", "");
  d.Write("sys/block/loop0/dev", "7:0\n");
  d.Write("sys/block/loop0/loop/backing_file", "/data/rvx/imgs/a.zip\n");
  d.Write("sys/block/loop1/dev", "7:1\n");
  d.Write("sys/block/loop1/loop/backing_file", "/data/rvx/imgs/a.zip\n");
  const Snapshot snapshot = d.Read();
  ImageChecker images(d.root_);
  const StatusReport status = JudgeStatus(snapshot, images);
  const PackageStatus& a = status.packages.at(0);
  EXPECT_FALSE(a.in_force);
  EXPECT_EQ(a.refusal->reason, "mounted, but not overlaid on /system/lib64");
  EXPECT_EQ(a.dm_device, "dm-0");
  EXPECT_EQ(a.loop_device, "loop0");
  EXPECT_EQ(a.overlaid, std::vector<std::string>{"/system/app"});
  std::multiset<std::string> problems;
  for (const Problem& problem : FindProblems(snapshot, status)) {
    problems.insert(problem.kind + " " + problem.name);
  }
  EXPECT_EQ(problems,
            (std::multiset<std::string>{
                "overlay_foreign /system/app", "mount_without_package gh ost",
                "reported_failed_but_mounted a", "leaked_device loop1", "overlay_missing a"}));
}

TEST(ReportTextTest, NamesAreEscapedAndLinesStayWithinTheWidth) {
  EXPECT_EQ(Printable("a\x1b[31mb\n\\\x7f"), "a\\x1b[31mb\\n\\\\\\x7f");
  StatusReport report;
  PackageStatus package;
  package.name = std::string(60, 'n') + "\x1b[2J";
  package.refusal = Verdict{Refusal::kImageInvalid, std::string(150, 'w') + " " + "end"};
  report.packages.push_back(package);
  report.overlays.push_back({"/system/app", {std::string(120, 'l'), "/system/app"}});
  const std::string text = StatusText(report);
  for (const std::string& line : android::base::Split(text, "\n")) {
    EXPECT_LE(line.size(), kTextWidth) << line;
  }
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_NE(text.find(" end\n"), std::string::npos) << text;
  EXPECT_NE(RenderJson(StatusJson(report)).find(std::string(60, 'n') + "\\u001b[2J"),
            std::string::npos);
}

}  // namespace
}  // namespace mendctl
