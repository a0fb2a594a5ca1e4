#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace android {
namespace init {

// One compact JSON line (no blanks, members in key order, no line break), as
// all three state files store their records.
std::string toCompactJson(const Json::Value& value);

// Parses one line with the reader's default features (comments allowed).
bool parseJsonLine(const std::string& line, Json::Value* root);

// One member of a record read from a JSON object: its key, the JSON type it
// is converted to, and the conversion into the record.
template <typename Record>
struct JsonMember {
  const char* key;
  Json::ValueType type;
  void (*read)(const Json::Value& value, Record* record);
};

// Fills a record from `root` member by member. A value the library cannot
// convert raises its error, which nothing catches.
template <typename Record, size_t N>
Record recordFromJson(const Json::Value& root, const JsonMember<Record> (&members)[N]) {
  Record record;
  for (const JsonMember<Record>& member : members) member.read(root[member.key], &record);
  return record;
}

// Why recordFromJson would end the process on `root`, or nullopt when every
// member converts: a root that is no object, or the first member whose value
// has the wrong type or lies outside the 32-bit range.
std::optional<std::string> jsonRootProblem(const Json::Value& root);
template <typename Record, size_t N>
std::optional<std::string> recordJsonProblem(const Json::Value& root,
                                             const JsonMember<Record> (&members)[N]) {
  if (auto problem = jsonRootProblem(root)) return problem;
  for (const JsonMember<Record>& member : members) {
    if (!root[member.key].isConvertibleTo(member.type)) {
      return std::string("member \"") + member.key + "\" cannot be read as " +
             (member.type == Json::intValue      ? "a 32-bit integer"
              : member.type == Json::booleanValue ? "a bool"
                                                  : "a string");
    }
  }
  return std::nullopt;
}

}  // namespace init
}  // namespace android
