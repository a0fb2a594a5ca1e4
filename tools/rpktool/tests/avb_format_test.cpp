// The AVB pieces rpktool writes, checked against the fixture packages: key
// blobs, vbmeta blocks and whole images must come out byte for byte the
// same from the same inputs.

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "avb_algorithm.h"
#include "avb_structs.h"
#include "block_hasher.h"
#include "file_io.h"
#include "hash_tree_builder.h"
#include "image_metadata.h"
#include "image_layout.h"
#include "package_reader.h"
#include "public_key_blob.h"
#include "rsa_key.h"
#include "tool_test_util.h"
#include "vbmeta_builder.h"

namespace rpktool {
namespace {

using mend_test::AvbFixture;
using mend_test::ReadWholeFile;
using mend_test::RunProgram;
using mend_test::TempDir;

std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

TEST(PublicKeyBlob, ParsesOnlyWellFormedBlobs) {
  const auto blob = Bytes(ReadWholeFile(AvbFixture("keys/rsa4096.avbpubkey")));
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
  TempDir dir;
  mend_test::WriteWholeFile(dir / "junk.pem", "not a key\n");
  EXPECT_FALSE(RsaKey::LoadPem(dir / "junk.pem").ok());
  EXPECT_FALSE(RsaKey::LoadPem(dir / "missing.pem").ok());
  auto run = RunProgram({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                         "ec_paramgen_curve:P-256", "-out", dir / "ec.pem"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  auto ec = RsaKey::LoadPem(dir / "ec.pem");
  ASSERT_FALSE(ec.ok());
  EXPECT_NE(ec.error().message().find("not an RSA key"), std::string::npos);
  run = RunProgram({"openssl", "genrsa", "-out", dir / "rsa1024.pem", "1024"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  EXPECT_FALSE(RsaKey::LoadPem(dir / "rsa1024.pem").ok());
  run = RunProgram(
      {"openssl", "rsa", "-in", AvbFixture("keys/rsa2048.pem"), "-pubout", "-out", dir / "public.pem"});
  ASSERT_EQ(run.exit_code, 0) << run.out;
  auto public_only = RsaKey::LoadPem(dir / "public.pem");
  ASSERT_TRUE(public_only.ok()) << public_only.error();
  EXPECT_FALSE(public_only->has_private_key());
  EXPECT_FALSE(public_only->Sign("SHA256", {1, 2, 3}).ok());
}

// Reads a fixture package's image, its metadata and the signing inputs.
struct FixtureImage {
  std::vector<uint8_t> image;
  ImageMetadata meta;
};

FixtureImage LoadFixtureImage(const std::string& package_name) {
  auto package = OpenPackage(AvbFixture("pkgs/" + package_name + ".zip"));
  EXPECT_TRUE(package.ok());
  FixtureImage fixture;
  auto image = ReadAt(package->fd.get(), package->image->uncompressed_size,
                      package->image->data_offset);
  EXPECT_TRUE(image.ok());
  fixture.image = *image;
  fixture.meta = ReadImageMetadata(package->fd.get(), package->image->data_offset,
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

  TempDir dir;
  const std::string fs_path = dir / "fs.img";
  mend_test::WriteWholeFile(fs_path, std::string(fixture.image.begin(),
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
  auto key = RsaKey::LoadPem(AvbFixture("keys/" + key_name + ".pem"));
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

TEST(VbmetaBlock, RefusesAKeyOfTheWrongSize) {
  auto key = RsaKey::LoadPem(AvbFixture("keys/rsa2048.pem"));
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

}  // namespace
}  // namespace rpktool
