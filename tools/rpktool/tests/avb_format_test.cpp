// The image format library's writers against the reference packages: from
// the same inputs, key blobs, vbmeta blocks and whole images come out byte
// for byte as the reference tooling made them. (The round trip of readers
// and writers is the fuzzer's.)

#include "avb_format.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "block_hasher.h"
#include "file_io.h"
#include "hash_tree_builder.h"
#include "image_layout.h"
#include "image_metadata.h"
#include "package_reader.h"
#include "rsa_key.h"
#include "tool_test_util.h"

namespace rpktool {
namespace {

using mend_test::AvbFixture;
using mend_test::ReadWholeFile;
using mend_test::TempDir;

struct FixtureImage {
  std::vector<uint8_t> image;
  ImageMetadata meta;
};

FixtureImage LoadFixtureImage(const std::string& name) {
  auto package = OpenPackage(AvbFixture("pkgs/" + name + ".zip"));
  EXPECT_TRUE(package.ok());
  const ZipMemberInfo& member = *package->image;
  return {*ReadAt(package->fd.get(), member.uncompressed_size, member.data_offset),
          ReadImageMetadata(package->fd.get(), member.data_offset, member.uncompressed_size)};
}

// Rebuilds a fixture image from its filesystem bytes, salt, key and
// partition size, and expects every byte to match.
void ExpectImageRebuilt(const std::string& name, const std::string& key_name) {
  const FixtureImage fixture = LoadFixtureImage(name);
  ASSERT_EQ(fixture.meta.descriptors.size(), 1u);
  const avbformat::HashtreeDescriptor reference = *fixture.meta.descriptors[0].hashtree;
  const avbformat::Algorithm& algorithm =
      *avbformat::FindAlgorithm(fixture.meta.check->header.algorithm_type);

  TempDir dir;
  mend_test::WriteWholeFile(
      dir / "fs.img",
      std::string(fixture.image.begin(), fixture.image.begin() + reference.image_size));
  android::base::unique_fd fd(open((dir / "fs.img").c_str(), O_RDONLY | O_CLOEXEC));
  auto hasher = BlockHasher::Create(reference.hash_algorithm, reference.salt);
  auto layout = LayoutImage(reference.image_size / 4096, algorithm.hash_size,
                            fixture.meta.footer->vbmeta_size, fixture.image.size());
  ASSERT_TRUE(layout.ok()) << layout.error();
  auto tree = BuildHashTree(fd.get(), 0, layout->tree, *hasher, 2);
  ASSERT_TRUE(tree.ok()) << tree.error();

  avbformat::HashtreeDescriptor descriptor = reference;
  descriptor.root_digest = tree->root_digest;
  auto key = RsaKey::Load(AvbFixture("keys/" + key_name + ".pem"));
  ASSERT_TRUE(key.ok());
  EXPECT_EQ(key->public_key_blob(), fixture.meta.public_key);
  auto vbmeta = avbformat::WriteSignedVbmeta(
      algorithm, avbformat::WriteHashtreeDescriptor(descriptor), key->public_key_blob(),
      fixture.meta.check->header.release_string,
      [&](const std::vector<uint8_t>& covered) { return *key->Sign(algorithm, covered); });
  ASSERT_TRUE(vbmeta);
  EXPECT_EQ(*vbmeta, fixture.meta.vbmeta);

  std::vector<uint8_t> rebuilt(fixture.image.begin(), fixture.image.begin() + reference.image_size);
  const auto tail = BuildImageTail(*layout, tree->tree, *vbmeta);
  rebuilt.insert(rebuilt.end(), tail.begin(), tail.end());
  EXPECT_TRUE(rebuilt == fixture.image) << name << " differs";
}

TEST(ImageAssembly, RebuildsFixtureImagesByteForByte) {
  ExpectImageRebuilt("valid_2048", "rsa2048");
  ExpectImageRebuilt("valid_sha512", "rsa4096");
}

TEST(RsaKeyLoading, RefusesWhatCannotSign) {
  TempDir dir;
  mend_test::WriteWholeFile(dir / "junk.pem", "not a key\n");
  EXPECT_FALSE(RsaKey::Load(dir / "junk.pem").ok());
  EXPECT_FALSE(RsaKey::Load(dir / "missing.pem").ok());
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                                 "ec_paramgen_curve:P-256", "-out", dir / "other.pem"},
        {"openssl", "genrsa", "-out", dir / "other.pem", "1024"}}) {
    ASSERT_EQ(mend_test::RunProgram(command).exit_code, 0);
    EXPECT_FALSE(RsaKey::Load(dir / "other.pem").ok()) << command[1];
  }
  ASSERT_EQ(mend_test::RunProgram({"openssl", "rsa", "-in", AvbFixture("keys/rsa2048.pem"),
                                   "-pubout", "-out", dir / "public.pem"})
                .exit_code,
            0);
  auto public_only = RsaKey::Load(dir / "public.pem");
  ASSERT_TRUE(public_only.ok()) << public_only.error();
  EXPECT_EQ(public_only->public_key_blob(),
            RsaKey::Load(AvbFixture("keys/rsa2048.pem"))->public_key_blob());
  EXPECT_FALSE(public_only->Sign(*avbformat::FindAlgorithm(1), {1, 2, 3}).ok());
}

}  // namespace
}  // namespace rpktool
