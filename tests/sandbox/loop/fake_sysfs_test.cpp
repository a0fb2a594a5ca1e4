// The loop code against fake sysfs trees, for what a real kernel cannot be
// made to show: for block queue tuning, refused writes, a kernel whose
// pass-through scheduler is called "noop", disks of any queue depth and
// partition layouts (writes to the attribute files are answered by
// fake_writes, reads come from the tree); for pre-allocation, which devices
// look bound.

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include "fake_writes.h"
#include "loop_test_env.h"
#include "mend_loop.h"

namespace mend_test {
namespace {

namespace fs = std::filesystem;
using android::base::INFO;
using android::base::VERBOSE;
using android::base::WARNING;
using android::rpk::loop::ConfigureQueueDepth;
using android::rpk::loop::ConfigureReadAhead;
using android::rpk::loop::ConfigureScheduler;
using android::rpk::loop::PreAllocateLoopDevices;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kQueue[] = "/sys/block/loop3/queue/";

class QueueTuningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(SysIsFake()) << "refusing to write a fake tree over the real sysfs";
  }

  // A fresh attribute file whose writes are recorded, not applied.
  static std::string Attribute(const std::string& name, const std::string& content) {
    const std::string path = kQueue + name;
    fake_writes::Reset();
    WriteTreeFile(path, content);
    fake_writes::Track(path);
    return path;
  }

  // The start and end warnings of `function`, as seen in the log.
  std::vector<std::string> Bracket(const std::string& function) const {
    std::vector<std::string> seen;
    for (const std::string& message : logs_.Messages(WARNING)) {
      if (message == function + " start" || message == function + " end") seen.push_back(message);
    }
    return seen;
  }

  LogRecorder logs_;
};

TEST_F(QueueTuningTest, SchedulerIsSwitchedToPassThrough) {
  struct Case {
    const char* current;
    std::vector<std::string> refused;
    std::vector<std::string> expected_writes;
    const char* error;  // nullptr: success
  };
  const Case cases[] = {
      {"none\n", {}, {}, nullptr},
      {"noop", {}, {}, nullptr},
      {"[mq-deadline] none \n", {}, {"none"}, nullptr},
      {"[none] mq-deadline kyber", {}, {"none"}, nullptr},
      // A kernel without "none" that still knows "noop".
      {"[cfq] deadline noop\n", {"none"}, {"none", "noop"}, nullptr},
      {"[bfq] kyber\n",
       {"none", "noop"},
       {"none", "noop"},
       "Failed to write to /sys/block/loop3/queue/scheduler: Invalid argument"},
  };
  for (const Case& c : cases) {
    // Both node spellings address the same sysfs directory.
    for (const char* device : {"/dev/block/loop3", "/dev/loop3"}) {
      SCOPED_TRACE(std::string(device) + " with \"" + c.current + "\"");
      const std::string path = Attribute("scheduler", c.current);
      for (const std::string& value : c.refused) fake_writes::Refuse(path, value, EINVAL);
      logs_.Clear();

      auto result = ConfigureScheduler(device);
      EXPECT_EQ(fake_writes::Writes(path), c.expected_writes);
      if (c.error == nullptr) {
        EXPECT_TRUE(result.ok()) << result.error();
        EXPECT_THAT(Bracket("ConfigureScheduler"),
                    ElementsAre("ConfigureScheduler start", "ConfigureScheduler end"));
      } else {
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error().message(), c.error);
        EXPECT_EQ(result.error().code(), EINVAL);
        EXPECT_THAT(Bracket("ConfigureScheduler"), ElementsAre("ConfigureScheduler start"));
      }
    }
  }

  auto missing = ConfigureScheduler("/dev/block/loop9");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().message(),
            "Failed to open /sys/block/loop9/queue/scheduler: No such file or directory");

  auto not_a_node = ConfigureScheduler("/tmp/loop3");
  ASSERT_FALSE(not_a_node.ok());
  EXPECT_EQ(not_a_node.error().message(), "Invalid argument /tmp/loop3");
  EXPECT_EQ(not_a_node.error().code(), 0);
}

TEST_F(QueueTuningTest, ReadAheadIsSetTo128KiB) {
  const std::string path = Attribute("read_ahead_kb", "4096\n");
  ASSERT_TRUE(ConfigureReadAhead("/dev/block/loop3").ok());
  // Four bytes: the terminating NUL goes with the number.
  EXPECT_THAT(fake_writes::Writes(path), ElementsAre(std::string("128\0", 4)));
  EXPECT_THAT(Bracket("ConfigureReadAhead"),
              ElementsAre("ConfigureReadAhead start", "ConfigureReadAhead end"));

  // An interrupted write is repeated.
  Attribute("read_ahead_kb", "4096\n");
  fake_writes::Interrupt(path, 2);
  ASSERT_TRUE(ConfigureReadAhead("/dev/loop3").ok());
  EXPECT_EQ(fake_writes::Writes(path).size(), 3u);

  Attribute("read_ahead_kb", "4096\n");
  fake_writes::Refuse(path, std::string("128\0", 4), EINVAL);
  auto refused = ConfigureReadAhead("/dev/loop3");
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().message(),
            "Failed to write to /sys/block/loop3/queue/read_ahead_kb: Invalid argument");
  EXPECT_EQ(refused.error().code(), EINVAL);

  auto missing = ConfigureReadAhead("/dev/loop9");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().message(),
            "Failed to open /sys/block/loop9/queue/read_ahead_kb: No such file or directory");
  EXPECT_EQ(missing.error().code(), ENOENT);
}

TEST_F(QueueTuningTest, ReadAheadOfANonDevicePathAborts) {
  EXPECT_DEATH(ConfigureReadAhead("loop3").ok(),
               "Check failed: StartsWith\\(device_path, \"/dev/\"\\) ");
}

// The backing file lives on the sandbox's /tmp; /dev/block and
// /sys/class/block describe whatever disk layout a case needs around it.
class QueueDepthTest : public QueueTuningTest {
 protected:
  void SetUp() override {
    QueueTuningTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(MountOwnDev());
    WriteWholeFile(kBackingFile, "image");
    struct stat sb;
    ASSERT_EQ(stat(kBackingFile, &sb), 0);
    file_device_ = sb.st_dev;
  }

  // /dev/block/<node> carries the backing file's device number; the class
  // tree has the given entries: "disk/part" makes part a partition of disk,
  // "disk" a bare disk, "part!" a partition without a parent listing.
  void Layout(const std::string& node, const std::vector<std::string>& entries) {
    fs::remove_all("/dev/block");
    fs::remove_all("/sys/class/block");
    ASSERT_TRUE(MakeBlockNode("/dev/block/" + node, file_device_));
    fs::create_directories("/sys/class/block");
    for (const std::string& entry : entries) {
      const size_t slash = entry.find('/');
      if (slash != std::string::npos) {
        fs::create_directories("/sys/class/block/" + entry);
        WriteTreeFile("/sys/class/block/" + entry.substr(slash + 1) + "/partition", "1\n");
      } else if (entry.back() == '!') {
        WriteTreeFile("/sys/class/block/" + entry.substr(0, entry.size() - 1) + "/partition",
                      "1\n");
      } else {
        fs::create_directories("/sys/class/block/" + entry);
      }
    }
  }

  static void Tags(const std::string& disk, const std::string& text) {
    WriteTreeFile("/sys/class/block/" + disk + "/mq/0/nr_tags", text);
  }

  std::string Requests(const std::string& text) { return Attribute("nr_requests", text); }

  static constexpr char kBackingFile[] = "/tmp/backing.img";
  dev_t file_device_ = 0;
};

TEST_F(QueueDepthTest, FollowsTheDiskUnderTheBackingFile) {
  struct Case {
    const char* requests;
    const char* tags;
    bool refuse;
    std::vector<std::string> expected_writes;
    const char* error;  // nullptr: success
  };
  const std::string requests_path = std::string(kQueue) + "nr_requests";
  const Case cases[] = {
      {"64\n", "64\n", false, {}, nullptr},
      {"32", "64", false, {"64"}, nullptr},
      // A queue that is shallower than the disk's may stay so.
      {"32", "64", true, {"64"}, nullptr},
      {"128", "32", false, {"32"}, nullptr},
      {"128",
       "32",
       true,
       {"32"},
       "Failed to write 32 to /sys/block/loop3/queue/nr_requests: Invalid argument"},
      // nr_requests takes hex but reads "010" as ten; nr_tags follows C's
      // prefixes, so "010" is octal there.
      {"0x80", "010", false, {"8"}, nullptr},
      {"10", "010", false, {"8"}, nullptr},
      {"010", "10", false, {}, nullptr},
      {"-1", "64", false, {}, "Failed to parse -1"},
      {"4294967296", "64", false, {}, "Failed to parse 4294967296"},
      {"deep", "64", false, {}, "Failed to parse deep"},
  };
  Layout("sda3", {"loop3", "sda/sda3", "vda"});
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("nr_requests ") + c.requests + ", nr_tags " + c.tags +
                 (c.refuse ? ", refused" : ""));
    Tags("sda", c.tags);
    Requests(c.requests);
    for (const std::string& value : c.expected_writes) {
      if (c.refuse) fake_writes::Refuse(requests_path, value, EINVAL);
    }
    logs_.Clear();
    auto result = ConfigureQueueDepth("/dev/block/loop3", kBackingFile);
    EXPECT_EQ(fake_writes::Writes(requests_path), c.expected_writes);
    if (c.error == nullptr) {
      EXPECT_TRUE(result.ok()) << result.error();
      EXPECT_THAT(Bracket("ConfigureQueueDepth"),
                  ElementsAre("ConfigureQueueDepth start", "ConfigureQueueDepth end"));
    } else {
      ASSERT_FALSE(result.ok());
      EXPECT_EQ(result.error().message(), c.error);
      EXPECT_THAT(Bracket("ConfigureQueueDepth"), ElementsAre("ConfigureQueueDepth start"));
    }
  }

  // What the walk found is logged at verbose level.
  Tags("sda", "64");
  Requests("64");
  logs_.Clear();
  ASSERT_TRUE(ConfigureQueueDepth("/dev/loop3", kBackingFile).ok());
  EXPECT_THAT(
      logs_.Messages(VERBOSE),
      ElementsAre(std::string(kBackingFile) + " -> /dev/block/sda3", "Partition parent: sda",
                  std::string(kBackingFile) +
                      " is backed by /dev/sda and that block device supports queue "
                      "depth 64"));
}

TEST_F(QueueDepthTest, DiskLayoutsAndTheirErrors) {
  const std::string requests_path = std::string(kQueue) + "nr_requests";

  // A whole disk (no partition attribute) is its own parent.
  Layout("vdb", {"loop3", "vdb", "sda/sda1"});
  Tags("vdb", "256\n");
  Requests("128\n");
  logs_.Clear();
  auto whole_disk = ConfigureQueueDepth("/dev/block/loop3", kBackingFile);
  EXPECT_TRUE(whole_disk.ok()) << whole_disk.error();
  EXPECT_THAT(fake_writes::Writes(requests_path), ElementsAre("256"));
  EXPECT_TRUE(logs_.Has(VERBOSE, "Partition parent: vdb"));
  // Without a scheduler the loop queue cannot outgrow its own 128 tags, so
  // that increase is not asked for; with one it can be.
  WriteTreeFile("/sys/block/loop3/mq/0/nr_tags", "128\n");
  for (const auto& [scheduler, writes] :
       std::vector<std::pair<std::string, std::vector<std::string>>>{
           {"[none] mq-deadline\n", {}}, {"[mq-deadline] none\n", {"256"}}}) {
    WriteTreeFile(std::string(kQueue) + "scheduler", scheduler);
    Requests("128\n");
    EXPECT_TRUE(ConfigureQueueDepth("/dev/block/loop3", kBackingFile).ok());
    EXPECT_EQ(fake_writes::Writes(requests_path), writes) << scheduler;
  }

  // A device-mapper device is followed down to the partition under it.
  Layout("dm-0", {"dm-0", "sdb/sdb2", "loop3"});
  fs::create_directories("/sys/block/dm-0/slaves/sdb2");
  Tags("sdb", "32");
  Requests("128");
  logs_.Clear();
  auto stacked = ConfigureQueueDepth("/dev/block/loop3", kBackingFile);
  EXPECT_TRUE(stacked.ok()) << stacked.error();
  EXPECT_THAT(fake_writes::Writes(requests_path), ElementsAre("32"));
  EXPECT_THAT(logs_.Messages(VERBOSE),
              ElementsAre(std::string(kBackingFile) + " -> /dev/block/dm-0",
                          "/dev/block/dm-0 -> /dev/block/sdb2", "Partition parent: sdb",
                          std::string(kBackingFile) +
                              " is backed by /dev/sdb and that block device supports queue "
                              "depth 32"));

  struct Case {
    const char* node;
    std::vector<std::string> entries;
    const char* file;
    std::string error;
    int code;
  };
  const Case cases[] = {
      {"sdc1", {"sdc1!", "sda/sda1"}, kBackingFile, "Failed to determine parent of sdc1", 0},
      {"sdd1", {"sda/sda1"}, kBackingFile, "Failed to determine parent of sdd1", 0},
      {"sda1", {"sda/sda1"}, kBackingFile, "Failed to read /sys/class/block/sda/mq/0/nr_tags", 0},
      {"sda1",
       {"sda/sda1"},
       "/tmp/missing.img",
       "stat(/tmp/missing.img): No such file or directory",
       ENOENT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.node) + " for " + c.file);
    Layout(c.node, c.entries);
    Requests("128");
    auto result = ConfigureQueueDepth("/dev/block/loop3", c.file);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().message(), c.error);
    EXPECT_EQ(result.error().code(), c.code);
    EXPECT_THAT(fake_writes::Writes(requests_path), IsEmpty());
  }

  // A backing file on a file system whose device has no /dev/block node.
  Layout("sda1", {"sda/sda1"});
  Requests("128");
  struct stat run;
  ASSERT_EQ(stat("/run", &run), 0);
  WriteWholeFile("/run/backing.img", "image");
  auto unknown = ConfigureQueueDepth("/dev/block/loop3", "/run/backing.img");
  ASSERT_FALSE(unknown.ok());
  EXPECT_EQ(unknown.error().message(), "Failed to convert " + std::to_string(major(run.st_dev)) +
                                           ":" + std::to_string(minor(run.st_dev)) +
                                           " (path /run/backing.img)");
  EXPECT_EQ(unknown.error().code(), 0);

  // The queue itself must be readable and writable.
  fake_writes::Reset();
  fs::remove(requests_path);
  auto no_queue = ConfigureQueueDepth("/dev/block/loop3", kBackingFile);
  ASSERT_FALSE(no_queue.ok());
  EXPECT_EQ(no_queue.error().message(),
            "Failed to read /sys/block/loop3/queue/nr_requests: No such file or directory");
  EXPECT_EQ(no_queue.error().code(), ENOENT);

  auto not_a_node = ConfigureQueueDepth("loop3", kBackingFile);
  ASSERT_FALSE(not_a_node.ok());
  EXPECT_EQ(not_a_node.error().message(), "Invalid argument loop3");
  EXPECT_EQ(not_a_node.error().code(), 0);
}

// Ids of the loop devices that exist, from their /dev nodes.
std::set<int> ExistingLoopDevices() {
  std::set<int> ids;
  for (const auto& entry : fs::directory_iterator("/dev")) {
    const std::string name = entry.path().filename();
    int id = 0;
    if (android::base::StartsWith(name, "loop") && android::base::ParseInt(name.substr(4), &id) &&
        entry.is_block_file()) {
      ids.insert(id);
    }
  }
  return ids;
}

// A fake /sys decides which existing devices look bound; the control node
// and the devices are the host's.
TEST(PreAllocateLoopDevicesTest, CountsIdleDevicesAndAllocatesTheRest) {
  ASSERT_TRUE(SysIsFake());
  LogRecorder logs;
  // Opening the control node loads the driver, which makes its first devices.
  android::base::unique_fd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  ASSERT_NE(control.get(), -1) << strerror(errno);
  const std::set<int> existing = ExistingLoopDevices();
  for (int id = 0; id < 4; ++id) {
    if (!existing.count(id)) GTEST_SKIP() << "loop" << id << " does not exist on this host";
  }
  const std::string found_none =
      "Found 0 idle loopback devices that were pre-allocated by kernel. Allocated 0 more.";

  // Nothing wanted: nothing is asked of the driver.
  ASSERT_TRUE(PreAllocateLoopDevices(0).ok());
  EXPECT_THAT(logs.Messages(INFO), ElementsAre(found_none));
  EXPECT_THAT(logs.Messages(WARNING), IsEmpty());

  // loop0 and loop1 bound: skipped; loop2 and loop3 are the idle ones.
  logs.Clear();
  WriteTreeFile("/sys/block/loop0/loop/backing_file", "/a\n");
  WriteTreeFile("/sys/block/loop1/loop/backing_file", "/b\n");
  ASSERT_TRUE(PreAllocateLoopDevices(2).ok());
  EXPECT_THAT(logs.Messages(WARNING),
              ElementsAre("Loop device 0 already in use", "Loop device 1 already in use"));
  EXPECT_THAT(logs.Messages(INFO),
              ElementsAre("Found 2 idle loopback devices that were pre-allocated by kernel. "
                          "Allocated 0 more."));

  // Every existing device bound: two new ones are made (and removed again).
  logs.Clear();
  for (int id = 0; id <= *existing.rbegin(); ++id) {
    fs::create_directories("/sys/block/loop" + std::to_string(id) + "/loop");
  }
  auto allocated = PreAllocateLoopDevices(2);
  std::set<int> created;
  for (int id : ExistingLoopDevices()) {
    if (!existing.count(id)) created.insert(id);
  }
  for (int id : created) ioctl(control.get(), LOOP_CTL_REMOVE, id);

  ASSERT_TRUE(allocated.ok()) << allocated.error();
  EXPECT_EQ(created.size(), 2u);
  EXPECT_THAT(logs.Messages(INFO),
              ElementsAre("Found 0 idle loopback devices that were pre-allocated by kernel. "
                          "Allocated 2 more."));
}

}  // namespace
}  // namespace mend_test
