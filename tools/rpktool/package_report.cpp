#include "package_report.h"

#include <openssl/evp.h>

#include "hex.h"

namespace rpktool {

Json::Value U64(uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); }

std::string DigestHex(const char* name, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> digest(EVP_MAX_MD_SIZE);
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), digest.data(), &length, EVP_get_digestbyname(name), nullptr);
  digest.resize(length);
  return ToHex(digest);
}

void AddConfig(const Inspection& inspection, Report* report) {
  if (!inspection.package.config_text) return;
  Report& config = report->Section("config", "config.txt");
  Report& values = config.Section("values", "values");
  for (const auto& [key, value] : inspection.config.values) values.Add(key, key, value);
  Json::Value errors(Json::arrayValue), warnings(Json::arrayValue);
  for (const ConfigIssue& issue : inspection.config.issues) {
    (issue.is_error ? errors : warnings).append(issue.message);
  }
  config.Add("errors", "error", errors).Add("warnings", "warning", warnings);
}

void AddProblems(const Inspection& inspection, Report* report) {
  Json::Value problems(Json::arrayValue), notes(Json::arrayValue);
  for (const auto& problem : inspection.problems) problems.append(problem);
  for (const auto& note : inspection.notes) notes.append(note);
  report->Add("problems", "problem", problems).Add("notes", "note", notes);
}

}  // namespace rpktool
