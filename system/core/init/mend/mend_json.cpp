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

std::optional<std::string> jsonRootProblem(const Json::Value& root) {
  // Members of null read as null; any other non-object refuses member access.
  if (root.isObject() || root.isNull()) return std::nullopt;
  return std::string("the line holds no JSON object");
}

}  // namespace init
}  // namespace android
