#include "mend_message.h"

#include <fstream>
#include <map>

#include "mend_json.h"
#include "mend_log.h"
#include "mend_state_files.h"

namespace android {
namespace init {
namespace {

// Mirrors of app.msg and native.msg, keyed by package name.
std::map<std::string, MendRepairMessage> appMsgMap;
std::map<std::string, MendRepairMessage> nativeMsgMap;

// The first message, in map order, about the package's name (any version).
const MendRepairMessage* findByName(const std::map<std::string, MendRepairMessage>& messages,
                                    const std::string& name) {
  for (const auto& [key, message] : messages) {
    if (message.update_package_name == name) return &message;
  }
  return nullptr;
}

void loadMessages(const char* path, const char* log_format,
                  std::map<std::string, MendRepairMessage>* messages) {
  forEachLine(path, [&](const std::string& line) {
    MEND_LOG(log_format, line.c_str());
    MendRepairMessage message = MendMessageManager::GetInstance()->parseMessage(line);
    (*messages)[message.update_package_name] = message;
  });
}

void saveMessages(const char* path, const char* open_failed_format, const char* line_format,
                  const std::map<std::string, MendRepairMessage>& messages) {
  std::ofstream out(path, std::ios::out | std::ios::trunc);
  if (!out.is_open()) MEND_LOG(open_failed_format, path);
  for (const auto& [key, message] : messages) {
    const std::string text = jsonObj2String(message);
    MEND_LOG(line_format, text.c_str());
    out << text << "\n";
  }
}

}  // namespace

std::string jsonObj2String(MendRepairMessage message) {
  Json::Value root;
  root["update_package_name"] = message.update_package_name;
  root["update_version_code"] = Json::Int64(message.update_version_code);
  root["msg_source"] = message.msg_source;
  root["task_id"] = Json::Int64(message.task_id);
  root["image_path"] = message.image_path;
  root["need_response"] = message.need_response;
  root["msg_type"] = message.msg_type;
  root["response_content"] = message.response_content;
  return toCompactJson(root);
}

namespace {

// The members as the channel reads them; the 64-bit members are converted as
// 32-bit ints.
using MessageMember = JsonMember<MendRepairMessage>;
const MessageMember kMessageMembers[] = {
    {"update_package_name", Json::stringValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->update_package_name = v.asString(); }},
    {"update_version_code", Json::intValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->update_version_code = v.asInt(); }},
    {"msg_source", Json::stringValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->msg_source = v.asString(); }},
    {"task_id", Json::intValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->task_id = v.asInt(); }},
    {"image_path", Json::stringValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->image_path = v.asString(); }},
    {"need_response", Json::booleanValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->need_response = v.asBool(); }},
    {"msg_type", Json::intValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->msg_type = v.asInt(); }},
    {"response_content", Json::stringValue,
     [](const Json::Value& v, MendRepairMessage* m) { m->response_content = v.asString(); }},
};

}  // namespace

MendRepairMessage messageFromJson(const Json::Value& root) {
  return recordFromJson(root, kMessageMembers);
}

std::optional<std::string> messageJsonProblem(const Json::Value& root) {
  return recordJsonProblem(root, kMessageMembers);
}

MendMessageManager* MendMessageManager::GetInstance() {
  static MendMessageManager instance;
  return &instance;
}

MendRepairMessage MendMessageManager::parseMessage(std::string line) {
  Json::Value root;
  if (!parseJsonLine(line, &root)) return MendRepairMessage();
  return messageFromJson(root);
}

void MendMessageManager::syncMsgList() {
  loadMessages(android::mend::kAppMsgFile, "app content: %s ", &appMsgMap);
  loadMessages(android::mend::kNativeMsgFile, "native content: %s ", &nativeMsgMap);
}

bool MendMessageManager::writeMessage(MendRepairPackage package, bool needResponse, int msgType,
                                      std::string content) {
  MEND_LOG("writeMessage : %ld", static_cast<long>(package.task_id));
  MendRepairMessage message;
  if (const MendRepairMessage* earlier = findByName(nativeMsgMap, package.update_package_name)) {
    message = *earlier;
  } else {
    message.update_package_name = package.update_package_name;
    message.update_version_code = package.update_version_code;
    message.msg_source = "mend";
    message.image_path = package.image_path;
  }
  message.task_id = package.task_id;
  message.msg_type = msgType;
  message.need_response = needResponse;
  message.response_content = content;
  nativeMsgMap[package.update_package_name] = message;
  MEND_LOG("saveNativeMsg");
  // The open-failure line says "spfile" for native.msg too; that wording is
  // what the log has always carried.
  saveMessages(android::mend::kNativeMsgFile, "Unable to open spfile : %s ", "saveNativeMsg : %s ",
               nativeMsgMap);
  return true;
}

bool MendMessageManager::writeMsgResponse(MendRepairPackage package, std::string content) {
  MEND_LOG("writeMsgResponse : %s", content.c_str());
  const MendRepairMessage* request = findByName(appMsgMap, package.update_package_name);
  if (request == nullptr) {
    MEND_LOG("not found repair package msg in app file");
    return false;
  }
  MendRepairMessage message = *request;
  message.response_content = content;
  appMsgMap[package.update_package_name] = message;
  MEND_LOG("saveAppMsg");
  saveMessages(android::mend::kAppMsgFile, "Unable to open appFile : %s ", "saveAppMsg : %s ",
               appMsgMap);
  return true;
}

}  // namespace init
}  // namespace android
