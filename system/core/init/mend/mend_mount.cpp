#include "mend_mount.h"

#include <fcntl.h>
#include <unistd.h>

#include <android-base/chrono_utils.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <unordered_set>
#include <vector>

#include "mend_loop.h"
#include "mend_paths.h"

namespace android {
namespace rpk {

using android::base::boot_clock;
using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::StringPrintf;
using android::base::unique_fd;
using android::dm::DeviceMapper;
using android::dm::DmDeviceState;
using android::dm::DmTable;
using android::dm::DmTargetVerity;

namespace {

constexpr uint64_t kSectorSize = 512;
constexpr std::chrono::milliseconds kDeleteTimeout(750);
constexpr std::chrono::milliseconds kCreateTimeout(1000);
constexpr size_t kVerityReadChunk = 4 * 1024 * 1024;
constexpr char kVerityModeRestart[] = "restart_on_corruption";

// Clears O_DIRECT on `fd`; false, with errno untouched, when it was not set
// or cannot be cleared.
bool DropDirectIo(int fd) {
  const int saved_errno = errno;
  const int flags = fcntl(fd, F_GETFL);
  if (flags != -1 && (flags & O_DIRECT) && fcntl(fd, F_SETFL, flags & ~O_DIRECT) == 0) return true;
  errno = saved_errno;
  return false;
}

// Reads exactly `count` bytes unless the device fails or ends first. A
// premature end leaves EIO in errno: the device is shorter than its image.
// A direct read that the kernel refuses for its alignment (EINVAL: a device
// end that is not block aligned, a file without direct I/O) is repeated
// through the page cache from where the last read stopped.
bool ReadChunk(int fd, uint8_t* buffer, size_t count) {
  while (count > 0) {
    ssize_t n = TEMP_FAILURE_RETRY(read(fd, buffer, count));
    if (n < 0 && errno == EINVAL && DropDirectIo(fd)) continue;
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;
      return false;
    }
    buffer += n;
    count -= static_cast<size_t>(n);
  }
  return true;
}

// A page-aligned, zero-filled read buffer mapped straight from the kernel:
// direct I/O needs the alignment, and no pass in user space clears it. It
// takes no transparent huge pages, which could make it resident in 2 MiB
// steps beyond its own pages.
class ReadBuffer {
 public:
  explicit ReadBuffer(size_t size)
      : size_(size),
        data_(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    CHECK(data_ != MAP_FAILED) << "Cannot map a read buffer of " << size << " bytes";
    madvise(data_, size_, MADV_NOHUGEPAGE);
  }
  ~ReadBuffer() { munmap(data_, size_); }
  ReadBuffer(const ReadBuffer&) = delete;
  ReadBuffer& operator=(const ReadBuffer&) = delete;

  uint8_t* data() { return static_cast<uint8_t*>(data_); }

 private:
  size_t size_;
  void* data_;
};

}  // namespace

DmVerityDevice::DmVerityDevice(DmVerityDevice&& other) noexcept
    : name_(std::move(other.name_)),
      device_path_(std::move(other.device_path_)),
      released_(other.released_) {
  other.released_ = true;
}

DmVerityDevice& DmVerityDevice::operator=(DmVerityDevice&& other) noexcept {
  name_ = other.name_;
  device_path_ = other.device_path_;
  released_ = other.released_;
  other.released_ = true;
  return *this;
}

DmVerityDevice::~DmVerityDevice() {
  if (released_) return;
  auto deleted = DeleteVerityDevice(name_, false);
  if (!deleted.ok()) LOG(ERROR) << deleted.error().message();
}

std::unique_ptr<DmTable> CreateVerityTable(const RpkVerityData& data,
                                           const std::string& data_device,
                                           const std::string& hash_tree_device,
                                           bool restart_on_corruption) {
  const AvbHashtreeDescriptor& desc = *data.desc;
  // A zero block size cannot come from a valid descriptor; the kernel
  // refuses the resulting table instead of this code dividing by zero.
  const uint64_t hash_start_block =
      (hash_tree_device == data_device && desc.hash_block_size != 0)
          ? desc.tree_offset / desc.hash_block_size
          : 0;
  const uint64_t num_data_blocks =
      desc.data_block_size != 0 ? desc.image_size / desc.data_block_size : 0;

  auto target = std::make_unique<DmTargetVerity>(
      0, desc.image_size / kSectorSize, desc.dm_verity_version, data_device, hash_tree_device,
      desc.data_block_size, desc.hash_block_size, static_cast<uint32_t>(num_data_blocks),
      static_cast<uint32_t>(hash_start_block), data.hash_algorithm, data.root_digest, data.salt);
  target->IgnoreZeroBlocks();
  if (restart_on_corruption) target->SetVerityMode(kVerityModeRestart);

  auto table = std::make_unique<DmTable>();
  table->AddTarget(std::move(target));
  table->set_readonly(true);
  return table;
}

Result<DmVerityDevice> CreateVerityDevice(DeviceMapper& dm, const std::string& name,
                                          const DmTable& table,
                                          const std::chrono::milliseconds& timeout) {
  std::string device_path;
  if (!dm.CreateDevice(name, table, &device_path, timeout)) {
    return Error() << "Couldn't create verity device.";
  }
  return DmVerityDevice(name, device_path);
}

Result<DmVerityDevice> CreateVerityDevice(const std::string& name, const DmTable& table,
                                          bool /*allow_reuse*/) {
  LOG(VERBOSE) << "Creating verity device " << name;
  DeviceMapper& dm = DeviceMapper::Instance();
  switch (dm.GetState(name)) {
    case DmDeviceState::INVALID:
      return CreateVerityDevice(dm, name, table, kCreateTimeout);
    case DmDeviceState::ACTIVE: {
      LOG(WARNING) << "Deleting existing active dm device " << name;
      auto deleted = DeleteVerityDevice(name, false);
      if (!deleted.ok()) return deleted.error();
      return CreateVerityDevice(dm, name, table, kCreateTimeout);
    }
    case DmDeviceState::SUSPENDED:
      break;
  }
  // A device that exists but is not active (left half-made by an earlier
  // run, or suspended) is given the new table and reused.
  if (!dm.LoadTableAndActivate(name, table)) {
    dm.DeleteDevice(name);
    return Error() << "Failed to activate dm device " << name;
  }
  std::string device_path;
  if (!dm.WaitForDevice(name, kCreateTimeout, &device_path)) {
    dm.DeleteDevice(name);
    return Error() << "Failed waiting for dm device " << name;
  }
  return DmVerityDevice(name, device_path);
}

Result<void> DeleteVerityDevice(const std::string& name, bool /*ignored_flag*/) {
  if (!DeviceMapper::Instance().DeleteDevice(name, kDeleteTimeout)) {
    return Error() << "Failed to delete dm-device " << name;
  }
  return {};
}

Result<void> ReadVerityDevice(const std::string& device_path, uint64_t size_bytes) {
  ReadBuffer buffer(kVerityReadChunk);
  // Direct reads: dm-verity checks the blocks straight into the buffer, the
  // image takes no room in the page cache, and each 4 MiB read reaches the
  // device as one large request whose parts are verified in parallel.
  unique_fd fd(TEMP_FAILURE_RETRY(open(device_path.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECT)));
  if (fd.get() == -1 && errno == EINVAL) {
    fd.reset(TEMP_FAILURE_RETRY(open(device_path.c_str(), O_RDONLY | O_CLOEXEC)));
  }
  if (fd.get() == -1) return ErrnoError() << "Can't open " << device_path;
  // dm-verity fails the read of any block whose hash does not match, so a
  // full pass proves the whole image; the data itself is not looked at.
  uint64_t remaining = size_bytes;
  while (remaining > 0) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(remaining, kVerityReadChunk));
    if (!ReadChunk(fd.get(), buffer.data(), chunk)) {
      return ErrnoError() << "Can't verify " << device_path << "corrupted";
    }
    remaining -= chunk;
  }
  return {};
}

bool MountedRpkDatabase::MountedRpkData::operator<(const MountedRpkData& other) const {
  return std::tie(loop_name, full_path, mount_point, device_name) <
         std::tie(other.loop_name, other.full_path, other.mount_point, other.device_name);
}

namespace {

// Built-in package directories and the names of shared-library packages,
// kept for the registry; the mount path does not consult them.
const std::vector<std::string> kBuiltinDirs = {"/system/apex", "/system_ext/apex", "/product/apex",
                                               "/vendor/apex"};
const std::unordered_set<std::string> kSharedLibsNames = {"sharedlibs"};
std::optional<RpkConfig> gSharedConfig;
MountedRpkDatabase gMountedRpkDatabase;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

using android::mend::kTrialDeviceName;
constexpr int kLoopCreateAttempts = 3;

// The first loop device of up to three attempts; an empty holder when all
// fail (the verity step then fails on the missing device).
loop::LoopbackRepairDeviceUniqueFd AttachImage(const RpkFile& rpk) {
  for (int attempt = 0; attempt < kLoopCreateAttempts; ++attempt) {
    auto device = loop::CreateAndConfigureLoopDevice(
        rpk.GetPath(), static_cast<uint32_t>(*rpk.GetImageOffset()), *rpk.GetImageSize());
    if (device.ok()) return std::move(*device);
  }
  return {};
}

}  // namespace

Result<void> CheckMountPointIsEmpty(const std::string& mount_point) {
  struct stat st;
  if (stat(mount_point.c_str(), &st) != 0) {
    if (errno == ENOENT) return {};
    return Error() << "Failed to access " << mount_point << " : " << strerror(errno);
  }
  std::unique_ptr<DIR, DirCloser> dir(opendir(mount_point.c_str()));
  if (!dir) {
    return Error() << "Can't open " << mount_point << " for reading : " << strerror(errno);
  }
  while (struct dirent* entry = readdir(dir.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    return Error() << mount_point << " is not empty";
  }
  return {};
}

// Directory of separate hashtree files. Nothing assigns it: no package ships
// a separate tree, so the name below is never used.
const char* gRpkHashTreeDir = nullptr;

std::string GetHashTreeFileName(const RpkFile& /*rpk*/, bool /*is_temp*/) {
  return StringPrintf("%s/%s", gRpkHashTreeDir, "rpk");
}

Result<MountedRpkDatabase::MountedRpkData> MountPackageImpl(
    const RpkFile& rpk, const std::string& mount_point, const std::string& device_name,
    const std::string& /*hashtree_file*/, bool /*verify_image*/, bool /*reuse_device*/,
    bool temp_mount) {
  const auto start = boot_clock::now();
  if (auto empty = CheckMountPointIsEmpty(mount_point); !empty.ok()) return empty.error();
  if (!rpk.GetImageOffset() || !rpk.GetImageSize()) {
    return Error() << "Cannot create mount point without image offset and size";
  }
  if (auto ready = loop::PreAllocateLoopDevices(2); !ready.ok()) {
    LOG(ERROR) << "Failed to pre allocate loop devices , error: " << ready.error();
  }

  loop::LoopbackRepairDeviceUniqueFd loop_device = AttachImage(rpk);
  LOG(VERBOSE) << "Loopback device created: " << loop_device.name;

  auto verity_data = rpk.VerifyRpkVerity(rpk.GetPublicKey());
  if (!verity_data.ok()) {
    return Error() << " Failed to verify rpk Verity data for " << rpk.GetPath() << ": "
                   << verity_data.error();
  }

  auto table = CreateVerityTable(*verity_data, loop_device.name, loop_device.name, !temp_mount);
  DmVerityDevice verity_device;
  {
    auto created = CreateVerityDevice(device_name, *table, false);
    if (!created.ok()) return Error() << " Failed to create Verity device " << rpk.GetPath();
    verity_device = std::move(*created);
  }
  if (auto tuned = loop::ConfigureReadAhead(verity_device.GetDevPath()); !tuned.ok()) {
    return tuned.error();
  }

  // dm-verity checks every block it hands out, so reading the whole device
  // proves the image before anything is mounted.
  if (!ReadVerityDevice(verity_device.GetDevPath(), verity_data->desc->image_size).ok()) {
    return Error() << " verity_status block_device " << 1;
  }

  if (temp_mount) {
    LOG(INFO) << " First_mount  End";
    return MountedRpkDatabase::MountedRpkData();
  }

  if (!rpk.GetFsType()) return Error() << "Cannot mount package without FsType";
  if (mount(verity_device.GetDevPath().c_str(), mount_point.c_str(), rpk.GetFsType()->c_str(),
            MS_RDONLY, nullptr) != 0) {
    return Error() << "second mounting failed for package " << rpk.GetPath();
  }
  const auto end = boot_clock::now();
  LOG(VERBOSE) << "Mounted " << rpk.GetPath() << " on " << mount_point << " in "
               << std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count()
               << "ms";

  // Success: the loop and verity devices now belong to the mount.
  loop_device.CloseGood();
  verity_device.Release();
  return MountedRpkDatabase::MountedRpkData(loop_device.name, rpk.GetPath(), mount_point,
                                             device_name, "", temp_mount);
}

Result<MountedRpkDatabase::MountedRpkData> DoMountPackage(const std::string& path,
                                                          const std::string& mount_point,
                                                          const std::string& device_name) {
  auto rpk = RpkFile::Open(path);
  if (!rpk.ok()) return rpk.error();

  GetHashTreeFileName(*rpk, false);
  auto trial = MountPackageImpl(*rpk, mount_point, kTrialDeviceName, "", true, false, true);
  if (!trial.ok()) return Error() << "first mount failed " << trial.error();

  GetHashTreeFileName(*rpk, false);
  auto mounted = MountPackageImpl(*rpk, mount_point, device_name, "", true, false, false);
  if (!mounted.ok()) return Error() << "second mount failed " << mounted.error();
  return mounted;
}

}  // namespace rpk
}  // namespace android
