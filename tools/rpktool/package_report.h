#pragma once

// The parts of the info and verify reports that both show.

#include <cstdint>
#include <string>
#include <vector>

#include "package_verifier.h"
#include "report.h"

namespace rpktool {

Json::Value U64(uint64_t value);
// Hex digest of `data` with hash `name` ("sha1", "sha256").
std::string DigestHex(const char* name, const std::vector<uint8_t>& data);

// The config's values as the daemon sees them, its errors and warnings.
void AddConfig(const Inspection& inspection, Report* report);
// Other reasons for refusal and what could not be checked.
void AddProblems(const Inspection& inspection, Report* report);

}  // namespace rpktool
