// The state store and the message channel called directly. Each test runs in
// its own sandboxed process (fresh root, fresh process-wide maps), so the
// fixed /data/rvx paths are the test's own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "mend_message.h"
#include "mend_shared_prefs.h"
#include "test_files.h"

namespace android {
namespace init {
namespace {

const char kSp[] = "/data/rvx/files/shared_prefs.cfg";
const char kApp[] = "/data/rvx/msgs/app.msg";
const char kNative[] = "/data/rvx/msgs/native.msg";

using mend_test::ReadFileOrEmpty;
using mend_test::WriteWholeFile;

MendRepairPackage Package(const std::string& name, int64_t version, int64_t task = 0) {
  MendRepairPackage p;
  p.update_package_name = name;
  p.update_version_code = version;
  p.task_id = task;
  p.image_path = "/data/rvx/imgs/" + name + ".zip";
  return p;
}

class StateStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // These tests write the device's fixed paths: never on a host.
    ASSERT_NE(getenv("MEND_SANDBOX"), nullptr) << "run through scripts/sandbox";
    std::filesystem::create_directories("/data/rvx/files");
    std::filesystem::create_directories("/data/rvx/msgs");
  }
  MendSharedPrefsManager* prefs = MendSharedPrefsManager::GetInstance();
  MendMessageManager* messages = MendMessageManager::GetInstance();
};

TEST_F(StateStoreTest, ReadMatchesByNameButUpdatesNeedNameAndVersion) {
  WriteWholeFile(kSp, "{\"update_package_name\":\"a\",\"update_version_code\":3,\"task_id\":9}\n");
  const std::string before = ReadFileOrEmpty(kSp);
  prefs->syncSpList();

  EXPECT_FALSE(prefs->updateRepairStatus(Package("a", 4), true));
  EXPECT_FALSE(prefs->updateCanDelete(Package("a", 4), true));
  EXPECT_FALSE(prefs->updateBootFailedCount(Package("b", 3)));
  EXPECT_EQ(ReadFileOrEmpty(kSp), before);
  EXPECT_EQ(prefs->readSp(Package("a", 4)).task_id, 9);
  EXPECT_EQ(prefs->readSp(Package("zzz", 3)).update_package_name, "");

  EXPECT_TRUE(prefs->updateRepairStatus(Package("a", 3), true));
  EXPECT_TRUE(prefs->readSp(Package("a", 3)).is_repair_success);
  EXPECT_NE(ReadFileOrEmpty(kSp), before);
}

TEST_F(StateStoreTest, ResponseNeedsAnAppMessageAndChangesOnlyItsContent) {
  messages->syncMsgList();
  EXPECT_FALSE(messages->writeMsgResponse(Package("a", 1), "{\"status\":1}"));
  EXPECT_FALSE(std::filesystem::exists(kApp));

  WriteWholeFile(kApp,
        "{\"update_package_name\":\"a\",\"update_version_code\":1,\"msg_source\":\"whoever\","
        "\"need_response\":true,\"msg_type\":3,\"task_id\":4,\"image_path\":\"/x\"}\n"
        "junk\n");
  messages->syncMsgList();
  EXPECT_FALSE(messages->writeMsgResponse(Package("b", 1), "{\"status\":1}"));
  // The version is not compared: the app's message for the name is answered.
  EXPECT_TRUE(messages->writeMsgResponse(Package("a", 9), "{\"status\":1}"));
  EXPECT_EQ(ReadFileOrEmpty(kApp),
            "{\"image_path\":\"\",\"msg_source\":\"\",\"msg_type\":0,\"need_response\":false,"
            "\"response_content\":\"\",\"task_id\":0,\"update_package_name\":\"\","
            "\"update_version_code\":0}\n"
            "{\"image_path\":\"/x\",\"msg_source\":\"whoever\",\"msg_type\":3,\"need_response\":true,"
            "\"response_content\":\"{\\\"status\\\":1}\",\"task_id\":4,\"update_package_name\":\"a\","
            "\"update_version_code\":1}\n");
}

}  // namespace
}  // namespace init
}  // namespace android
