#include "mend_loop.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <fcntl.h>
#include <libdm/dm.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include "mend_mount_utils.h"
#include "mend_paths.h"

namespace android {
namespace rpk {
namespace loop {

using android::base::Basename;
using android::base::ErrnoError;
using android::base::Error;
using android::base::GetBoolProperty;
using android::base::ReadFileToString;
using android::base::Result;
using android::base::StartsWith;
using android::base::StringPrintf;
using android::base::Trim;
using android::base::unique_fd;

namespace {

constexpr char kLoopControl[] = "/dev/loop-control";
constexpr uint32_t kLoopBlockSize = 4096;
constexpr char kDevBlockPrefix[] = "/dev/block/";
constexpr char kSysClassBlock[] = "/sys/class/block";

// Whether the kernel knows LOOP_CONFIGURE; decided once per process on the
// first device configured.
std::once_flag loop_configure_probe_once;
bool loop_configure_supported = false;

void ProbeLoopConfigure(int device_fd) {
  // A descriptor of -1 fails the fd lookup, which the kernel does before
  // anything else: EBADF proves the request is known without binding anything.
  struct loop_config probe = {};
  probe.fd = static_cast<__u32>(-1);
  if (ioctl(device_fd, LOOP_CONFIGURE, &probe) == -1 && errno == EBADF) {
    loop_configure_supported = true;
  }
}

// The read-only and stacking file systems on which a buffered loop device is
// accepted when they do not serve O_DIRECT; anywhere else that is an error.
bool AllowsBufferedLoop(const std::string& target) {
  struct statfs fs;
  if (statfs(target.c_str(), &fs) == -1) return false;
  const auto magic = static_cast<uint32_t>(fs.f_type);
  return magic == SQUASHFS_MAGIC || magic == OVERLAYFS_SUPER_MAGIC || magic == EROFS_SUPER_MAGIC_V1;
}

// Logs `what` and returns it as an error carrying the current errno.
Result<void> WarnAndFail(const char* what) {
  const int saved_errno = errno;
  LOG(WARNING) << what;
  return Error(saved_errno) << what;
}

// Older kernels leave O_DIRECT on the backing file when they decide against
// direct I/O (an image offset that is not block aligned), and their buffered
// reads through that file then fail. The loop device reads through the very
// file opened here, so dropping the flag on it fixes what the device uses.
void DropUnusedDirectFlag(int device_fd, int target_fd, const std::string& target) {
  struct loop_info64 status = {};
  if (ioctl(device_fd, LOOP_GET_STATUS64, &status) == -1) return;
  if (status.lo_flags & LO_FLAGS_DIRECT_IO) return;
  const int flags = fcntl(target_fd, F_GETFL);
  if (flags == -1 || !(flags & O_DIRECT)) return;
  if (fcntl(target_fd, F_SETFL, flags & ~O_DIRECT) == -1) {
    PLOG(WARNING) << "Failed to drop O_DIRECT from " << target;
    return;
  }
  LOG(INFO) << "Direct I/O not in use for " << target << ", reading buffered";
}

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

bool IsDotEntry(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

// The /dev/block node whose device number is `dev`, e.g. the disk or
// partition that holds a file.
std::optional<std::string> BlockDeviceWithNumber(dev_t dev) {
  UniqueDir dir(opendir("/dev/block"));
  if (!dir) return std::nullopt;
  while (dirent* entry = readdir(dir.get())) {
    if (IsDotEntry(entry->d_name)) continue;
    std::string path = std::string(kDevBlockPrefix) + entry->d_name;
    struct stat sb;
    if (stat(path.c_str(), &sb) == 0 && sb.st_rdev == dev) return path;
  }
  return std::nullopt;
}

// A whole disk has a directory under /sys/class/block but, unlike a
// partition, no "partition" attribute.
bool IsWholeDisk(const std::string& name) {
  const std::string dir = std::string(kSysClassBlock) + "/" + name;
  struct stat sb;
  return stat(dir.c_str(), &sb) == 0 && S_ISDIR(sb.st_mode) &&
         access((dir + "/partition").c_str(), F_OK) == -1;
}

// The disk that holds partition `name`: the /sys/class/block entry that has
// `name` as a subdirectory. A whole disk is its own parent.
Result<std::string> PartitionParent(const std::string& name) {
  if (IsWholeDisk(name)) return name;
  UniqueDir dir(opendir(kSysClassBlock));
  if (dir) {
    while (dirent* entry = readdir(dir.get())) {
      if (IsDotEntry(entry->d_name)) continue;
      const std::string candidate =
          StringPrintf("%s/%s/%s", kSysClassBlock, entry->d_name, name.c_str());
      if (access(candidate.c_str(), F_OK) == 0) return std::string(entry->d_name);
    }
  }
  return Error() << "Failed to determine parent of " << name;
}

// The number of requests that the disk under `file_path` can have in flight.
Result<uint32_t> SupportedQueueDepth(const std::string& file_path) {
  struct stat sb;
  if (stat(file_path.c_str(), &sb) == -1) return ErrnoErrorf("stat({})", file_path);

  std::optional<std::string> device = BlockDeviceWithNumber(sb.st_dev);
  if (!device) {
    return Errorf("Failed to convert {}:{} (path {})", major(sb.st_dev), minor(sb.st_dev),
                  file_path);
  }
  LOG(VERBOSE) << file_path << " -> " << *device;

  auto& dm = android::dm::DeviceMapper::Instance();
  while (std::optional<std::string> parent = dm.GetParentBlockDeviceByPath(*device)) {
    LOG(VERBOSE) << *device << " -> " << *parent;
    device = std::move(parent);
  }

  if (!StartsWith(*device, kDevBlockPrefix)) {
    return Error() << "Failed to remove /dev/block/ prefix from " << *device;
  }
  const std::string name = device->substr(strlen(kDevBlockPrefix));
  Result<std::string> parent = PartitionParent(name);
  if (!parent.ok()) return parent.error();
  LOG(VERBOSE) << "Partition parent: " << *parent;

  const std::string tags_path = StringPrintf("%s/%s/mq/0/nr_tags", kSysClassBlock, parent->c_str());
  std::string tags;
  if (!ReadFileToString(tags_path, &tags)) return Error() << "Failed to read " << tags_path;
  tags = Trim(tags);
  LOG(VERBOSE) << file_path << " is backed by /dev/" << *parent
               << " and that block device supports queue depth " << tags;
  return static_cast<uint32_t>(strtol(tags.c_str(), nullptr, 0));
}

std::string QueueFile(const std::string& device_path, const char* file) {
  return StringPrintf("/sys/block/%s/queue/%s", Basename(device_path).c_str(), file);
}

// Whether the kernel must refuse `depth` requests for the queue: without an
// I/O scheduler a queue holds at most as many requests as its hardware has
// tags. The kernel says so only after freezing the queue, which waits for
// two RCU grace periods, so a request that must fail is better not made.
bool DepthBeyondHardwareTags(const std::string& device_path, uint32_t depth) {
  std::string scheduler;
  if (!ReadFileToString(QueueFile(device_path, "scheduler"), &scheduler)) return false;
  // The active scheduler is the bracketed one when there is a choice.
  scheduler = Trim(scheduler);
  const size_t open = scheduler.find('[');
  const size_t close = scheduler.find(']');
  if (open != std::string::npos && close != std::string::npos && open < close) {
    scheduler = scheduler.substr(open + 1, close - open - 1);
  }
  if (scheduler != "none") return false;

  const std::string tags_path =
      StringPrintf("/sys/block/%s/mq/0/nr_tags", Basename(device_path).c_str());
  std::string tags_text;
  uint32_t tags = 0;
  return ReadFileToString(tags_path, &tags_text) &&
         android::base::ParseUint(Trim(tags_text), &tags) && depth > tags;
}

}  // namespace

LoopbackRepairDeviceUniqueFd& LoopbackRepairDeviceUniqueFd::operator=(
    LoopbackRepairDeviceUniqueFd&& other) noexcept {
  if (this != &other) {
    MaybeCloseBad();
    device_fd = std::move(other.device_fd);
    name = std::move(other.name);
  }
  return *this;
}

LoopbackRepairDeviceUniqueFd::~LoopbackRepairDeviceUniqueFd() {
  MaybeCloseBad();
  name.clear();
  const int saved_errno = errno;
  device_fd.reset();
  errno = saved_errno;
}

void LoopbackRepairDeviceUniqueFd::CloseGood() {
  const int saved_errno = errno;
  device_fd.reset();
  errno = saved_errno;
}

void LoopbackRepairDeviceUniqueFd::MaybeCloseBad() {
  if (device_fd.get() == -1) return;
  if (ioctl(device_fd.get(), LOOP_CLR_FD, 0) == -1) {
    PLOG(ERROR) << "Unable to clear fd for loopback device";
  }
}

Result<void> PreAllocateLoopDevices(size_t num) {
  if (Result<void> ready = WaitForPath(kLoopControl, std::chrono::seconds(20)); !ready.ok()) {
    return ready;
  }
  unique_fd control(TEMP_FAILURE_RETRY(open(kLoopControl, O_RDWR | O_CLOEXEC)));
  if (control.get() == -1) return ErrnoError() << "Failed to open loop-control";

  size_t id = 0;
  size_t count = 0;
  size_t new_allocations = 0;
  while (count < num) {
    // The result is the new device's index. Device 0 exists from driver load
    // on, so a 0 is not taken as a creation and is judged by errno instead.
    if (ioctl(control.get(), LOOP_CTL_ADD, id) >= 1) {
      ++new_allocations;
      ++count;
    } else if (errno == EEXIST) {
      // The loop/ directory exists only while a backing file is bound.
      const std::string bound = StringPrintf("/sys/block/loop%zu/loop", id);
      if (access(bound.c_str(), F_OK) == 0) {
        LOG(WARNING) << "Loop device " << id << " already in use";
      } else {
        ++count;
      }
    } else {
      return ErrnoError() << "Failed LOOP_CTL_ADD id = " << id;
    }
    ++id;
  }
  LOG(INFO) << "Found " << (num - new_allocations) << " idle loopback devices that were "
            << "pre-allocated by kernel. Allocated " << new_allocations << " more.";
  return {};
}

Result<LoopbackRepairDeviceUniqueFd> CreateLoopDevice(const std::string& target,
                                                      uint32_t image_offset, size_t image_size) {
  LOG(WARNING) << "CreateLoopDevice start";
  unique_fd control(open(kLoopControl, O_RDWR | O_CLOEXEC));
  if (control.get() == -1) return ErrnoError() << "Failed to open loop-control";

  // Held until return, so that a free device found here is bound before
  // another thread of this process can be handed the same one.
  static std::mutex free_device_mutex;
  std::lock_guard<std::mutex> lock(free_device_mutex);

  const int num = ioctl(control.get(), LOOP_CTL_GET_FREE);
  if (num == -1) return ErrnoError() << "Failed LOOP_CTL_GET_FREE";

  const std::string candidates[] = {StringPrintf("/dev/block/loop%d", num),
                                    StringPrintf("/dev/loop%d", num)};

  // The node appears only after the device manager handled the kernel event.
  // Until cold boot is over that can take any time, so wait without limit;
  // afterwards a node that does not show up within a few tries never will.
  std::optional<LoopbackRepairDeviceUniqueFd> loop_device;
  bool cold_boot_done = GetBoolProperty(android::mend::kPropColdBootDone, false);
  for (int attempts = 0; attempts < 3;) {
    if (!cold_boot_done) cold_boot_done = GetBoolProperty(android::mend::kPropColdBootDone, false);
    for (const std::string& path : candidates) {
      unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
      if (fd.get() != -1) {
        loop_device.emplace(std::move(fd), path);
        break;
      }
    }
    if (loop_device) break;
    PLOG(WARNING) << "Loopback device " << num << " not ready. Waiting 50ms...";
    usleep(50000);
    attempts = cold_boot_done ? attempts + 1 : 1;
  }
  if (!loop_device) return ErrnoError() << "Failed to open loopback device " << num;

  CHECK(loop_device->device_fd.get() != -1);
  Result<void> configured =
      ConfigureLoopDevice(loop_device->device_fd.get(), target, image_offset, image_size);
  if (!configured.ok()) return configured.error();

  LOG(WARNING) << "CreateLoopDevice end";
  return std::move(*loop_device);
}

Result<void> ConfigureLoopDevice(int device_fd, const std::string& target, uint32_t image_offset,
                                 size_t image_size) {
  LOG(WARNING) << "ConfigureLoopDevice start";
  std::call_once(loop_configure_probe_once, ProbeLoopConfigure, device_fd);

  // Direct I/O keeps a second copy of the image out of the page cache.
  unique_fd target_fd(open(target.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT));
  LOG(WARNING) << " target_fd.get() is : " << target_fd.get();
  const bool direct_io = target_fd.get() != -1;
  if (!direct_io) {
    const int direct_open_errno = errno;
    if (!AllowsBufferedLoop(target)) {
      LOG(WARNING) << "Failed to open " << target;
      return Error(direct_open_errno) << "Failed to open " << target;
    }
    LOG(WARNING) << "Fallback to buffered I/O for " << target;
    target_fd.reset(open(target.c_str(), O_RDONLY | O_CLOEXEC));
    if (target_fd.get() == -1) {
      const int buffered_open_errno = errno;
      LOG(WARNING) << "Failed to open " << target;
      return Error(buffered_open_errno) << "Failed to open " << target;
    }
  }

  struct loop_info64 info = {};
  info.lo_offset = image_offset;
  info.lo_sizelimit = image_size;
  info.lo_flags = LO_FLAGS_AUTOCLEAR;
  snprintf(reinterpret_cast<char*>(info.lo_crypt_name), LO_NAME_SIZE, "%s", "rpk:");

  if (loop_configure_supported) {
    struct loop_config config = {};
    config.fd = static_cast<__u32>(target_fd.get());
    config.block_size = kLoopBlockSize;
    config.info = info;
    // The flags are widened only after the record was copied into the
    // request: the kernel is asked for AUTOCLEAR alone and decides direct
    // I/O from how the backing file was opened.
    if (direct_io) info.lo_flags |= LO_FLAGS_DIRECT_IO | LO_FLAGS_AUTOCLEAR;
    if (ioctl(device_fd, LOOP_CONFIGURE, &config) == -1) {
      return WarnAndFail("Failed to LOOP_CONFIGURE");
    }
    if (direct_io) DropUnusedDirectFlag(device_fd, target_fd.get(), target);
    LOG(WARNING) << "ConfigureLoopDevice end 1";
    return {};
  }

  // Kernels before LOOP_CONFIGURE: bind, then set status and block size.
  if (ioctl(device_fd, LOOP_SET_FD, target_fd.get()) == -1) {
    return WarnAndFail("Failed to LOOP_SET_FD");
  }
  if (ioctl(device_fd, LOOP_SET_STATUS64, &info) == -1) {
    return WarnAndFail("Failed to LOOP_SET_STATUS64");
  }
  if (ioctl(device_fd, BLKFLSBUF, 0) == -1) {
    return WarnAndFail("Failed to flush buffers on the loop device");
  }
  if (ioctl(device_fd, LOOP_SET_BLOCK_SIZE, kLoopBlockSize) == -1) {
    PLOG(WARNING) << "Failed to LOOP_SET_BLOCK_SIZE";
  }
  if (direct_io) DropUnusedDirectFlag(device_fd, target_fd.get(), target);
  LOG(WARNING) << "ConfigureLoopDevice end 2";
  return {};
}

Result<LoopbackRepairDeviceUniqueFd> CreateAndConfigureLoopDevice(const std::string& target,
                                                                  uint32_t image_offset,
                                                                  size_t image_size) {
  LOG(WARNING) << "CreateAndConfigureLoopDevice start";
  Result<LoopbackRepairDeviceUniqueFd> loop_device =
      CreateLoopDevice(target, image_offset, image_size);
  if (!loop_device.ok()) return loop_device.error();

  // A slow queue is no reason to give up the mount; a failed read-ahead
  // setting is, since the device is read end to end right after.
  if (Result<void> scheduler = ConfigureScheduler(loop_device->name); !scheduler.ok()) {
    LOG(WARNING) << "Configuring I/O scheduler failed: " << scheduler.error().message();
  }
  if (Result<void> depth = ConfigureQueueDepth(loop_device->name, target); !depth.ok()) {
    LOG(WARNING) << depth.error().message();
  }
  if (Result<void> read_ahead = ConfigureReadAhead(loop_device->name); !read_ahead.ok()) {
    return read_ahead.error();
  }
  LOG(WARNING) << "CreateAndConfigureLoopDevice end";
  return std::move(*loop_device);
}

Result<void> ConfigureScheduler(const std::string& device_path) {
  LOG(WARNING) << "ConfigureScheduler start";
  if (!StartsWith(device_path, "/dev/")) return Error() << "Invalid argument " << device_path;

  const std::string sys_path = QueueFile(device_path, "scheduler");
  unique_fd fd(open(sys_path.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() == -1) return ErrnoError() << "Failed to open " << sys_path;

  std::string current;
  if (!ReadFileToString(sys_path, &current)) return ErrnoError() << "Failed to read " << sys_path;
  current = Trim(current);

  // The loop driver already does its own ordering; a scheduler above it only
  // adds latency. Older kernels call the pass-through scheduler "noop".
  if (current != "none" && current != "noop") {
    if (write(fd.get(), "none", 4) < 1 && write(fd.get(), "noop", 4) < 1) {
      return ErrnoError() << "Failed to write to " << sys_path;
    }
  }
  LOG(WARNING) << "ConfigureScheduler end";
  return {};
}

Result<void> ConfigureQueueDepth(const std::string& loop_device_path,
                                 const std::string& file_path) {
  LOG(WARNING) << "ConfigureQueueDepth start";
  if (!StartsWith(loop_device_path, "/dev/")) {
    return Error() << "Invalid argument " << loop_device_path;
  }

  const std::string requests_path = QueueFile(loop_device_path, "nr_requests");
  std::string text;
  if (!ReadFileToString(requests_path, &text)) {
    return ErrnoError() << "Failed to read " << requests_path;
  }
  text = Trim(text);
  uint32_t current_depth = 0;
  if (!android::base::ParseUint(text, &current_depth)) {
    return Error() << "Failed to parse " << text;
  }

  unique_fd fd(open(requests_path.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() == -1) return ErrnoErrorf("Failed to open {}", requests_path);

  Result<uint32_t> wanted_depth = SupportedQueueDepth(file_path);
  if (!wanted_depth.ok()) return wanted_depth.error();

  // A queue that is already shallower than the disk's stays usable, so a
  // refused increase is not an error; a refused decrease is. An increase the
  // kernel must refuse is not asked for.
  const bool hopeless_increase = current_depth < *wanted_depth &&
                                 DepthBeyondHardwareTags(loop_device_path, *wanted_depth);
  if (current_depth != *wanted_depth && !hopeless_increase &&
      !android::base::WriteStringToFd(StringPrintf("%u", *wanted_depth), fd.get())) {
    if (current_depth > *wanted_depth) {
      return ErrnoErrorf("Failed to write {} to {}", *wanted_depth, requests_path);
    }
  }
  LOG(WARNING) << "ConfigureQueueDepth end";
  return {};
}

Result<void> ConfigureReadAhead(const std::string& device_path) {
  LOG(WARNING) << "ConfigureReadAhead start";
  CHECK(StartsWith(device_path, "/dev/"));

  const std::string sys_path = QueueFile(device_path, "read_ahead_kb");
  unique_fd fd(open(sys_path.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() == -1) return ErrnoError() << "Failed to open " << sys_path;

  // 128 KiB. The terminating NUL goes with it; the kernel's number parser
  // stops there.
  static constexpr char kReadAheadKb[] = "128";
  if (TEMP_FAILURE_RETRY(write(fd.get(), kReadAheadKb, sizeof(kReadAheadKb))) < 0) {
    return ErrnoError() << "Failed to write to " << sys_path;
  }
  LOG(WARNING) << "ConfigureReadAhead end";
  return {};
}

}  // namespace loop
}  // namespace rpk
}  // namespace android
