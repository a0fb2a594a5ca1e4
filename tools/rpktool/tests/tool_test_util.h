#pragma once

// Helpers for the rpktool tests: running the tool, keys, sample inputs and
// what `info` reports; files, fixtures and programs come from test support.

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

// An RSA key of `bits` bits (2048 or 8192), generated once per build tree.
std::string TestKey(unsigned bits);

// In `dir`: config.txt for package `name`, and a source tree "root" with
// /system/lib64 and /system/app (files with data, an empty file, a symlink
// and a nested directory).
void MakeSampleInputs(const TempDir& dir, const std::string& name = "demo_fix1");

// `make` of the sample inputs in `dir` with `key` into `output`.
ProgramRun Make(const TempDir& dir, const std::string& key, const std::string& output,
                const std::vector<std::string>& extra = {},
                const std::vector<std::string>& env = {});

// Parses JSON text; a null value when it does not parse.
Json::Value ParseJson(const std::string& text);
// `info --json` of a package.
Json::Value Info(const std::string& package);
// The image member's bytes, copied out of a package into `path`.
void ExtractImage(const std::string& package, const std::string& path);

}  // namespace mend_test
