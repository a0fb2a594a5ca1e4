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

// The daemon never catches these; the sandbox tests show the process ending.
TEST(MessageJsonTest, WrongTypesRaiseTheLibraryError) {
  EXPECT_THROW(ParseMessage("{\"task_id\":\"7\"}"), Json::LogicError);
  EXPECT_THROW(ParseMessage("{\"need_response\":\"true\"}"), Json::LogicError);
  EXPECT_THROW(ParseMessage("{\"update_version_code\":4294967296}"), Json::LogicError);
  EXPECT_THROW(ParseMessage("[1,2]"), Json::LogicError);
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

TEST(SharedPrefsJsonTest, ValuesOutsideThirtyTwoBitsOrOfWrongTypeCannotBeLoaded) {
  EXPECT_THROW(ParseSp("{\"update_version_code\":4294967296}"), Json::LogicError);
  EXPECT_THROW(ParseSp("{\"boot_failed_count\":\"1\"}"), Json::LogicError);
  EXPECT_THROW(ParseSp("{\"update_package_name\":{}}"), Json::LogicError);
  EXPECT_THROW(ParseSp("5"), Json::LogicError);
  // A null document is no object either, but reads as all defaults.
  EXPECT_EQ(ParseSp("null").update_package_name, "");
}

}  // namespace
}  // namespace init
}  // namespace android
