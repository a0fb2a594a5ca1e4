#include "avb_builder.h"

#include <cstdio>
#include <cstdlib>
#include <map>

#include "avb_algorithm.h"
#include "avb_fixtures.h"
#include "byte_order.h"
#include "public_key_blob.h"
#include "vbmeta_builder.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

constexpr size_t kBlockSize = 4096;

[[noreturn]] void Fail(const std::string& what) {
  fprintf(stderr, "avb builder: %s\n", what.c_str());
  abort();
}

uint8_t* At(std::string* bytes, size_t offset) {
  return reinterpret_cast<uint8_t*>(bytes->data() + offset);
}

std::string Text(const std::vector<uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }
std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

std::string PadTo(std::string bytes, size_t multiple) {
  bytes.resize(rpktool::RoundUp(bytes.size(), multiple), '\0');
  return bytes;
}

}  // namespace

void StoreBe32(std::string* bytes, size_t offset, uint32_t value) {
  rpktool::PutBe32(At(bytes, offset), value);
}
void StoreBe64(std::string* bytes, size_t offset, uint64_t value) {
  rpktool::PutBe64(At(bytes, offset), value);
}
uint64_t LoadBe64(const std::string& bytes, size_t offset) {
  return rpktool::GetBe64(reinterpret_cast<const uint8_t*>(bytes.data() + offset));
}

const rpktool::RsaKey& Key(const std::string& name) {
  static std::map<std::string, rpktool::RsaKey> keys;
  auto it = keys.find(name);
  if (it == keys.end()) {
    const std::string path = name == "rsa8192" ? SourcePath("tests/fixtures/keys/rsa8192.pem")
                                               : AvbFixture("keys/" + name + ".pem");
    auto key = rpktool::RsaKey::LoadPem(path);
    if (!key.ok()) Fail(key.error().message());
    it = keys.emplace(name, std::move(*key)).first;
  }
  return it->second;
}

std::string KeyBlob(const rpktool::RsaKey& key) {
  auto blob = rpktool::EncodePublicKeyBlob(key);
  if (!blob.ok()) Fail(blob.error().message());
  return Text(*blob);
}

std::string DescriptorBytes(uint64_t tag, const std::string& body) {
  std::string out(16, '\0');
  StoreBe64(&out, 0, tag);
  const std::string padded = PadTo(body, 8);
  StoreBe64(&out, 8, padded.size());
  return out + padded;
}

rpktool::HashtreeDescriptor SampleHashtree() {
  rpktool::HashtreeDescriptor d;
  d.image_size = 1 << 20;
  d.tree_offset = 1 << 20;
  d.tree_size = 12288;
  d.hash_algorithm = "sha256";
  d.partition_name = "update_payload";
  d.salt.assign(32, 0x5a);
  d.root_digest.assign(32, 0xd1);
  return d;
}

std::string HashtreeBytes(const rpktool::HashtreeDescriptor& descriptor) {
  return Text(rpktool::SerializeHashtreeDescriptor(descriptor));
}

std::string SignedVbmeta(const std::string& descriptors, uint32_t algorithm,
                         const rpktool::RsaKey& key, std::optional<std::string> public_key_blob) {
  const rpktool::AvbAlgorithm* named = rpktool::FindAlgorithmByType(algorithm);
  if (named == nullptr || named->key_bits == 0) {
    Fail("no signing algorithm " + std::to_string(algorithm));
  }
  rpktool::AvbAlgorithm signing = *named;
  signing.key_bits = key.bits();
  signing.signature_size = key.bits() / 8;
  auto vbmeta = rpktool::BuildSignedVbmeta(signing, key, Bytes(descriptors),
                                           Bytes(public_key_blob.value_or(KeyBlob(key))));
  if (!vbmeta.ok()) Fail(vbmeta.error().message());
  return Text(*vbmeta);
}

std::string UnsignedVbmeta(const std::string& descriptors) {
  rpktool::VbmetaHeader header;
  header.aux_block_size = rpktool::RoundUp(descriptors.size(), 64);
  header.descriptors_size = descriptors.size();
  header.public_key_offset = descriptors.size();
  header.public_key_metadata_offset = descriptors.size();
  header.release_string = rpktool::kReleaseString;
  const auto bytes = rpktool::SerializeVbmetaHeader(header);
  return std::string(bytes.begin(), bytes.end()) + PadTo(descriptors, 64);
}

VbmetaLayout LayoutOf(const std::string& vbmeta) {
  auto header = rpktool::ParseVbmetaHeader(reinterpret_cast<const uint8_t*>(vbmeta.data()),
                                           vbmeta.size());
  if (!header.ok()) Fail(header.error().message());
  VbmetaLayout layout{*header, rpktool::kVbmetaHeaderSize, 0, 0};
  layout.aux_offset = layout.auth_offset + header->auth_block_size;
  layout.public_key_offset = layout.aux_offset + header->public_key_offset;
  return layout;
}

std::string FooterBytes(const rpktool::Footer& footer) {
  const auto bytes = rpktool::SerializeFooter(footer);
  return std::string(bytes.begin(), bytes.end());
}

std::string BuildImage(const std::string& data, const std::string& vbmeta,
                       std::optional<uint64_t> footer_vbmeta_size) {
  rpktool::Footer footer;
  footer.original_image_size = data.size();
  std::string image = PadTo(data, kBlockSize);
  footer.vbmeta_offset = image.size();
  footer.vbmeta_size = footer_vbmeta_size.value_or(vbmeta.size());
  image += PadTo(vbmeta, kBlockSize);
  return image + std::string(kBlockSize - rpktool::kFooterSize, '\0') + FooterBytes(footer);
}

void WritePackage(const std::string& path, const std::string& image) {
  WriteZip(path, {{"config.txt", "update_package_name=crafted\n"},
                  {"update_payload.img", image, false, 4096}});
}

}  // namespace mend_test
