#include "avb_fixtures.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace mend_test {

std::string SourcePath(const std::string& relative) {
  return std::string(MEND_SOURCE_DIR) + "/" + relative;
}

std::string AvbFixture(const std::string& relative) {
  return SourcePath("tests/fixtures/avbtool/" + relative);
}

const Json::Value& ManifestPackages() {
  static const Json::Value packages = [] {
    std::ifstream in(AvbFixture("manifest.json"));
    Json::Value root;
    if (!in || !Json::Reader().parse(in, root) || !root["packages"].isArray()) {
      fprintf(stderr, "cannot read %s\n", AvbFixture("manifest.json").c_str());
      abort();
    }
    return root["packages"];
  }();
  return packages;
}

const Json::Value& ManifestPackage(const std::string& name) {
  for (const Json::Value& package : ManifestPackages()) {
    if (package["name"].asString() == name) return package;
  }
  fprintf(stderr, "no package %s in the manifest\n", name.c_str());
  abort();
}

}  // namespace mend_test
