#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <json/json.h>
#include <openssl/evp.h>

#include <cstdio>

#include "arg_parser.h"
#include "commands.h"
#include "hex.h"
#include "package_verifier.h"
#include "parallel.h"

namespace rpktool {

namespace {

constexpr char kVerb[] = "verify";

std::string Sha256Hex(const std::vector<uint8_t>& data) {
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
  return ToHex(digest, length);
}

Json::Value BadBlockJson(const BadBlock& bad) {
  Json::Value out(Json::objectValue);
  out["kind"] = bad.is_data ? "data" : "hash";
  out["index"] = static_cast<Json::UInt64>(bad.index);
  out["image_offset"] = static_cast<Json::UInt64>(bad.image_offset);
  if (bad.is_data) {
    out["zero_at_signing"] = bad.zero_at_signing;
  } else {
    out["level"] = bad.level;
    out["levels"] = bad.level_count;
  }
  out["description"] = DescribeBadBlock(bad);
  return out;
}

Json::Value OutcomeJson(const std::string& path, const std::string& key_source,
                        const VerifyOutcome& outcome) {
  Json::Value out(Json::objectValue);
  out["package"] = path;
  out["ok"] = outcome.ok();
  if (!outcome.ok()) out["failure"] = outcome.FailureReason();
  out["key"]["source"] = key_source;
  out["key"]["sha256"] = outcome.key.empty() ? "" : Sha256Hex(outcome.key);
  out["key"]["size"] = static_cast<Json::UInt64>(outcome.key.size());
  out["avb"]["ok"] = outcome.avb_error.empty();
  out["avb"]["error"] = outcome.avb_error;
  out["avb"]["algorithm"] = outcome.algorithm;
  Json::Value tree(Json::objectValue);
  tree["checked"] = outcome.tree.has_value();
  tree["ok"] = outcome.tree.has_value() && !outcome.tree->bad_block && outcome.tree_error.empty();
  tree["error"] = outcome.tree_error;
  if (outcome.verity) {
    tree["hash_algorithm"] = outcome.verity->hash_algorithm;
    tree["salt"] = ToHex(outcome.verity->salt);
    tree["root_digest"] = ToHex(outcome.verity->root_digest);
    tree["image_size"] = static_cast<Json::UInt64>(outcome.verity->image_size);
    tree["tree_offset"] = static_cast<Json::UInt64>(outcome.verity->tree_offset);
    tree["tree_size"] = static_cast<Json::UInt64>(outcome.verity->tree_size);
  }
  if (outcome.tree) {
    tree["data_blocks"] = static_cast<Json::UInt64>(outcome.tree->data_blocks);
    tree["zero_blocks"] = static_cast<Json::UInt64>(outcome.tree->zero_blocks);
    if (outcome.tree->bad_block) tree["bad_block"] = BadBlockJson(*outcome.tree->bad_block);
  }
  out["hash_tree"] = tree;
  out["config"]["errors"] = Json::Value(Json::arrayValue);
  out["config"]["warnings"] = Json::Value(Json::arrayValue);
  for (const auto& e : outcome.config_errors) out["config"]["errors"].append(e);
  for (const auto& w : outcome.config_warnings) out["config"]["warnings"].append(w);
  out["problems"] = Json::Value(Json::arrayValue);
  for (const auto& p : outcome.problems) out["problems"].append(p);
  return out;
}

void PrintText(const std::string& path, const std::string& key_source,
               const VerifyOutcome& outcome) {
  printf("package:    %s\n", path.c_str());
  if (outcome.key.empty()) {
    printf("key:        none (%s)\n", key_source.c_str());
  } else {
    printf("key:        %s, %zu bytes, sha256 %s\n", key_source.c_str(), outcome.key.size(),
           Sha256Hex(outcome.key).c_str());
  }
  if (outcome.avb_error.empty()) {
    printf("avb:        OK (%s; footer, signature, key and hashtree descriptor)\n",
           outcome.algorithm.c_str());
  } else {
    printf("avb:        FAILED: %s\n", outcome.avb_error.c_str());
  }
  if (!outcome.tree_error.empty()) {
    printf("hash tree:  FAILED: %s\n", outcome.tree_error.c_str());
  } else if (outcome.tree && outcome.tree->bad_block) {
    printf("hash tree:  FAILED: %s\n", DescribeBadBlock(*outcome.tree->bad_block).c_str());
  } else if (outcome.tree) {
    printf("hash tree:  OK (%s, %llu data blocks of which %llu were all zeros at signing)\n",
           outcome.verity->hash_algorithm.c_str(),
           static_cast<unsigned long long>(outcome.tree->data_blocks),
           static_cast<unsigned long long>(outcome.tree->zero_blocks));
  } else {
    printf("hash tree:  not checked\n");
  }
  printf("config:     %s (%zu warnings)\n", outcome.config_errors.empty() ? "OK" : "FAILED",
         outcome.config_warnings.size());
  for (const auto& e : outcome.config_errors) printf("  error: %s\n", e.c_str());
  for (const auto& w : outcome.config_warnings) printf("  warning: %s\n", w.c_str());
  for (const auto& p : outcome.problems) printf("problem:    %s\n", p.c_str());
  printf("result:     %s\n", outcome.ok() ? "OK" : "FAILED");
}

}  // namespace

int RunVerify(const std::vector<std::string>& args) {
  std::string key_path, jobs;
  bool json = false, verbose = false;
  std::vector<std::string> paths;
  ArgParser parser(
      "rpktool verify [--key BLOB] [--json] ZIP",
      "Checks a package offline as the daemon would before mounting it, using the\n"
      "daemon's own package code for the AVB footer, the vbmeta signature, the key and\n"
      "the hashtree descriptor; then checks every data and hash-tree block against the\n"
      "tree in parallel and names the first bad one (a data block that was all zeros at\n"
      "signing is one that the daemon's dm-verity read, which ignores zero blocks, would\n"
      "not catch); then checks config.txt. Without --key the package's embedded key is\n"
      "used, which proves the image is intact but not who signed it. Exits 1 on failure.");
  parser.AddOption("key", "BLOB",
                   "The trusted key: a key blob (as /system/etc/security/rpk_public_key)\n"
                   "      or a PEM RSA key.",
                   &key_path);
  parser.AddOption("jobs", "N", "Hashing threads; default: the number of CPUs.", &jobs);
  parser.AddFlag("json", "Print one JSON object instead of text.", &json);
  parser.AddFlag("verbose", "Also show the daemon code's log lines.", &verbose);
  parser.SetPositionals("ZIP", "The package.", 1, 1, &paths);
  auto parsed = parser.Parse(args);
  if (!parsed.ok()) {
    ReportError(kVerb, parsed.error().message() + " (see rpktool verify --help)");
    return kExitUsage;
  }
  if (!*parsed) return kExitOk;

  VerifyRequest request;
  request.package_path = paths[0];
  request.threads = DefaultThreadCount();
  if (!jobs.empty() && (!android::base::ParseUint(jobs, &request.threads, 1024u) ||
                        request.threads == 0)) {
    ReportError(kVerb, "--jobs: '" + jobs + "' is not a thread count");
    return kExitUsage;
  }
  std::string key_source = "embedded in the package (no --key: only the signature is checked)";
  if (!key_path.empty()) {
    auto key = LoadTrustedKey(key_path);
    if (!key.ok()) {
      ReportError(kVerb, key.error().message());
      return kExitFailure;
    }
    request.trusted_key = *key;
    key_source = "trusted key " + key_path;
  }
  // The daemon code logs as it goes; keep it quiet unless asked.
  if (verbose) {
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
  } else {
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity, const char*,
                                const char*, unsigned int, const char*) {});
  }

  auto outcome = VerifyPackage(request);
  if (!outcome.ok()) {
    ReportError(kVerb, outcome.error().message());
    return kExitFailure;
  }
  if (json) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    printf("%s\n", Json::writeString(builder, OutcomeJson(paths[0], key_source, *outcome)).c_str());
  } else {
    PrintText(paths[0], key_source, *outcome);
  }
  if (!outcome->ok()) {
    fflush(stdout);
    ReportError(kVerb, "FAILED: " + outcome->FailureReason());
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace rpktool
