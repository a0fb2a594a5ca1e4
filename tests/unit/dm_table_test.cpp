// Table building of the device-mapper stand-in: the verity target's words
// and the binary layout that DM_TABLE_LOAD takes.
#include <libdm/dm_table.h>
#include <libdm/dm_target.h>
#include <linux/dm-ioctl.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

using android::dm::DmTable;
using android::dm::DmTarget;
using android::dm::DmTargetVerity;

// A target with fixed words, to lay out tables of several targets.
class WordsTarget final : public DmTarget {
 public:
  WordsTarget(uint64_t start, uint64_t length, std::string type, std::string params)
      : DmTarget(start, length), type_(std::move(type)), params_(std::move(params)) {}
  std::string name() const override { return type_; }
  std::string GetParameterString() const override { return params_; }

 private:
  std::string type_;
  std::string params_;
};

std::unique_ptr<DmTargetVerity> Verity(const std::string& salt = "5a17") {
  return std::make_unique<DmTargetVerity>(0, 8192, 1, "/dev/loop3", "7:3", 4096, 4096, 1024,
                                          1024, "sha256", "8c07", salt);
}

// The usual line (mode after ignore_zero_blocks) is checked against the
// reference packages' tables by the engine's table tests.
TEST(DmTargetVerityTest, OptionalWordsFollowTheirCountInCallOrder) {
  // An empty salt would drop a word from the line; the kernel reads "-".
  auto target = Verity("");
  target->SetVerityMode("ignore_corruption");
  target->IgnoreZeroBlocks();
  EXPECT_EQ(target->name(), "verity");
  EXPECT_EQ(target->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 - 2 ignore_corruption "
            "ignore_zero_blocks");
  EXPECT_TRUE(target->Valid());
}

TEST(DmTargetVerityTest, UnknownModeMakesTheTargetUnusable) {
  for (const char* mode : {"panic_on_corruption", "", "restart"}) {
    SCOPED_TRACE(mode);
    auto target = Verity();
    target->SetVerityMode(mode);
    EXPECT_FALSE(target->Valid());
    EXPECT_EQ(target->GetParameterString(),
              "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 5a17");

    DmTable table;
    EXPECT_FALSE(table.AddTarget(std::move(target)));
    EXPECT_EQ(table.num_targets(), 0u);
    EXPECT_EQ(table.Serialize(), "");
  }
}

// The header of the target at byte `at` of a serialized table.
dm_target_spec TargetHeaderAt(const std::string& bytes, size_t at) {
  dm_target_spec header;
  EXPECT_LE(at + sizeof(header), bytes.size());
  std::memcpy(&header, bytes.data() + at, sizeof(header));
  return header;
}

TEST(DmTableTest, SerializesEachTargetAsAlignedSpecAndParameters) {
  DmTable table;
  // A 40-byte dm_target_spec + 7 characters + NUL is exactly 48: no padding. 8
  // characters need 7 bytes of padding, 1 character needs 6.
  ASSERT_TRUE(table.AddTarget(std::make_unique<WordsTarget>(0, 100, "linear", "7:0 100")));
  ASSERT_TRUE(table.AddTarget(std::make_unique<WordsTarget>(100, 20, "zero", "abcdefgh")));
  ASSERT_TRUE(table.AddTarget(std::make_unique<WordsTarget>(120, 8, "error", "x")));
  EXPECT_EQ(table.num_sectors(), 128u);

  const std::string bytes = table.Serialize();
  ASSERT_EQ(bytes.size(), 48u + 56u + 48u);

  const dm_target_spec first = TargetHeaderAt(bytes, 0);
  EXPECT_EQ(first.sector_start, 0u);
  EXPECT_EQ(first.length, 100u);
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(first.next, 48u);
  EXPECT_STREQ(first.target_type, "linear");
  EXPECT_EQ(std::string(bytes.data() + 40, 8), std::string("7:0 100\0", 8));

  const dm_target_spec second = TargetHeaderAt(bytes, 48);
  EXPECT_EQ(second.sector_start, 100u);
  EXPECT_EQ(second.length, 20u);
  EXPECT_EQ(second.next, 56u);
  EXPECT_STREQ(second.target_type, "zero");
  EXPECT_EQ(std::string(bytes.data() + 88, 16), std::string("abcdefgh\0\0\0\0\0\0\0\0", 16));

  const dm_target_spec third = TargetHeaderAt(bytes, 104);
  EXPECT_EQ(third.sector_start, 120u);
  EXPECT_EQ(third.next, 48u);
  EXPECT_EQ(std::string(bytes.data() + 144, 8), std::string("x\0\0\0\0\0\0\0", 8));
}

TEST(DmTableTest, TablesTheKernelWouldRefuseSerializeToNothing) {
  DmTable empty;
  EXPECT_FALSE(empty.AddTarget(nullptr));
  EXPECT_EQ(empty.num_targets(), 0u);
  EXPECT_FALSE(empty.valid());
  EXPECT_FALSE(empty.readonly());
  EXPECT_EQ(empty.Serialize(), "");

  DmTable late_start;
  ASSERT_TRUE(late_start.AddTarget(std::make_unique<WordsTarget>(8, 8, "zero", "")));
  EXPECT_FALSE(late_start.valid());
  EXPECT_EQ(late_start.Serialize(), "");

  DmTable gap;
  ASSERT_TRUE(gap.AddTarget(std::make_unique<WordsTarget>(0, 8, "zero", "")));
  ASSERT_TRUE(gap.AddTarget(std::make_unique<WordsTarget>(16, 8, "zero", "")));
  EXPECT_FALSE(gap.valid());
  EXPECT_EQ(gap.Serialize(), "");

  DmTable empty_range;
  ASSERT_TRUE(empty_range.AddTarget(std::make_unique<WordsTarget>(0, 0, "zero", "")));
  EXPECT_FALSE(empty_range.valid());
}

}  // namespace
