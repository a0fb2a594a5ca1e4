#include "mend_json.h"

namespace android {
namespace init {

std::string toCompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

bool parseJsonLine(const std::string& line, Json::Value* root) {
  Json::Reader reader;
  return reader.parse(line, *root);
}

}  // namespace init
}  // namespace android
