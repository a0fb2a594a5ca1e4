#include "verbs.h"

namespace rpktool {

namespace {

const Option kJson{"json", nullptr, "Print one JSON object instead of text."};
const Option kJobs{"jobs", "N", "Hashing threads; default: the number of CPUs."};
const Option kStrict{"strict", nullptr,
                     "Treat config.txt warnings as errors: what the daemon accepts but\n"
                     "will likely not work as meant."};

}  // namespace

const std::vector<Verb>& Verbs() {
  static const std::vector<Verb> kVerbs = {
      {"make", "build and sign a package from a directory tree",
       "make --config FILE --root DIR --key PEM --output ZIP [options]",
       "Builds a signed repair package: an ext4 image of DIR (mke2fs), its dm-verity hash\n"
       "tree, a vbmeta block signed with PEM and the footer, stored with FILE as config.txt\n"
       "in ZIP (image data aligned to 4096 bytes). Refuses a config.txt or a tree that a\n"
       "device would fail on. ZIP appears only when complete and may not be an input or\n"
       "lie inside DIR. With SOURCE_DATE_EPOCH set (and --salt) the package is the same\n"
       "byte for byte wherever DIR lies and whatever its files' times.",
       {{"config", "FILE", "The package's config.txt ('-': standard input).", true,
         Completion::kFile},
        {"root", "DIR", "Directory whose contents become the image's root.", true,
         Completion::kDirectory},
        {"key", "PEM", "RSA private key, 2048, 4096 or 8192 bits ('-': standard input).", true,
         Completion::kFile},
        {"output", "ZIP", "Package to write; replaced only once complete.", true,
         Completion::kFile},
        {"algorithm", "NAME", "Signing algorithm; default SHA256 with the key's size.", false,
         Completion::kChoices,
         "SHA256_RSA2048 SHA256_RSA4096 SHA256_RSA8192 SHA512_RSA2048 SHA512_RSA4096 "
         "SHA512_RSA8192"},
        {"salt", "HEX", "Hash tree salt, 1 to 256 bytes; default random, digest-sized."},
        {"partition-size", "BYTES",
         "Exact image size (suffix K, M or G; a multiple of 4096); the filesystem\n"
         "gets all room left after tree, vbmeta and footer. Default: fitted to DIR."},
        {"owner", "UID", "Owner of every file in the image (number)."},
        {"group", "GID", "Group of every file in the image (number)."},
        {"mode-mask", "OCTAL", "Permission bits to clear from every file, as a umask."},
        {"overrides", "FILE",
         "Per-path owner, group and mode: lines 'PATH UID GID MODE' (PATH in the\n"
         "image, without blanks; MODE octal; '#' starts a comment). These win over\n"
         "the three above.",
         false, Completion::kFile},
        kJobs,
        {"force", nullptr, "Build even when config.txt or the tree has errors (test packages)."},
        kStrict,
        {"quiet", nullptr, "Print nothing but warnings and errors."},
        {"verbose", nullptr, "Also print the mke2fs command lines."},
        kJson},
       nullptr, "", RunMake},
      {"extract-public-key", "write the trusted-key blob of an RSA key",
       "extract-public-key --key PEM --output FILE",
       "Writes the public key blob of PEM (a private or public RSA key) to FILE: the bytes\n"
       "a device trusts as /system/etc/security/rpk_public_key. FILE '-' writes to\n"
       "standard output; otherwise it may not be PEM itself.",
       {{"key", "PEM", "RSA key, 2048, 4096 or 8192 bits ('-': standard input).", true,
         Completion::kFile},
        {"output", "FILE", "Where to write the blob ('-': standard output).", true,
         Completion::kFile}},
       nullptr, "", RunExtractPublicKey},
      {"info", "show a package's zip layout, config, metadata and verity table",
       "info [--json] ZIP",
       "Shows a package without checking its data: zip members, config.txt with what the\n"
       "daemon makes of it, where the image lies, the footer, the vbmeta header, the\n"
       "embedded key, the descriptors and the dm-verity tables the daemon loads. Exits 1\n"
       "when the daemon would refuse the package before reading its data, as verify does.",
       {kJson, kStrict}, "ZIP", "The package.", RunInfo},
      {"verify", "check a package offline: signature, key, hash tree, config",
       "verify [--key BLOB] [--json] ZIP",
       "Checks a package as the daemon would before mounting it, with the daemon's own code\n"
       "for the footer, the vbmeta signature, the key and the hashtree descriptor; then\n"
       "checks every data and hash-tree block against the tree in parallel and names the\n"
       "first bad one; then checks config.txt, and that every module_path is a directory in\n"
       "the image. Without --key the package's own key is used, which proves the image is\n"
       "intact but not who signed it. Exits 1 on failure.",
       {{"key", "BLOB",
         "The trusted key: a key blob (as /system/etc/security/rpk_public_key) or\n"
         "a PEM RSA key.",
         false, Completion::kFile},
        kJobs, kJson, kStrict,
        {"verbose", nullptr, "Also show the daemon code's log lines."}},
       "ZIP", "The package.", RunVerify},
  };
  return kVerbs;
}

const Verb* FindVerb(const std::string& name) {
  for (const Verb& verb : Verbs()) {
    if (name == verb.name) return &verb;
  }
  return nullptr;
}

}  // namespace rpktool
