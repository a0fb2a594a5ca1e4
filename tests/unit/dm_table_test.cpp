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

TEST(DmTargetVerityTest, RendersTheKernelWordsInOrder) {
  EXPECT_EQ(Verity()->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 5a17");
  EXPECT_EQ(Verity()->name(), "verity");
  // An empty salt would drop a word from the line; the kernel reads "-".
  EXPECT_EQ(Verity("")->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 -");
}

TEST(DmTargetVerityTest, OptionalWordsFollowTheirCountInCallOrder) {
  auto target = Verity();
  target->IgnoreZeroBlocks();
  EXPECT_EQ(target->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 5a17 1 ignore_zero_blocks");
  target->SetVerityMode("restart_on_corruption");
  EXPECT_EQ(target->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 5a17 2 ignore_zero_blocks "
            "restart_on_corruption");

  auto mode_first = Verity();
  mode_first->SetVerityMode("ignore_corruption");
  mode_first->IgnoreZeroBlocks();
  EXPECT_EQ(mode_first->GetParameterString(),
            "1 /dev/loop3 7:3 4096 4096 1024 1024 sha256 8c07 5a17 2 ignore_corruption "
            "ignore_zero_blocks");
  EXPECT_TRUE(mode_first->Valid());
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

// The spec header of the target at byte `at` of a serialized table.
dm_target_spec SpecAt(const std::string& bytes, size_t at) {
  dm_target_spec spec;
  EXPECT_LE(at + sizeof(spec), bytes.size());
  std::memcpy(&spec, bytes.data() + at, sizeof(spec));
  return spec;
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

  const dm_target_spec first = SpecAt(bytes, 0);
  EXPECT_EQ(first.sector_start, 0u);
  EXPECT_EQ(first.length, 100u);
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(first.next, 48u);
  EXPECT_STREQ(first.target_type, "linear");
  EXPECT_EQ(std::string(bytes.data() + 40, 8), std::string("7:0 100\0", 8));

  const dm_target_spec second = SpecAt(bytes, 48);
  EXPECT_EQ(second.sector_start, 100u);
  EXPECT_EQ(second.length, 20u);
  EXPECT_EQ(second.next, 56u);
  EXPECT_STREQ(second.target_type, "zero");
  EXPECT_EQ(std::string(bytes.data() + 88, 16), std::string("abcdefgh\0\0\0\0\0\0\0\0", 16));

  const dm_target_spec third = SpecAt(bytes, 104);
  EXPECT_EQ(third.sector_start, 120u);
  EXPECT_EQ(third.next, 48u);
  EXPECT_EQ(std::string(bytes.data() + 144, 8), std::string("x\0\0\0\0\0\0\0", 8));
}

TEST(DmTableTest, SerializesAVerityTarget) {
  DmTable table;
  auto target = Verity();
  target->IgnoreZeroBlocks();
  const std::string params = target->GetParameterString();
  ASSERT_TRUE(table.AddTarget(std::move(target)));
  table.set_readonly(true);
  EXPECT_TRUE(table.readonly());

  const std::string bytes = table.Serialize();
  ASSERT_EQ(bytes.size() % 8, 0u);
  ASSERT_GE(bytes.size(), 40 + params.size() + 1);
  const dm_target_spec spec = SpecAt(bytes, 0);
  EXPECT_EQ(spec.length, 8192u);
  EXPECT_EQ(spec.next, bytes.size());
  EXPECT_STREQ(spec.target_type, "verity");
  EXPECT_STREQ(bytes.data() + 40, params.c_str());
}

TEST(DmTableTest, TablesTheKernelWouldRefuseSerializeToNothing) {
  DmTable empty;
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

TEST(DmTableTest, RejectsAMissingTarget) {
  DmTable table;
  EXPECT_FALSE(table.AddTarget(nullptr));
  EXPECT_EQ(table.num_targets(), 0u);
}

}  // namespace
