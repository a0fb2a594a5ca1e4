// Round trip of the image format library. Whatever a reader accepts, its
// writer writes so that the reader reads it back equal (the footer and the
// key blob byte for byte); and descriptors built from arbitrary fields are
// read back as written.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <cstring>

#include "avb_format.h"

namespace {

using namespace avbformat;

void Require(bool condition) {
  if (!condition) abort();
}

void RoundTripRead(const uint8_t* data, size_t size) {
  if (size >= kFooterSize) {
    if (const auto footer = ReadFooter(data)) {
      const auto written = WriteFooter(*footer);
      Require(ReadFooter(written.data()) == footer);
      Require(memcmp(written.data(), data, 36) == 0);  // all but the reserved bytes
    }
  }
  if (const auto key = ReadPublicKey(data, size)) {
    const auto written = WritePublicKey(*key);
    Require(written.size() == size && memcmp(written.data(), data, size) == 0);
  }
  const VbmetaCheck check = CheckVbmeta(data, size);
  if (check.ok()) {
    const auto written = WriteVbmetaHeader(check.header);
    Require(DecodeVbmetaHeader(written.data()) == check.header);
    Require(memcmp(written.data(), data, 128) == 0);  // every number, the magic
  }
  for (const DescriptorSpan& span : WalkDescriptors(data, size)) {
    Require(span.offset + span.size <= size && span.size >= kDescriptorHeaderSize);
    const uint8_t* at = data + span.offset;
    if (const auto hashtree = ReadHashtreeDescriptor(at, span.size)) {
      const auto written = WriteHashtreeDescriptor(*hashtree);
      Require(written.size() <= span.size && IsValidHashtreeDescriptor(written.data()));
      Require(ReadHashtreeDescriptor(written.data(), written.size()) == hashtree);
      // The fixed fields and the name, salt and digest, as read.
      Require(memcmp(written.data() + 16, at + 16, 56) == 0);
      Require(memcmp(written.data() + 104, at + 104, 16) == 0);
      const size_t variable =
          hashtree->partition_name.size() + hashtree->salt.size() + hashtree->root_digest.size();
      Require(memcmp(written.data() + kHashtreeDescriptorSize, at + kHashtreeDescriptorSize,
                     variable) == 0);
    }
  }
}

std::vector<uint8_t> Bytes(FuzzedDataProvider& input) {
  return input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 80));
}

// A descriptor of arbitrary fields; its name fills the field at most and
// holds no NUL, as a reader would give it.
void RoundTripWrite(FuzzedDataProvider& input) {
  HashtreeDescriptor d;
  d.dm_verity_version = input.ConsumeIntegral<uint32_t>();
  d.image_size = input.ConsumeIntegral<uint64_t>();
  d.tree_offset = input.ConsumeIntegral<uint64_t>();
  d.tree_size = input.ConsumeIntegral<uint64_t>();
  d.data_block_size = input.ConsumeIntegral<uint32_t>();
  d.hash_block_size = input.ConsumeIntegral<uint32_t>();
  d.flags = input.ConsumeIntegral<uint32_t>();
  d.hash_algorithm = input.ConsumeRandomLengthString(kHashAlgorithmFieldSize);
  d.hash_algorithm.resize(strnlen(d.hash_algorithm.c_str(), d.hash_algorithm.size()));
  d.partition_name = input.ConsumeRandomLengthString(64);
  d.salt = Bytes(input);
  d.root_digest = Bytes(input);
  const auto written = WriteHashtreeDescriptor(d);
  Require(written.size() % kDescriptorAlignment == 0);
  Require(ReadHashtreeDescriptor(written.data(), written.size()) == d);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  RoundTripRead(data, size);
  FuzzedDataProvider input(data, size);
  RoundTripWrite(input);
  return 0;
}
