#pragma once

// Helpers for the rpktool tests: running the tool, scratch directories,
// fixture paths, test keys and source trees.

#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rpktool_test {

struct ToolRun {
  int exit_code;
  std::string out;
  std::string err;
};

// Runs the rpktool binary with `args`; `env` entries ("NAME=value") are
// added to the environment.
ToolRun RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
// Runs any program; exit code and combined output.
ToolRun RunProgram(const std::vector<std::string>& argv);

// A fresh directory, removed with its contents at destruction.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// tests/fixtures/avbtool in the source tree.
std::string FixtureDir();
std::string FixturePath(const std::string& relative);

// An RSA key of `bits` bits made with openssl, generated once and kept in
// the build tree (8192-bit keys take a while).
std::string TestKey(unsigned bits);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& data);
void MakeDirs(const std::string& path);
// XORs the byte at `offset` with 0xff.
void FlipByte(const std::string& path, uint64_t offset);

// The fixture packages' config.txt text, with another package name.
std::string SampleConfig(const std::string& name = "demo_fix1");
// A small source tree: a few files with data, an empty file, a symlink and
// a nested directory; returns its path.
std::string MakeSampleTree(const ScratchDir& dir);

// Parses JSON text; a null value when it does not parse.
Json::Value ParseJson(const std::string& text);
// `info --json` of a package (must succeed).
Json::Value Info(const std::string& package);
// The image member's bytes, copied out of a package into `path`.
void ExtractImage(const std::string& package, const std::string& path);
// The trusted-key blob of a PEM key, written next to nothing else: returns
// the blob's path inside `dir`.
std::string KeyBlob(const ScratchDir& dir, const std::string& pem);

}  // namespace rpktool_test
