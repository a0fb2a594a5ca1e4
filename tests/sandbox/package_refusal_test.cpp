// The daemon reports a package it cannot open to the application with the
// mount-failure status (-7) and the opening error as the reason, before the
// run's final judgement replaces that report.
#include <json/json.h>

#include <sstream>
#include <vector>

#include "avb_fixtures.h"
#include "daemon_fixture.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

constexpr char kTrustedKey[] = "/system/etc/security/rpk_public_key";

class PackageRefusalTest : public DaemonTest {
 protected:
  // Every status the daemon wrote to native.msg for package `name`, in
  // order. native.msg is rewritten whole after each change and each line
  // written is logged, so the log keeps reports that later ones replaced.
  static std::vector<Json::Value> NativeMsgStatuses(const SandboxRun& run,
                                                    const std::string& name) {
    const std::string prefix = "saveNativeMsg : ";
    std::vector<Json::Value> statuses;
    for (const std::string& line : LogLines(run)) {
      if (line.rfind(prefix, 0) != 0) continue;
      Json::Value message;
      if (!Json::Reader().parse(line.substr(prefix.size()), message)) continue;
      if (message["update_package_name"].asString() != name) continue;
      Json::Value status;
      Json::Reader().parse(message["response_content"].asString(), status);
      if (statuses.empty() || statuses.back() != status) statuses.push_back(status);
    }
    return statuses;
  }
};

// Lines of the engine's log records that end in `message`.
size_t EngineLogCount(const SandboxRun& run, const std::string& message) {
  std::istringstream lines(run.output);
  std::string line;
  size_t count = 0;
  const std::string suffix = "] " + message;
  while (std::getline(lines, line)) {
    if (line.size() >= suffix.size() &&
        line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
      ++count;
    }
  }
  return count;
}

TEST_F(PackageRefusalTest, PackageWithoutImageIsReportedAsMountFailure) {
  root_.CopyIn(AvbFixture("keys/rsa2048.avbpubkey"), kTrustedKey);
  WriteZip(root_.HostPath("/data/rvx/imgs/noimg.zip"), {{"config.txt", Config("noimg")}});
  WriteState({SpRecord{"noimg", 3, "/data/rvx/imgs/noimg.zip"}.Line()});

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_EQ(run.exit_code, 0) << run.output;
  const std::vector<Json::Value> statuses = NativeMsgStatuses(run, "noimg");
  ASSERT_FALSE(statuses.empty()) << run.output;
  EXPECT_EQ(statuses[0]["status"], -7) << run.output;
  EXPECT_EQ(statuses[0]["reason"].asString(),
            "Could not find entry \"update_payload.img\" in package /data/rvx/imgs/noimg.zip: "
            "Entry not found");
  EXPECT_EQ(EngineLogCount(run, "Kelb failed to open rpk_public_key"), 0u);
}

TEST_F(PackageRefusalTest, MissingTrustedKeyIsReportedForEveryPackage) {
  AddPackage("a.zip", Config("a"));
  AddPackage("b.zip", Config("b"));
  WriteState({SpRecord{"a", 3, "/data/rvx/imgs/a.zip"}.Line(),
              SpRecord{"b", 3, "/data/rvx/imgs/b.zip"}.Line()});

  SandboxRun run = RunMend();
  ASSERT_TRUE(run.finished) << run.output;
  EXPECT_FALSE(run.rebooted) << "nothing was mounted";
  for (const char* name : {"a", "b"}) {
    const std::vector<Json::Value> statuses = NativeMsgStatuses(run, name);
    ASSERT_FALSE(statuses.empty()) << name << "\n" << run.output;
    EXPECT_EQ(statuses[0]["status"], -7) << name;
    EXPECT_EQ(statuses[0]["reason"].asString(),
              "Failed to find rpk_public_key /system/etc/security/rpk_public_key")
        << name;
  }
  EXPECT_EQ(EngineLogCount(run, "Kelb failed to open rpk_public_key"), 2u) << run.output;
}

}  // namespace
}  // namespace mend_test
