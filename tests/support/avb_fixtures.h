#pragma once

// The reference packages under tests/fixtures/avbtool and their manifest.

#include <json/json.h>

#include <string>

namespace mend_test {

// Path of `relative` inside the source tree.
std::string SourcePath(const std::string& relative);
// Path of `relative` inside tests/fixtures/avbtool.
std::string AvbFixture(const std::string& relative);

// Every package entry of manifest.json, in file order.
const Json::Value& ManifestPackages();
// The manifest entry of package `name`; aborts when there is none.
const Json::Value& ManifestPackage(const std::string& name);

}  // namespace mend_test
