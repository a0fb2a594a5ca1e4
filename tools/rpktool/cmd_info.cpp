#include <android-base/logging.h>
#include <android-base/strings.h>

#include <cstdio>

#include "mend_mount.h"
#include "package_verifier.h"
#include "parse.h"
#include "verbs.h"

namespace rpktool {

namespace {

std::string Hex32(uint32_t value) {
  char text[9];
  snprintf(text, sizeof(text), "%08x", value);
  return text;
}

void AddZip(const PackageFile& package, Report* report) {
  report->Add("package", "package", package.path)
      .Add("package_size", "package size", U64(package.size));
  Report& members = report->Section("zip_members", "zip members");
  for (const ZipMemberInfo& member : package.members) {
    members.Section(member.name, Printable(member.name))
        .Add("method", "method", member.method)
        .Add("data_offset", "data offset", U64(member.data_offset))
        .Add("compressed_size", "compressed size", U64(member.compressed_size))
        .Add("uncompressed_size", "size", U64(member.uncompressed_size))
        .Add("crc32", "crc32", Hex32(member.crc32));
  }
  if (package.image) {
    report->Section("image", "image")
        .Add("offset", "offset in zip", U64(package.image->data_offset))
        .Add("size", "size", U64(package.image->uncompressed_size))
        .Add("stored", "stored", package.image->method == 0)
        .Add("aligned_4096", "aligned to 4096", package.image->data_offset % 4096 == 0);
  }
}

void AddVbmeta(const ImageMetadata& meta, Report* report) {
  if (meta.footer) {
    report->Section("footer", "footer")
        .Add("version", "version",
             std::to_string(meta.footer->version_major) + "." +
                 std::to_string(meta.footer->version_minor))
        .Add("original_image_size", "original image size", U64(meta.footer->original_image_size))
        .Add("vbmeta_offset", "vbmeta offset", U64(meta.footer->vbmeta_offset))
        .Add("vbmeta_size", "vbmeta size", U64(meta.footer->vbmeta_size));
  }
  if (!meta.check) return;
  const avbformat::VbmetaHeader& h = meta.check->header;
  const avbformat::Algorithm* algorithm = avbformat::FindAlgorithm(h.algorithm_type);
  Report& vbmeta = report->Section("vbmeta", "vbmeta");
  vbmeta.Add("valid", "valid header", meta.check->ok())
      .Add("problem", "problem", meta.check->ok() ? Json::Value() : meta.check->reason)
      .Add("required_libavb_version", "required version",
           std::to_string(h.required_major) + "." + std::to_string(h.required_minor))
      .Add("algorithm", "algorithm", algorithm ? algorithm->name : "unknown")
      .Add("auth_block_size", "authentication block", U64(h.auth_block_size))
      .Add("aux_block_size", "auxiliary block", U64(h.aux_block_size))
      .Add("rollback_index", "rollback index", U64(h.rollback_index))
      .Add("flags", "flags", h.flags)
      .Add("rollback_index_location", "rollback index location", h.rollback_index_location)
      .Add("release_string", "release string", h.release_string);
  if (const auto key = avbformat::ReadPublicKey(meta.public_key.data(), meta.public_key.size())) {
    report->Section("public_key", "public key")
        .Add("bits", "bits", key->key_bits)
        .Add("size", "size", U64(meta.public_key.size()))
        .Add("sha1", "sha1", DigestHex("sha1", meta.public_key))
        .Add("sha256", "sha256", DigestHex("sha256", meta.public_key));
  }
}

Report& AddHashtreeFields(const avbformat::HashtreeDescriptor& d, Report* report) {
  return report->Add("dm_verity_version", "dm-verity version", d.dm_verity_version)
      .Add("image_size", "image size", U64(d.image_size))
      .Add("tree_offset", "tree offset", U64(d.tree_offset))
      .Add("tree_size", "tree size", U64(d.tree_size))
      .Add("data_block_size", "data block size", d.data_block_size)
      .Add("hash_block_size", "hash block size", d.hash_block_size)
      .Add("fec_num_roots", "fec roots", d.fec_num_roots)
      .Add("fec_offset", "fec offset", U64(d.fec_offset))
      .Add("fec_size", "fec size", U64(d.fec_size))
      .Add("hash_algorithm", "hash algorithm", d.hash_algorithm)
      .Add("partition_name", "partition name", d.partition_name)
      .Add("salt", "salt", ToHex(d.salt))
      .Add("root_digest", "root digest", ToHex(d.root_digest))
      .Add("flags", "flags", d.flags);
}

void AddDescriptors(const ImageMetadata& meta, Report* report) {
  for (const DescriptorInfo& info : meta.descriptors) {
    Report& item = report->Item("descriptors", "descriptor");
    item.Add("type", "type", avbformat::DescriptorTagName(info.tag))
        .Add("tag", "tag", U64(info.tag))
        .Add("size", "size", U64(info.size));
    // A hashtree descriptor's fields are under "hashtree".
  }
}

// The first hashtree descriptor and the tables the daemon's code builds
// from it, with "DEV" for the loop device.
void AddVerityTables(const ImageMetadata& meta, Report* report) {
  const avbformat::HashtreeDescriptor* descriptor = nullptr;
  for (const DescriptorInfo& info : meta.descriptors) {
    if (info.hashtree && !descriptor) descriptor = &*info.hashtree;
  }
  auto data = android::rpk::VerityDataFromVbmeta(meta.vbmeta.data(), meta.vbmeta.size());
  if (!descriptor || !data.ok()) return;
  Report& hashtree = AddHashtreeFields(*descriptor, &report->Section("hashtree", "hashtree"));
  for (bool restart : {false, true}) {
    const auto table = android::rpk::CreateVerityTable(*data, "DEV", "DEV", restart);
    const auto& target = table->targets().front();
    const std::string params = target->GetParameterString();
    const std::vector<std::string> words = android::base::Split(params, " ");
    if (!restart) {
      hashtree.Add("num_data_blocks", "data blocks", U64(std::stoull(words[5])))
          .Add("hash_start_block", "hash start block", U64(std::stoull(words[6])));
    }
    hashtree.Add(restart ? "dm_table_restart" : "dm_table",
                 restart ? "table (mount pass)" : "table (trial pass)",
                 std::to_string(target->start()) + " " + std::to_string(target->size()) + " " +
                     target->name() + " " + params);
  }
}

}  // namespace

void RunInfo(const Arguments& args, Report* report) {
  // The daemon's code logs as it goes; its verdict is what counts here.
  android::base::SetMinimumLogSeverity(android::base::FATAL);
  auto inspection = InspectPackage(args.positionals[0], std::nullopt, args.Flag("strict"));
  if (!inspection.ok()) return report->Fail(FailureKind::kInput, inspection.error().message());
  const ImageMetadata& meta = inspection->metadata;
  AddZip(inspection->package, report);
  AddConfig(*inspection, report);
  AddVbmeta(meta, report);
  AddDescriptors(meta, report);
  AddVerityTables(meta, report);
  report->Section("avb", "daemon's check")
      .Add("ok", "accepted", inspection->avb_error.empty())
      .Add("error", "error", inspection->avb_error.empty() ? Json::Value() : inspection->avb_error);
  AddProblems(*inspection, report);
  if (const std::string reason = inspection->FailureReason(); !reason.empty()) {
    report->Fail(FailureKind::kVerification, reason);
  }
}

}  // namespace rpktool
