#pragma once

// Helpers for the rpktool tests: running the tool, test keys, a sample
// source tree and what `info` reports. Files, fixtures and programs come
// from the shared test support.

#include <json/json.h>

#include <string>
#include <vector>

#include "avb_fixtures.h"
#include "daemon_records.h"
#include "run_program.h"
#include "test_files.h"

namespace mend_test {

// Runs the rpktool binary with `args`, its standard output and error kept
// apart; `env` entries ("NAME=value") are added to the environment.
ProgramRun RunTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {});

// An RSA key of `bits` bits made with openssl, generated once and kept in
// the build tree (8192-bit keys take a while).
std::string TestKey(unsigned bits);

// A small source tree in `dir`: a few files with data, an empty file, a
// symlink and a nested directory; returns its path.
std::string MakeSampleTree(const TempDir& dir);

// Parses JSON text; a null value when it does not parse.
Json::Value ParseJson(const std::string& text);
// `info --json` of a package.
Json::Value Info(const std::string& package);
// The image member's bytes, copied out of a package into `path`.
void ExtractImage(const std::string& package, const std::string& path);
// The trusted-key blob of a PEM key, made by extract-public-key in `dir`;
// returns its path.
std::string ExtractKeyBlob(const TempDir& dir, const std::string& pem);

}  // namespace mend_test
