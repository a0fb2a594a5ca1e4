#pragma once

#include <json/json.h>

#include <string>

namespace android {
namespace init {

// One compact JSON line (no blanks, members in key order, no line break), as
// all three state files store their records.
std::string toCompactJson(const Json::Value& value);

// Parses one line with the reader's default features (comments allowed).
bool parseJsonLine(const std::string& line, Json::Value* root);

}  // namespace init
}  // namespace android
