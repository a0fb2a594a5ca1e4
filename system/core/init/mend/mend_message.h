#pragma once

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>

#include "mend_package.h"

namespace android {
namespace init {

// One message of the application channel, one JSON line of app.msg or
// native.msg.
struct MendRepairMessage {
  std::string update_package_name;
  int64_t update_version_code = 0;
  std::string msg_source;
  int64_t task_id = 0;
  std::string image_path;
  bool need_response = false;
  int32_t msg_type = 0;
  std::string response_content;
};

// The message in a JSON object; a member of the wrong type ends the process
// through the library error.
MendRepairMessage messageFromJson(const Json::Value& root);
// Why messageFromJson would end the process on `root`, or nullopt.
std::optional<std::string> messageJsonProblem(const Json::Value& root);

// The message as one compact JSON line.
std::string jsonObj2String(MendRepairMessage message);

// The channel with the application: its requests in app.msg, the daemon's
// reports in native.msg; each file is rewritten whole from its map.
class MendMessageManager {
 public:
  static MendMessageManager* GetInstance();

  // The message on one line; a default message when the line is not JSON.
  MendRepairMessage parseMessage(std::string line);
  void syncMsgList();
  bool writeMessage(MendRepairPackage package, bool needResponse, int msgType,
                    std::string content);
  bool writeMsgResponse(MendRepairPackage package, std::string content);

 private:
  MendMessageManager() = default;
};

}  // namespace init
}  // namespace android
