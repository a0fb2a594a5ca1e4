#include <android-base/parseint.h>

#include <cstdio>
#include <cstdlib>

#include "arg_parser.h"
#include "commands.h"
#include "file_io.h"
#include "hex.h"
#include "package_builder.h"
#include "package_config.h"
#include "parallel.h"

namespace rpktool {

namespace {

constexpr char kVerb[] = "make";
constexpr size_t kMaxConfigSize = 1 << 20;

// Bytes, optionally with a K, M or G suffix (powers of 1024).
bool ParseSize(const std::string& text, uint64_t* out) {
  if (text.empty()) return false;
  uint64_t unit = 1;
  std::string digits = text;
  switch (text.back()) {
    case 'K': case 'k': unit = 1ull << 10; break;
    case 'M': case 'm': unit = 1ull << 20; break;
    case 'G': case 'g': unit = 1ull << 30; break;
    default: break;
  }
  if (unit != 1) digits.pop_back();
  uint64_t value = 0;
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos ||
      !android::base::ParseUint(digits, &value) || value > UINT64_MAX / unit) {
    return false;
  }
  *out = value * unit;
  return true;
}

}  // namespace

int RunMake(const std::vector<std::string>& args) {
  std::string config_path, root, key, output, algorithm, salt_hex, partition_size, jobs;
  bool force = false, quiet = false, verbose = false;
  ArgParser parser(
      "rpktool make --config FILE --root DIR --key PEM --output ZIP [options]",
      "Builds a signed repair package: an ext4 image of DIR (mke2fs), its dm-verity hash\n"
      "tree, a vbmeta block signed with PEM and the AVB footer, stored with FILE as\n"
      "config.txt in ZIP (image data aligned to 4096 bytes). The hash tree uses sha256\n"
      "for SHA256_* algorithms and sha512 for SHA512_* ones. Set SOURCE_DATE_EPOCH (and\n"
      "--salt) for byte-identical rebuilds.");
  parser.AddOption("config", "FILE", "The package's config.txt; checked as the daemon reads it.",
                   &config_path, true);
  parser.AddOption("root", "DIR", "Directory whose contents become the image's root.", &root, true);
  parser.AddOption("key", "PEM", "RSA private key (2048, 4096 or 8192 bits, exponent 65537).",
                   &key, true);
  parser.AddOption("output", "ZIP", "Package to write; replaced only once complete.", &output,
                   true);
  parser.AddOption("algorithm", "NAME",
                   "SHA256_RSA2048 ... SHA512_RSA8192; default SHA256 with the key's size.",
                   &algorithm);
  parser.AddOption("salt", "HEX", "Hash tree salt (1-256 bytes); default random, digest-sized.",
                   &salt_hex);
  parser.AddOption("partition-size", "BYTES",
                   "Exact image size (suffix K, M or G allowed, multiple of 4096); the\n"
                   "      filesystem gets all room left after tree, vbmeta and footer.\n"
                   "      Default: the filesystem is sized to fit DIR with some headroom.",
                   &partition_size);
  parser.AddOption("jobs", "N", "Hashing threads; default: the number of CPUs.", &jobs);
  parser.AddFlag("force", "Build even when config.txt has errors (to make test packages).",
                 &force);
  parser.AddFlag("quiet", "Print nothing but errors and warnings.", &quiet);
  parser.AddFlag("verbose", "Also print the mke2fs command lines.", &verbose);
  auto parsed = parser.Parse(args);
  if (!parsed.ok()) {
    ReportError(kVerb, parsed.error().message() + " (see rpktool make --help)");
    return kExitUsage;
  }
  if (!*parsed) return kExitOk;

  MakeRequest request;
  request.source_dir = root;
  request.key_path = key;
  request.output_path = output;
  request.threads = DefaultThreadCount();
  if (!algorithm.empty()) request.algorithm = algorithm;
  if (!salt_hex.empty()) {
    auto salt = ParseHex(salt_hex);
    if (!salt.ok()) {
      ReportError(kVerb, "--salt: " + salt.error().message());
      return kExitUsage;
    }
    request.salt = *salt;
  }
  if (!partition_size.empty()) {
    uint64_t size = 0;
    if (!ParseSize(partition_size, &size)) {
      ReportError(kVerb, "--partition-size: '" + partition_size + "' is not a size in bytes");
      return kExitUsage;
    }
    request.partition_size = size;
  }
  if (!jobs.empty()) {
    unsigned count = 0;
    if (!android::base::ParseUint(jobs, &count, 1024u) || count == 0) {
      ReportError(kVerb, "--jobs: '" + jobs + "' is not a thread count");
      return kExitUsage;
    }
    request.threads = count;
  }
  if (const char* epoch = getenv("SOURCE_DATE_EPOCH"); epoch && *epoch) {
    int64_t value = 0;
    if (!android::base::ParseInt(epoch, &value, int64_t{0})) {
      ReportError(kVerb, "SOURCE_DATE_EPOCH is not a number of seconds");
      return kExitUsage;
    }
    request.fixed_time = value;
  }

  auto config_text = ReadSmallFile(config_path, kMaxConfigSize);
  if (!config_text.ok()) {
    ReportError(kVerb, config_text.error().message());
    return kExitFailure;
  }
  request.config_text = *config_text;
  const PackageConfig config = ParsePackageConfig(request.config_text);
  for (const auto& issue : config.issues) {
    fprintf(stderr, "%s: %s: %s\n", config_path.c_str(), issue.is_error ? "error" : "warning",
            issue.message.c_str());
  }
  if (config.HasErrors() && !force) {
    ReportError(kVerb, config_path + " has errors; fix them or pass --force");
    return kExitFailure;
  }

  auto made = MakePackage(request);
  if (!made.ok()) {
    ReportError(kVerb, made.error().message());
    return kExitFailure;
  }
  for (const auto& warning : made->warnings) fprintf(stderr, "warning: %s\n", warning.c_str());
  if (verbose) {
    for (const auto& command : made->mke2fs_commands) printf("mke2fs:      %s\n", command.c_str());
  }
  if (!quiet) {
    const ImageLayout& layout = made->layout;
    printf("package:     %s\n", output.c_str());
    printf("image:       %llu bytes at offset %llu of the zip\n",
           static_cast<unsigned long long>(layout.image_size),
           static_cast<unsigned long long>(made->image_data_offset));
    printf("filesystem:  ext4, %llu bytes\n", static_cast<unsigned long long>(layout.fs_size));
    printf("hash tree:   %s, %llu bytes at %llu\n", made->tree_hash.c_str(),
           static_cast<unsigned long long>(layout.tree.tree_size),
           static_cast<unsigned long long>(layout.fs_size));
    printf("salt:        %s\n", ToHex(made->salt).c_str());
    printf("root digest: %s\n", ToHex(made->root_digest).c_str());
    printf("vbmeta:      %s, %llu bytes at %llu\n", made->algorithm.name,
           static_cast<unsigned long long>(layout.vbmeta_size),
           static_cast<unsigned long long>(layout.vbmeta_offset));
  }
  return kExitOk;
}

}  // namespace rpktool
