#include <gtest/gtest.h>

#include "mend_json.h"
#include "mend_message.h"
#include "mend_shared_prefs.h"

namespace android {
namespace init {
namespace {

MendRepairMessage ParseMessage(const std::string& line) {
  return MendMessageManager::GetInstance()->parseMessage(line);
}

MendRepairSp ParseSp(const std::string& line) {
  Json::Value root;
  EXPECT_TRUE(parseJsonLine(line, &root)) << line;
  return spFromJson(root);
}

TEST(MessageJsonTest, DefaultMessageRendersEveryMemberInKeyOrder) {
  EXPECT_EQ(jsonObj2String(MendRepairMessage()),
            "{\"image_path\":\"\",\"msg_source\":\"\",\"msg_type\":0,\"need_response\":false,"
            "\"response_content\":\"\",\"task_id\":0,\"update_package_name\":\"\","
            "\"update_version_code\":0}");
}

TEST(MessageJsonTest, ParseTakesMembersByNameWithDefaults) {
  MendRepairMessage m = ParseMessage("{\"msg_type\":5}");
  EXPECT_EQ(m.msg_type, 5);
  EXPECT_EQ(jsonObj2String(m), jsonObj2String([] {
              MendRepairMessage d;
              d.msg_type = 5;
              return d;
            }()));

  EXPECT_EQ(jsonObj2String(ParseMessage("")), jsonObj2String(MendRepairMessage()));
  EXPECT_EQ(jsonObj2String(ParseMessage("not json")), jsonObj2String(MendRepairMessage()));

  // Comments, extra members and trailing text are accepted by the reader.
  m = ParseMessage("/* app */ {\"update_package_name\":\"p\",\"x\":1,\"need_response\":true} tail");
  EXPECT_EQ(m.update_package_name, "p");
  EXPECT_TRUE(m.need_response);

  // Numbers round-trip through jsonObj2String and back.
  MendRepairMessage full;
  full.update_package_name = "n";
  full.update_version_code = -5;
  full.task_id = 2147483647;
  full.msg_type = 256;
  full.response_content = "line\nbreak \"quoted\"";
  EXPECT_EQ(jsonObj2String(ParseMessage(jsonObj2String(full))), jsonObj2String(full));
}

TEST(SharedPrefsJsonTest, SavedRecordReloadsEqual) {
  MendRepairSp sp;
  sp.update_package_name = "p";
  sp.update_version_code = -2147483648LL;
  sp.image_path = "/x";
  sp.boot_failed_count = 7;
  sp.need_cancel = true;
  sp.task_id = 2147483647;
  sp.need_delete = true;
  sp.first_report = true;
  sp.reboot_type = 2;
  sp.cancel_task_id = 11;
  sp.is_async_repair = true;
  const std::string line = toCompactJson(spToJson(sp));
  EXPECT_EQ(toCompactJson(spToJson(ParseSp(line))), line);
  EXPECT_EQ(line.find(' '), std::string::npos);
}

TEST(SharedPrefsJsonTest, SixtyFourBitValuesAreWrittenExactly) {
  MendRepairSp sp;
  sp.task_id = 4294967296LL;
  EXPECT_NE(toCompactJson(spToJson(sp)).find("\"task_id\":4294967296"), std::string::npos);
}

// The daemon never catches the library's conversion errors (the sandbox
// tests show the process ending); the tools ask first, and the answer must
// agree with the conversion for every kind of value.
TEST(RecordJsonTest, TheTypeCheckNamesExactlyWhatTheReadersRefuse) {
  const struct {
    const char* line;
    const char* problem;  // nullptr: both readers take it
  } kCases[] = {
      {"{\"task_id\":\"7\"}", "member \"task_id\""},
      {"{\"update_version_code\":4294967296}", "member \"update_version_code\""},
      {"{\"update_version_code\":-2147483648,\"task_id\":1.9,\"msg_type\":true}", nullptr},
      {"{\"update_package_name\":{}}", "member \"update_package_name\""},
      {"{\"update_package_name\":12,\"image_path\":false,\"task_id\":null}", nullptr},
      {"[1,2]", "no JSON object"},
      {"5", "no JSON object"},
      {"null", nullptr},
  };
  auto agree = [](const std::string& line, const char* problem, bool message) {
    SCOPED_TRACE(line);
    Json::Value root;
    ASSERT_TRUE(parseJsonLine(line, &root));
    const auto found = message ? messageJsonProblem(root) : spJsonProblem(root);
    const auto read = [&] { message ? (void)messageFromJson(root) : (void)spFromJson(root); };
    if (problem == nullptr) {
      EXPECT_EQ(found, std::nullopt);
      EXPECT_NO_THROW(read());
    } else {
      ASSERT_TRUE(found.has_value());
      EXPECT_NE(found->find(problem), std::string::npos) << *found;
      EXPECT_THROW(read(), Json::LogicError);
    }
  };
  for (const auto& c : kCases) {
    agree(c.line, c.problem, true);
    agree(c.line, c.problem, false);
  }
  // A member of one record only is ignored by the other.
  agree("{\"need_response\":\"true\"}", "need_response", true);
  agree("{\"need_response\":\"true\"}", nullptr, false);
  agree("{\"boot_failed_count\":\"1\"}", "boot_failed_count", false);
  agree("{\"boot_failed_count\":\"1\"}", nullptr, true);
}

}  // namespace
}  // namespace init
}  // namespace android
