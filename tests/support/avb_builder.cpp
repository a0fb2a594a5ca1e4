#include "avb_builder.h"

#include <cstdio>
#include <cstdlib>
#include <map>

#include "avb_fixtures.h"
#include "byte_order.h"
#include "zip_builder.h"

namespace mend_test {
namespace {

constexpr size_t kBlockSize = 4096;
constexpr char kRelease[] = "test 1.0";

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
  bytes.resize(avbformat::RoundUp(bytes.size(), multiple), '\0');
  return bytes;
}

}  // namespace

void StoreBe32(std::string* bytes, size_t offset, uint32_t value) {
  avbformat::PutBe32(At(bytes, offset), value);
}
void StoreBe64(std::string* bytes, size_t offset, uint64_t value) {
  avbformat::PutBe64(At(bytes, offset), value);
}
uint64_t LoadBe64(const std::string& bytes, size_t offset) {
  return avbformat::GetBe64(reinterpret_cast<const uint8_t*>(bytes.data() + offset));
}

const rpktool::RsaKey& Key(const std::string& name) {
  static std::map<std::string, rpktool::RsaKey> keys;
  auto it = keys.find(name);
  if (it == keys.end()) {
    const std::string path = name == "rsa8192" ? SourcePath("tests/fixtures/keys/rsa8192.pem")
                                               : AvbFixture("keys/" + name + ".pem");
    auto key = rpktool::RsaKey::Load(path);
    if (!key.ok()) Fail(key.error().message());
    it = keys.emplace(name, std::move(*key)).first;
  }
  return it->second;
}

std::string KeyBlob(const rpktool::RsaKey& key) { return Text(key.public_key_blob()); }

std::string DescriptorBytes(uint64_t tag, const std::string& body) {
  std::string out(16, '\0');
  StoreBe64(&out, 0, tag);
  const std::string padded = PadTo(body, 8);
  StoreBe64(&out, 8, padded.size());
  return out + padded;
}

avbformat::HashtreeDescriptor SampleHashtree() {
  avbformat::HashtreeDescriptor d;
  d.image_size = 1 << 20;
  d.tree_offset = 1 << 20;
  d.tree_size = 12288;
  d.hash_algorithm = "sha256";
  d.partition_name = "update_payload";
  d.salt.assign(32, 0x5a);
  d.root_digest.assign(32, 0xd1);
  return d;
}

std::string HashtreeBytes(const avbformat::HashtreeDescriptor& descriptor) {
  return Text(avbformat::WriteHashtreeDescriptor(descriptor));
}

std::string SignedVbmeta(const std::string& descriptors, uint32_t algorithm,
                         const rpktool::RsaKey& key, std::optional<std::string> public_key_blob) {
  const avbformat::Algorithm* named = avbformat::FindAlgorithm(algorithm);
  if (named == nullptr || named->key_bits == 0) {
    Fail("no signing algorithm " + std::to_string(algorithm));
  }
  // The key may be of another size than the algorithm names.
  avbformat::Algorithm signing = *named;
  signing.key_bits = key.bits();
  signing.signature_size = key.bits() / 8;
  auto vbmeta = avbformat::WriteSignedVbmeta(
      signing, Bytes(descriptors), Bytes(public_key_blob.value_or(KeyBlob(key))), kRelease,
      [&](const std::vector<uint8_t>& covered) -> std::optional<avbformat::HashAndSignature> {
        auto signed_by = key.Sign(signing, covered);
        if (!signed_by.ok()) Fail(signed_by.error().message());
        return *signed_by;
      });
  if (!vbmeta) Fail("cannot sign a vbmeta block");
  return Text(*vbmeta);
}

std::string UnsignedVbmeta(const std::string& descriptors) {
  avbformat::VbmetaHeader header;
  header.aux_block_size = avbformat::RoundUp(descriptors.size(), 64);
  header.descriptors_size = descriptors.size();
  header.public_key_offset = descriptors.size();
  header.public_key_metadata_offset = descriptors.size();
  header.release_string = kRelease;
  const auto bytes = avbformat::WriteVbmetaHeader(header);
  return std::string(bytes.begin(), bytes.end()) + PadTo(descriptors, 64);
}

VbmetaLayout LayoutOf(const std::string& vbmeta) {
  const auto check =
      avbformat::CheckVbmeta(reinterpret_cast<const uint8_t*>(vbmeta.data()), vbmeta.size());
  if (!check.ok()) Fail(check.reason);
  const avbformat::VbmetaHeader& header = check.header;
  return VbmetaLayout{header, header.auth_offset(), header.aux_offset(),
                      header.aux_offset() + header.public_key_offset};
}

std::string FooterBytes(const avbformat::Footer& footer) {
  const auto bytes = avbformat::WriteFooter(footer);
  return std::string(bytes.begin(), bytes.end());
}

std::string BuildImage(const std::string& data, const std::string& vbmeta,
                       std::optional<uint64_t> footer_vbmeta_size) {
  avbformat::Footer footer;
  footer.original_image_size = data.size();
  std::string image = PadTo(data, kBlockSize);
  footer.vbmeta_offset = image.size();
  footer.vbmeta_size = footer_vbmeta_size.value_or(vbmeta.size());
  image += PadTo(vbmeta, kBlockSize);
  return image + std::string(kBlockSize - avbformat::kFooterSize, '\0') + FooterBytes(footer);
}

void WritePackage(const std::string& path, const std::string& image) {
  WriteZip(path, {{"config.txt", "update_package_name=crafted\n"},
                  {"update_payload.img", image, false, 4096}});
}

}  // namespace mend_test
