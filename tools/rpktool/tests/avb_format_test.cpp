// The AVB pieces rpktool writes, checked against the fixture packages: key
// blobs, vbmeta blocks and whole images must come out byte for byte the
// same from the same inputs.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "avb_algorithm.h"
#include "avb_structs.h"
#include "block_hasher.h"
#include "file_io.h"
#include "hash_tree_builder.h"
#include "image_inspector.h"
#include "image_layout.h"
#include "package_reader.h"
#include "public_key_blob.h"
#include "rsa_key.h"
#include "tool_test_util.h"
#include "vbmeta_builder.h"

namespace rpktool {
namespace {

using rpktool_test::FixturePath;
using rpktool_test::ReadFile;
using rpktool_test::ScratchDir;

std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

TEST(PublicKeyBlob, MatchesTheFixtureBlobs) {
  for (const std::string name : {"rsa2048", "rsa4096"}) {
    auto key = RsaKey::LoadPem(FixturePath("keys/" + name + ".pem"));
    ASSERT_TRUE(key.ok()) << key.error();
    auto blob = EncodePublicKeyBlob(*key);
    ASSERT_TRUE(blob.ok()) << blob.error();
    EXPECT_EQ(*blob, Bytes(ReadFile(FixturePath("keys/" + name + ".avbpubkey")))) << name;
  }
}

TEST(PublicKeyBlob, ParsesOnlyWellFormedBlobs) {
  const auto blob = Bytes(ReadFile(FixturePath("keys/rsa4096.avbpubkey")));
  auto parsed = ParsePublicKeyBlob(blob.data(), blob.size());
  ASSERT_TRUE(parsed.ok()) << parsed.error();
  EXPECT_EQ(parsed->key_bits, 4096u);
  EXPECT_FALSE(ParsePublicKeyBlob(blob.data(), blob.size() - 1).ok());
  auto bad_bits = blob;
  bad_bits[2] = 0x0c;  // 3072 bits
  EXPECT_FALSE(ParsePublicKeyBlob(bad_bits.data(), bad_bits.size()).ok());
  EXPECT_FALSE(ParsePublicKeyBlob(blob.data(), 4).ok());
}

TEST(PublicKeyBlob, NegatedInverseTimesModulusIsMinusOne) {
  for (uint32_t odd : {1u, 3u, 0xffffffffu, 0x12345679u, 0x80000001u}) {
    EXPECT_EQ(odd * NegatedInverseMod32(odd), 0xffffffffu) << odd;
  }
}

TEST(RsaKeyLoading, RefusesWhatCannotSign) {
  ScratchDir dir;
  rpktool_test::WriteFile(dir / "junk.pem", "not a key\n");
  EXPECT_FALSE(RsaKey::LoadPem(dir / "junk.pem").ok());
  EXPECT_FALSE(RsaKey::LoadPem(dir / "missing.pem").ok());
  auto run = rpktool_test::RunProgram(
      {"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
       dir / "ec.pem"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  auto ec = RsaKey::LoadPem(dir / "ec.pem");
  ASSERT_FALSE(ec.ok());
  EXPECT_NE(ec.error().message().find("not an RSA key"), std::string::npos);
  run = rpktool_test::RunProgram({"openssl", "genrsa", "-out", dir / "rsa1024.pem", "1024"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_FALSE(RsaKey::LoadPem(dir / "rsa1024.pem").ok());
  run = rpktool_test::RunProgram({"openssl", "rsa", "-in", FixturePath("keys/rsa2048.pem"),
                                  "-pubout", "-out", dir / "public.pem"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  auto public_only = RsaKey::LoadPem(dir / "public.pem");
  ASSERT_TRUE(public_only.ok()) << public_only.error();
  EXPECT_FALSE(public_only->has_private_key());
  EXPECT_FALSE(public_only->Sign("SHA256", {1, 2, 3}).ok());
}

TEST(AvbAlgorithms, NamesSizesAndDefaults) {
  auto algorithm = FindSigningAlgorithm("sha512_rsa4096");
  ASSERT_TRUE(algorithm.ok());
  EXPECT_EQ(algorithm->type, 5u);
  EXPECT_EQ(algorithm->signature_size, 512u);
  EXPECT_STREQ(algorithm->tree_hash, "sha512");
  EXPECT_FALSE(FindSigningAlgorithm("NONE").ok());
  EXPECT_FALSE(FindSigningAlgorithm("SHA1_RSA2048").ok());
  EXPECT_EQ(DefaultAlgorithmForKeyBits(8192)->name, std::string("SHA256_RSA8192"));
  EXPECT_FALSE(DefaultAlgorithmForKeyBits(3072).ok());
  EXPECT_EQ(FindAlgorithmByType(7), nullptr);
}

// Reads a fixture package's image, its metadata and the signing inputs.
struct FixtureImage {
  std::vector<uint8_t> image;
  ImageMetadata meta;
};

FixtureImage LoadFixtureImage(const std::string& package_name) {
  auto package = OpenPackage(FixturePath("pkgs/" + package_name + ".zip"));
  EXPECT_TRUE(package.ok());
  FixtureImage fixture;
  auto image = ReadAt(package->fd.get(), package->image->uncompressed_size,
                      package->image->data_offset);
  EXPECT_TRUE(image.ok());
  fixture.image = *image;
  fixture.meta = InspectImage(package->fd.get(), package->image->data_offset,
                              package->image->uncompressed_size);
  EXPECT_EQ(fixture.meta.problem, "");
  return fixture;
}

// Rebuilds a fixture image from its filesystem bytes, salt, key and
// partition size, and expects every byte to match.
void ExpectImageRebuilt(const std::string& package_name, const std::string& key_name) {
  const FixtureImage fixture = LoadFixtureImage(package_name);
  const HashtreeDescriptor* reference = fixture.meta.Hashtree();
  ASSERT_NE(reference, nullptr);
  const AvbAlgorithm* algorithm = FindAlgorithmByType(fixture.meta.header->algorithm_type);
  ASSERT_NE(algorithm, nullptr);

  ScratchDir dir;
  const std::string fs_path = dir / "fs.img";
  rpktool_test::WriteFile(fs_path, std::string(fixture.image.begin(),
                                               fixture.image.begin() + reference->image_size));
  android::base::unique_fd fd(open(fs_path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_GE(fd.get(), 0);

  auto hasher = BlockHasher::Create(reference->hash_algorithm, reference->salt);
  ASSERT_TRUE(hasher.ok());
  auto layout = LayoutImage(reference->image_size / 4096,
                            static_cast<uint32_t>(hasher->digest_size()),
                            fixture.meta.footer->vbmeta_size, fixture.image.size());
  ASSERT_TRUE(layout.ok()) << layout.error();
  auto tree = BuildHashTree(fd.get(), 0, layout->tree, *hasher, 2);
  ASSERT_TRUE(tree.ok()) << tree.error();
  EXPECT_EQ(tree->root_digest, reference->root_digest);

  HashtreeDescriptor descriptor = *reference;
  descriptor.root_digest = tree->root_digest;
  auto key = RsaKey::LoadPem(FixturePath("keys/" + key_name + ".pem"));
  ASSERT_TRUE(key.ok());
  auto blob = EncodePublicKeyBlob(*key);
  ASSERT_TRUE(blob.ok());
  auto vbmeta = BuildSignedVbmeta(*algorithm, *key, SerializeHashtreeDescriptor(descriptor), *blob,
                                  fixture.meta.header->release_string);
  ASSERT_TRUE(vbmeta.ok()) << vbmeta.error();
  EXPECT_EQ(*vbmeta, fixture.meta.vbmeta);

  std::vector<uint8_t> rebuilt(fixture.image.begin(), fixture.image.begin() + reference->image_size);
  const auto tail = BuildImageTail(*layout, tree->tree, *vbmeta);
  rebuilt.insert(rebuilt.end(), tail.begin(), tail.end());
  EXPECT_TRUE(rebuilt == fixture.image) << package_name << " differs";
}

TEST(ImageAssembly, RebuildsFixtureImagesByteForByte) {
  ExpectImageRebuilt("valid_2048", "rsa2048");
  ExpectImageRebuilt("valid_sha512", "rsa4096");
}

TEST(VbmetaBlock, SignatureVerifiesWithTheKeyAndCoversHeaderAndAux) {
  auto key = RsaKey::LoadPem(FixturePath("keys/rsa4096.pem"));
  ASSERT_TRUE(key.ok());
  auto blob = EncodePublicKeyBlob(*key);
  auto algorithm = FindSigningAlgorithm("SHA512_RSA4096");
  HashtreeDescriptor descriptor;
  descriptor.hash_algorithm = "sha512";
  descriptor.partition_name = "update_payload";
  descriptor.salt.assign(64, 0x5a);
  descriptor.root_digest.assign(64, 0x11);
  const auto descriptors = SerializeHashtreeDescriptor(descriptor);
  auto vbmeta = BuildSignedVbmeta(*algorithm, *key, descriptors, *blob);
  ASSERT_TRUE(vbmeta.ok()) << vbmeta.error();
  EXPECT_EQ(vbmeta->size(), VbmetaSize(*algorithm, descriptors.size(), blob->size()));

  auto header = ParseVbmetaHeader(vbmeta->data(), vbmeta->size());
  ASSERT_TRUE(header.ok()) << header.error();
  EXPECT_EQ(header->release_string, kReleaseString);
  EXPECT_EQ(header->required_major, 1u);
  EXPECT_EQ(header->required_minor, 0u);
  const uint8_t* auth = vbmeta->data() + kVbmetaHeaderSize;
  const uint8_t* aux = auth + header->auth_block_size;
  std::vector<uint8_t> signed_data(vbmeta->begin(), vbmeta->begin() + kVbmetaHeaderSize);
  signed_data.insert(signed_data.end(), aux, aux + header->aux_block_size);

  // An independent check with OpenSSL's verifier and the key's public half.
  auto check = [&](const std::vector<uint8_t>& data) {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    FILE* pem = fopen(FixturePath("keys/rsa4096.pem").c_str(), "r");
    EVP_PKEY* pkey = PEM_read_PrivateKey(pem, nullptr, nullptr, nullptr);
    fclose(pem);
    EVP_PKEY_CTX* pctx = nullptr;
    EVP_DigestVerifyInit(ctx.get(), &pctx, EVP_sha512(), nullptr, pkey);
    EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING);
    int ok = EVP_DigestVerify(ctx.get(), auth + header->signature_offset, header->signature_size,
                              data.data(), data.size());
    EVP_PKEY_free(pkey);
    return ok == 1;
  };
  EXPECT_TRUE(check(signed_data));
  signed_data[kVbmetaHeaderSize + 5] ^= 1;  // inside the descriptor
  EXPECT_FALSE(check(signed_data));

  uint8_t digest[64];
  unsigned length = 0;
  signed_data[kVbmetaHeaderSize + 5] ^= 1;
  EVP_Digest(signed_data.data(), signed_data.size(), digest, &length, EVP_sha512(), nullptr);
  EXPECT_EQ(std::vector<uint8_t>(digest, digest + 64),
            std::vector<uint8_t>(auth + header->hash_offset, auth + header->hash_offset + 64));
  EXPECT_EQ(std::vector<uint8_t>(aux + header->public_key_offset,
                                 aux + header->public_key_offset + header->public_key_size),
            *blob);
}

TEST(VbmetaBlock, RefusesAKeyOfTheWrongSize) {
  auto key = RsaKey::LoadPem(FixturePath("keys/rsa2048.pem"));
  auto blob = EncodePublicKeyBlob(*key);
  auto vbmeta = BuildSignedVbmeta(*FindSigningAlgorithm("SHA256_RSA4096"), *key, {}, *blob);
  EXPECT_FALSE(vbmeta.ok());
}

TEST(VbmetaParsing, RejectsHeadersWhoseRangesDoNotFit) {
  const FixtureImage fixture = LoadFixtureImage("valid_2048");
  std::vector<uint8_t> vbmeta = fixture.meta.vbmeta;
  ASSERT_TRUE(ParseVbmetaHeader(vbmeta.data(), vbmeta.size()).ok());
  EXPECT_FALSE(ParseVbmetaHeader(vbmeta.data(), vbmeta.size() - 1).ok()) << "one byte short";
  EXPECT_FALSE(ParseVbmetaHeader(vbmeta.data(), 255).ok());

  auto corrupt = [&](size_t offset, uint8_t value) {
    std::vector<uint8_t> copy = vbmeta;
    copy[offset] = value;
    return ParseVbmetaHeader(copy.data(), copy.size()).ok();
  };
  EXPECT_FALSE(corrupt(0, 'X')) << "magic";
  EXPECT_FALSE(corrupt(19, 0x41)) << "auth size not a multiple of 64";
  EXPECT_FALSE(corrupt(12, 0xff)) << "auth size beyond the buffer (and overflowing)";
  EXPECT_FALSE(corrupt(71, 0xff)) << "public key offset beyond aux";
  EXPECT_FALSE(corrupt(110, 0xff)) << "descriptors beyond aux";
  EXPECT_FALSE(corrupt(128 + 47, 'x')) << "release string not terminated";
}

TEST(DescriptorParsing, WalksValidAreasAndRejectsOverrunsAndOddLengths) {
  HashtreeDescriptor one;
  one.hash_algorithm = std::string(32, 'a');  // fills the field: no terminator
  one.partition_name = "p";
  one.salt = {1, 2, 3};
  one.root_digest = {4, 5};
  auto area = SerializeHashtreeDescriptor(one);
  ASSERT_EQ(area.size() % 8, 0u);
  auto two = area;
  area.insert(area.end(), two.begin(), two.end());

  auto split = SplitDescriptors(area.data(), area.size());
  ASSERT_TRUE(split.ok()) << split.error();
  ASSERT_EQ(split->size(), 2u);
  auto parsed = ParseHashtreeDescriptor((*split)[1]);
  ASSERT_TRUE(parsed.ok()) << parsed.error();
  EXPECT_EQ(parsed->hash_algorithm, one.hash_algorithm);
  EXPECT_EQ(parsed->partition_name, "p");
  EXPECT_EQ(parsed->salt, one.salt);
  EXPECT_EQ(parsed->root_digest, one.root_digest);

  EXPECT_FALSE(SplitDescriptors(area.data(), area.size() - 8).ok()) << "second one truncated";
  auto odd = area;
  odd[15] += 4;  // length no longer a multiple of 8
  EXPECT_FALSE(SplitDescriptors(odd.data(), odd.size()).ok());
  auto huge = area;
  huge[8] = 0xff;  // length far past the area
  EXPECT_FALSE(SplitDescriptors(huge.data(), huge.size()).ok());

  auto long_salt = two;
  long_salt[108 + 2] = 0x10;  // salt_len 4099: past the descriptor's end
  auto split_long = SplitDescriptors(long_salt.data(), long_salt.size());
  ASSERT_TRUE(split_long.ok());
  EXPECT_FALSE(ParseHashtreeDescriptor((*split_long)[0]).ok());
}

TEST(FooterFormat, RoundTripsAndNeedsTheMagic) {
  Footer footer;
  footer.original_image_size = 0x0102030405060708ull;
  footer.vbmeta_offset = 4231168;
  footer.vbmeta_size = 1408;
  auto bytes = SerializeFooter(footer);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "AVBf");
  EXPECT_EQ(bytes[12], 0x01) << "big-endian";
  auto parsed = ParseFooter(bytes.data());
  ASSERT_TRUE(parsed.ok());
  EXPECT_EQ(parsed->original_image_size, footer.original_image_size);
  EXPECT_EQ(parsed->vbmeta_offset, footer.vbmeta_offset);
  EXPECT_EQ(parsed->vbmeta_size, footer.vbmeta_size);
  bytes[3] = '0';
  EXPECT_FALSE(ParseFooter(bytes.data()).ok());
}

}  // namespace
}  // namespace rpktool
