// The verified-boot stand-in on crafted images: each check of the footer,
// the vbmeta header, the signature and the descriptor walk, with sizes and
// offsets chosen to overflow or run past the buffer.
#include <gtest/gtest.h>
#include <libavb/libavb.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "avb_builder.h"
#include "avb_fixtures.h"
#include "test_files.h"

namespace mend_test {
namespace {

using avbformat::Footer;
using rpktool::RsaKey;

const uint8_t* Bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

AvbVBMetaVerifyResult Verify(const std::string& block) {
  const uint8_t* key = nullptr;
  size_t key_length = 0;
  return avb_vbmeta_image_verify(Bytes(block), block.size(), &key, &key_length);
}

std::string SignedBlock(uint32_t algorithm = AVB_ALGORITHM_TYPE_SHA256_RSA2048,
                        const RsaKey& key = Key("rsa2048")) {
  return SignedVbmeta(HashtreeBytes(), algorithm, key);
}

#define HEADER_OFFSET(member) offsetof(AvbVBMetaImageHeader, member)

// ---------------------------------------------------------------------------

TEST(AvbFooterTest, ConvertsFieldsFromAnyAlignment) {
  const std::string footer = FooterBytes(Footer{1, 7, 0x0102030405060708, 0x1122334455667788, 1408});
  for (size_t misalign : {0, 1, 3}) {
    AvbFooter host;
    const std::string buffer = std::string(misalign, 'x') + footer;
    ASSERT_TRUE(avb_footer_validate_and_byteswap(
        reinterpret_cast<const AvbFooter*>(buffer.data() + misalign), &host));
    EXPECT_EQ(host.version_major, 1u);
    EXPECT_EQ(host.version_minor, 7u) << "a newer minor version is accepted";
    EXPECT_EQ(host.original_image_size, 0x0102030405060708u);
    EXPECT_EQ(host.vbmeta_offset, 0x1122334455667788u);
    EXPECT_EQ(host.vbmeta_size, 1408u);
  }
}

// ---------------------------------------------------------------------------

TEST(VbmetaVerifyTest, EveryAlgorithmVerifiesAndReportsTheEmbeddedKey) {
  struct Case {
    uint32_t algorithm;
    const char* key;
  } cases[] = {
      {AVB_ALGORITHM_TYPE_SHA256_RSA2048, "rsa2048"}, {AVB_ALGORITHM_TYPE_SHA256_RSA4096, "rsa4096"},
      {AVB_ALGORITHM_TYPE_SHA256_RSA8192, "rsa8192"}, {AVB_ALGORITHM_TYPE_SHA512_RSA2048, "rsa2048"},
      {AVB_ALGORITHM_TYPE_SHA512_RSA4096, "rsa4096"}, {AVB_ALGORITHM_TYPE_SHA512_RSA8192, "rsa8192"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.algorithm);
    const std::string block = SignedBlock(c.algorithm, Key(c.key));
    const uint8_t* key = nullptr;
    size_t key_length = 0;
    ASSERT_EQ(avb_vbmeta_image_verify(Bytes(block), block.size(), &key, &key_length),
              AVB_VBMETA_VERIFY_RESULT_OK);
    EXPECT_EQ(key, Bytes(block) + LayoutOf(block).public_key_offset)
        << "the key points into the buffer";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(key), key_length), KeyBlob(Key(c.key)));
  }
}

TEST(VbmetaVerifyTest, BufferMayBeLongerButNotShorterThanTheBlock) {
  const std::string block = SignedBlock();
  EXPECT_EQ(Verify(block + std::string(3000, '\0')), AVB_VBMETA_VERIFY_RESULT_OK);
  EXPECT_EQ(Verify(block.substr(0, block.size() - 1)),
            AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER);
  EXPECT_EQ(Verify(block.substr(0, 255)), AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER);
  EXPECT_EQ(avb_vbmeta_image_verify(nullptr, 0, nullptr, nullptr),
            AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER);
}

TEST(VbmetaVerifyTest, UnsignedBlockIsReportedWithoutAKey) {
  // A signed block relabelled as unsigned: nothing is hashed or returned,
  // even though hash, signature and key are all there.
  std::string block = SignedBlock();
  StoreBe32(&block, HEADER_OFFSET(algorithm_type), AVB_ALGORITHM_TYPE_NONE);
  const uint8_t* key = Bytes(block);
  size_t key_length = 99;
  EXPECT_EQ(avb_vbmeta_image_verify(Bytes(block), block.size(), &key, &key_length),
            AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(key_length, 0u);
  EXPECT_EQ(Verify(UnsignedVbmeta("")), AVB_VBMETA_VERIFY_RESULT_OK_NOT_SIGNED);
}

TEST(VbmetaVerifyTest, RequiredVersionOutsideThisLibraryIsUnsupported) {
  // The version is checked before the hash: a version the library supports
  // gets as far as the hash, which the edit broke.
  for (auto [major, minor, supported] :
       {std::tuple{0u, 0u, false}, {2u, 0u, false}, {1u, AVB_VERSION_MINOR + 1u, false},
        {1u, 0xffffffffu, false}, {1u, AVB_VERSION_MINOR + 0u, true}}) {
    std::string block = SignedBlock();
    StoreBe32(&block, HEADER_OFFSET(required_libavb_version_major), major);
    StoreBe32(&block, HEADER_OFFSET(required_libavb_version_minor), minor);
    EXPECT_EQ(Verify(block), supported ? AVB_VBMETA_VERIFY_RESULT_HASH_MISMATCH
                                       : AVB_VBMETA_VERIFY_RESULT_UNSUPPORTED_VERSION)
        << major << "." << minor;
  }
}

TEST(VbmetaVerifyTest, HeaderWhoseLayoutDoesNotFitIsInvalid) {
  const uint64_t kHuge = UINT64_MAX - 63;  // a multiple of 64 that overflows any sum
  struct Case {
    const char* what;
    size_t offset;
    uint64_t value;
    bool is_32_bits = false;
  } cases[] = {
      {"magic", 0, 0x41564231, true},
      {"auth size not a multiple of 64", HEADER_OFFSET(authentication_data_block_size), 320 + 8},
      {"aux size not a multiple of 64", HEADER_OFFSET(auxiliary_data_block_size), 64 * 13 + 1},
      {"blocks past the buffer", HEADER_OFFSET(auxiliary_data_block_size), 64 * 1000},
      {"auth size overflows", HEADER_OFFSET(authentication_data_block_size), kHuge},
      {"aux size overflows", HEADER_OFFSET(auxiliary_data_block_size), kHuge},
      {"hash past the auth block", HEADER_OFFSET(hash_offset), 300},
      {"hash range overflows", HEADER_OFFSET(hash_offset), UINT64_MAX - 8},
      {"signature past the auth block", HEADER_OFFSET(signature_size), 320},
      {"signature range overflows", HEADER_OFFSET(signature_offset), UINT64_MAX},
      {"key past the aux block", HEADER_OFFSET(public_key_size), 64 * 13},
      {"key range overflows", HEADER_OFFSET(public_key_offset), UINT64_MAX - 100},
      {"key metadata past the aux block", HEADER_OFFSET(public_key_metadata_size), 64 * 13},
      {"algorithm out of range", HEADER_OFFSET(algorithm_type), _AVB_ALGORITHM_NUM_TYPES, true},
      {"algorithm far out of range", HEADER_OFFSET(algorithm_type), 0xffffffff, true},
      {"hash size not the algorithm's", HEADER_OFFSET(algorithm_type),
       AVB_ALGORITHM_TYPE_SHA512_RSA2048, true},
  };
  for (const Case& c : cases) {
    std::string block = SignedBlock();
    ASSERT_EQ(block.size(), 256u + 320 + 64 * 13) << "layout the cases assume";
    if (c.is_32_bits) {
      StoreBe32(&block, c.offset, static_cast<uint32_t>(c.value));
    } else {
      StoreBe64(&block, c.offset, c.value);
    }
    EXPECT_EQ(Verify(block), AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER) << c.what;
  }

  std::string unterminated = SignedBlock();
  unterminated[HEADER_OFFSET(release_string) + AVB_RELEASE_STRING_SIZE - 1] = 'x';
  EXPECT_EQ(Verify(unterminated), AVB_VBMETA_VERIFY_RESULT_INVALID_VBMETA_HEADER);
}

TEST(VbmetaVerifyTest, KeyThatCannotCheckTheSignatureGivesSignatureMismatch) {
  // A key whose size is not the algorithm's: the hash matches, the key size
  // does not.
  EXPECT_EQ(Verify(SignedBlock(AVB_ALGORITHM_TYPE_SHA256_RSA4096, Key("rsa2048"))),
            AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH);
  EXPECT_EQ(Verify(SignedBlock(AVB_ALGORITHM_TYPE_SHA512_RSA2048, Key("rsa8192"))),
            AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH);

  // Signed correctly, but the embedded blob is not the signer's or is not a
  // usable key at all.
  const std::string own = KeyBlob(Key("rsa2048"));
  std::string odd_bits = own;
  StoreBe32(&odd_bits, 0, 1024);
  struct Case {
    const char* what;
    std::string blob;
  } cases[] = {
      {"another key of the same size", ReadWholeFile(AvbFixture("keys/wrong_rsa2048.avbpubkey"))},
      {"unsupported key size", odd_bits},
      {"blob one byte short", own.substr(0, own.size() - 1)},
      {"blob with a trailing byte", own + "x"},
      {"empty blob", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Verify(SignedVbmeta(HashtreeBytes(), 1, Key("rsa2048"), c.blob)),
              AVB_VBMETA_VERIFY_RESULT_SIGNATURE_MISMATCH)
        << c.what;
  }
}

// ---------------------------------------------------------------------------

struct DescriptorList {
  std::unique_ptr<const AvbDescriptor*[], void (*)(void*)> all{nullptr, avb_free};
  size_t count = 99;
};

DescriptorList GetAll(const std::string& block) {
  DescriptorList list;
  list.all.reset(avb_descriptor_get_all(Bytes(block), block.size(), &list.count));
  return list;
}

// A descriptor header stating `length` bytes, then `body`.
std::string RawDescriptor(uint64_t tag, uint64_t length, const std::string& body) {
  std::string raw(16, '\0');
  StoreBe64(&raw, 0, tag);
  StoreBe64(&raw, 8, length);
  return raw + body;
}

// A length that is not a multiple of 8, and that many bytes.
std::string UnalignedDescriptor() { return RawDescriptor(0, 12, std::string(12, 'u')); }

TEST(DescriptorWalkTest, StopsAtTheFirstBadDescriptorKeepingThoseBefore) {
  const std::string good = DescriptorBytes(AVB_DESCRIPTOR_TAG_PROPERTY, "a=b");
  // A multiple of 8 that no area holds.
  const std::string overlong = RawDescriptor(AVB_DESCRIPTOR_TAG_HASHTREE, UINT64_MAX - 7, "");
  struct Case {
    const char* what;
    std::string descriptors;
    size_t expected;
  } cases[] = {
      {"unaligned length", good + UnalignedDescriptor() + good, 1},
      {"body past the area", good + overlong + good, 1},
      {"header cut by the area's end", good + good.substr(0, 8), 1},
      {"first one bad", UnalignedDescriptor() + good, 0},
  };
  for (const Case& c : cases) {
    const DescriptorList list = GetAll(UnsignedVbmeta(c.descriptors));
    ASSERT_TRUE(list.all) << c.what;
    EXPECT_EQ(list.count, c.expected) << c.what;
    EXPECT_EQ(list.all[c.expected], nullptr) << c.what;
  }
}

TEST(DescriptorWalkTest, UnusableHeaderOrAreaGivesAnEmptyList) {
  const std::string block = UnsignedVbmeta(HashtreeBytes());
  struct Case {
    const char* what;
    size_t offset;
    uint64_t value;
  } cases[] = {
      {"area past the buffer", HEADER_OFFSET(descriptors_size), 4096},
      {"area offset overflows", HEADER_OFFSET(descriptors_offset), UINT64_MAX - 10},
      {"area size overflows", HEADER_OFFSET(descriptors_size), UINT64_MAX},
      {"auth size overflows", HEADER_OFFSET(authentication_data_block_size), UINT64_MAX - 63},
  };
  for (const Case& c : cases) {
    std::string changed = block;
    StoreBe64(&changed, c.offset, c.value);
    const DescriptorList list = GetAll(changed);
    ASSERT_TRUE(list.all) << c.what;
    EXPECT_EQ(list.count, 0u) << c.what;
    EXPECT_EQ(list.all[0], nullptr) << c.what;
  }
  std::string bad_magic = block;
  bad_magic[0] = 'X';
  EXPECT_EQ(GetAll(bad_magic).count, 0u);
  EXPECT_EQ(GetAll(block.substr(0, 255)).count, 0u);
}

// ---------------------------------------------------------------------------

bool ValidateHashtree(const std::string& bytes, AvbHashtreeDescriptor* out) {
  return avb_hashtree_descriptor_validate_and_byteswap(
      reinterpret_cast<const AvbHashtreeDescriptor*>(bytes.data()), out);
}

TEST(HashtreeDescriptorTest, RefusesOtherTagsAndUnalignedLengths) {
  AvbHashtreeDescriptor d;
  std::string hash_tagged = HashtreeBytes();
  StoreBe64(&hash_tagged, 0, AVB_DESCRIPTOR_TAG_HASH);
  EXPECT_FALSE(ValidateHashtree(hash_tagged, &d));
  std::string unaligned = HashtreeBytes();
  StoreBe64(&unaligned, 8, LoadBe64(unaligned, 8) + 4);
  EXPECT_FALSE(ValidateHashtree(unaligned, &d));
}

// The sample descriptor with its three length fields replaced.
std::string HashtreeWithLengths(uint32_t name, uint32_t salt, uint32_t digest) {
  std::string bytes = HashtreeBytes();
  StoreBe32(&bytes, kPartitionNameLenOffset, name);
  StoreBe32(&bytes, kSaltLenOffset, salt);
  StoreBe32(&bytes, kRootDigestLenOffset, digest);
  return bytes;
}

TEST(HashtreeDescriptorTest, VariableLengthsMustFitTheBodyWithoutWrapping) {
  // Name 14 + salt 32 + digest 32 after the 164-byte fixed part: 242 bytes,
  // padded to a body of 248.
  AvbHashtreeDescriptor d;
  EXPECT_TRUE(ValidateHashtree(HashtreeWithLengths(14, 32, 38), &d));

  struct Case {
    const char* what;
    uint32_t name, salt, digest;
  } cases[] = {
      {"one byte too many", 14, 32, 39},
      {"name wraps 32 bits", 0xffffffff, 2, 0},
      {"salt and digest wrap 32 bits", 14, 0xffffff00, 0x100},
      {"all three at the maximum", 0xffffffff, 0xffffffff, 0xffffffff},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(ValidateHashtree(HashtreeWithLengths(c.name, c.salt, c.digest), &d)) << c.what;
  }
}

}  // namespace
}  // namespace mend_test
