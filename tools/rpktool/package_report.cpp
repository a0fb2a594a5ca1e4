#include "package_report.h"

#include <openssl/evp.h>

#include <cstdio>
#include <sstream>

#include "hex.h"
#include "package_config.h"
#include "public_key_blob.h"
#include "verity_table.h"

namespace rpktool {

namespace {

Json::Value U64(uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); }

std::string Hex32(uint32_t value) {
  char text[9];
  snprintf(text, sizeof(text), "%08x", value);
  return text;
}

std::string DigestHex(const char* name, const std::vector<uint8_t>& data) {
  uint8_t digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), digest, &length, EVP_get_digestbyname(name), nullptr);
  return ToHex(digest, length);
}

Json::Value DescribeConfig(const std::string& text) {
  Json::Value config(Json::objectValue);
  config["text"] = text;
  const PackageConfig parsed = ParsePackageConfig(text);
  config["values"] = Json::Value(Json::objectValue);
  for (const auto& [key, value] : parsed.values) config["values"][key] = value;
  config["errors"] = Json::Value(Json::arrayValue);
  config["warnings"] = Json::Value(Json::arrayValue);
  for (const auto& issue : parsed.issues) {
    config[issue.is_error ? "errors" : "warnings"].append(issue.message);
  }
  return config;
}

Json::Value DescribeDescriptor(const DescriptorInfo& info) {
  Json::Value out(Json::objectValue);
  out["tag"] = U64(info.tag);
  out["type"] = DescriptorTagName(info.tag);
  out["size"] = U64(info.size);
  if (info.hashtree) {
    const Json::Value fields = DescribeHashtree(*info.hashtree);
    for (const auto& name : fields.getMemberNames()) out[name] = fields[name];
  }
  if (info.hash) {
    out["image_size"] = U64(info.hash->image_size);
    out["hash_algorithm"] = info.hash->hash_algorithm;
    out["partition_name"] = info.hash->partition_name;
    out["salt"] = ToHex(info.hash->salt);
    out["digest"] = ToHex(info.hash->digest);
    out["flags"] = info.hash->flags;
  }
  if (!info.problem.empty()) out["problem"] = info.problem;
  return out;
}

}  // namespace

Json::Value DescribeHashtree(const HashtreeDescriptor& d) {
  Json::Value out(Json::objectValue);
  out["dm_verity_version"] = d.dm_verity_version;
  out["image_size"] = U64(d.image_size);
  out["tree_offset"] = U64(d.tree_offset);
  out["tree_size"] = U64(d.tree_size);
  out["data_block_size"] = d.data_block_size;
  out["hash_block_size"] = d.hash_block_size;
  out["fec_num_roots"] = d.fec_num_roots;
  out["fec_offset"] = U64(d.fec_offset);
  out["fec_size"] = U64(d.fec_size);
  out["hash_algorithm"] = d.hash_algorithm;
  out["partition_name"] = d.partition_name;
  out["salt"] = ToHex(d.salt);
  out["root_digest"] = ToHex(d.root_digest);
  out["flags"] = d.flags;
  return out;
}

Json::Value DescribePackage(const PackageFile& package, const ImageMetadata* meta) {
  Json::Value report(Json::objectValue);
  report["package"] = package.path;
  report["package_size"] = U64(package.size);
  report["zip_members"] = Json::Value(Json::objectValue);
  for (const auto& member : package.members) {
    Json::Value m(Json::objectValue);
    m["method"] = member.method;
    m["data_offset"] = U64(member.data_offset);
    m["compressed_size"] = U64(member.compressed_size);
    m["uncompressed_size"] = U64(member.uncompressed_size);
    m["crc32"] = Hex32(member.crc32);
    report["zip_members"][member.name] = m;
  }
  report["config"] = package.config_text ? DescribeConfig(*package.config_text) : Json::Value();
  Json::Value problems(Json::arrayValue);
  if (!package.config_text) problems.append("the package has no config.txt");

  if (!package.image) {
    problems.append("the package has no update_payload.img");
    report["problems"] = problems;
    return report;
  }
  Json::Value image(Json::objectValue);
  image["offset"] = U64(package.image->data_offset);
  image["size"] = U64(package.image->uncompressed_size);
  image["stored"] = package.image->method == 0;
  image["aligned_4096"] = package.image->data_offset % 4096 == 0;
  report["image"] = image;
  if (package.image->method != 0) {
    problems.append("update_payload.img is compressed; the daemon reads it as stored bytes");
  }
  if (package.image->data_offset > INT32_MAX) {
    problems.append("the image data starts beyond 2 GiB, which the daemon cannot address");
  }

  if (meta && meta->footer) {
    Json::Value footer(Json::objectValue);
    footer["version"] = std::to_string(meta->footer->version_major) + "." +
                        std::to_string(meta->footer->version_minor);
    footer["original_image_size"] = U64(meta->footer->original_image_size);
    footer["vbmeta_offset"] = U64(meta->footer->vbmeta_offset);
    footer["vbmeta_size"] = U64(meta->footer->vbmeta_size);
    report["footer"] = footer;
    if (meta->footer->vbmeta_size > kDaemonVbmetaLimit) {
      problems.append("vbmeta is larger than the 65536 bytes the daemon reads");
    }
  }
  if (meta && meta->header) {
    const VbmetaHeader& h = *meta->header;
    Json::Value vbmeta(Json::objectValue);
    vbmeta["required_libavb_version"] =
        std::to_string(h.required_major) + "." + std::to_string(h.required_minor);
    const AvbAlgorithm* algorithm = FindAlgorithmByType(h.algorithm_type);
    vbmeta["algorithm"] = algorithm ? algorithm->name : "unknown";
    vbmeta["algorithm_type"] = h.algorithm_type;
    vbmeta["auth_block_size"] = U64(h.auth_block_size);
    vbmeta["aux_block_size"] = U64(h.aux_block_size);
    vbmeta["rollback_index"] = U64(h.rollback_index);
    vbmeta["flags"] = h.flags;
    vbmeta["rollback_index_location"] = h.rollback_index_location;
    vbmeta["release_string"] = h.release_string;
    report["vbmeta"] = vbmeta;
    if (!meta->public_key.empty()) {
      Json::Value key(Json::objectValue);
      key["size"] = U64(meta->public_key.size());
      auto parsed = ParsePublicKeyBlob(meta->public_key.data(), meta->public_key.size());
      if (parsed.ok()) key["bits"] = parsed->key_bits;
      key["sha1"] = DigestHex("SHA1", meta->public_key);
      key["sha256"] = DigestHex("SHA256", meta->public_key);
      key["hex"] = ToHex(meta->public_key);
      report["public_key"] = key;
    }
  }
  if (meta && meta->header) {
    Json::Value descriptors(Json::arrayValue);
    for (const auto& descriptor : meta->descriptors) descriptors.append(DescribeDescriptor(descriptor));
    report["descriptors"] = descriptors;
  }
  if (meta) {
    if (const HashtreeDescriptor* tree = meta->Hashtree()) {
      Json::Value hashtree = DescribeHashtree(*tree);
      hashtree["num_data_blocks"] = U64(tree->data_block_size ? tree->image_size / tree->data_block_size : 0);
      hashtree["hash_start_block"] = U64(tree->hash_block_size ? tree->tree_offset / tree->hash_block_size : 0);
      hashtree["dm_table"] = VerityTableLine(*tree, "DEV", false);
      hashtree["dm_table_restart"] = VerityTableLine(*tree, "DEV", true);
      report["hashtree"] = hashtree;
    } else if (meta->header) {
      problems.append("vbmeta has no hashtree descriptor; the daemon refuses the package");
    }
    if (!meta->problem.empty()) problems.append(meta->problem);
  }
  report["problems"] = problems;
  return report;
}

std::string RenderPackageText(const Json::Value& r) {
  std::ostringstream out;
  auto line = [&out](const std::string& label, const std::string& value) {
    out << label << std::string(label.size() < 26 ? 26 - label.size() : 1, ' ') << value << "\n";
  };
  line("Package:", r["package"].asString() + " (" + r["package_size"].asString() + " bytes)");
  for (const auto& name : r["zip_members"].getMemberNames()) {
    const Json::Value& m = r["zip_members"][name];
    line("  Member:", name + ": " + (m["method"].asInt() == 0 ? "stored" : "compressed") +
                          ", data at " + m["data_offset"].asString() + ", " +
                          m["uncompressed_size"].asString() + " bytes, crc32 " +
                          m["crc32"].asString());
  }
  if (!r["config"].isNull()) {
    out << "Config:\n";
    for (const auto& key : r["config"]["values"].getMemberNames()) {
      line("  " + key + ":", r["config"]["values"][key].asString());
    }
    for (const auto& error : r["config"]["errors"]) line("  Error:", error.asString());
    for (const auto& warning : r["config"]["warnings"]) line("  Warning:", warning.asString());
  }
  if (r.isMember("image")) {
    line("Image:", r["image"]["size"].asString() + " bytes at offset " +
                       r["image"]["offset"].asString() + " of the zip");
  }
  if (r.isMember("footer")) {
    const Json::Value& f = r["footer"];
    line("Footer version:", f["version"].asString());
    line("Original image size:", f["original_image_size"].asString() + " bytes");
    line("VBMeta offset:", f["vbmeta_offset"].asString());
    line("VBMeta size:", f["vbmeta_size"].asString() + " bytes");
  }
  if (r.isMember("vbmeta")) {
    const Json::Value& v = r["vbmeta"];
    line("Minimum libavb version:", v["required_libavb_version"].asString());
    line("Authentication block:", v["auth_block_size"].asString() + " bytes");
    line("Auxiliary block:", v["aux_block_size"].asString() + " bytes");
    line("Algorithm:", v["algorithm"].asString());
    line("Rollback index:", v["rollback_index"].asString());
    line("Flags:", v["flags"].asString());
    line("Rollback index location:", v["rollback_index_location"].asString());
    line("Release string:", "'" + v["release_string"].asString() + "'");
  }
  if (r.isMember("public_key")) {
    const Json::Value& k = r["public_key"];
    line("Public key:", k["size"].asString() + " bytes, " + k["bits"].asString() + " bits");
    line("Public key (sha1):", k["sha1"].asString());
    line("Public key (sha256):", k["sha256"].asString());
  }
  if (r.isMember("descriptors")) {
    out << "Descriptors:\n";
    for (const auto& d : r["descriptors"]) {
      out << "    " << d["type"].asString() << " descriptor (tag " << d["tag"].asString() << ", "
          << d["size"].asString() << " bytes):\n";
      for (const auto& name : d.getMemberNames()) {
        if (name == "tag" || name == "type" || name == "size") continue;
        line("      " + name + ":", d[name].asString());
      }
    }
  }
  if (r.isMember("hashtree")) {
    const Json::Value& h = r["hashtree"];
    out << "Verity table (trial pass):\n  " << h["dm_table"].asString() << "\n";
    out << "Verity table (mount):\n  " << h["dm_table_restart"].asString() << "\n";
  }
  for (const auto& problem : r["problems"]) line("Problem:", problem.asString());
  return out.str();
}

}  // namespace rpktool
