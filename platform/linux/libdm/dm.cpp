#include <libdm/dm.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <android-base/logging.h>
#include <android-base/strings.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

#include "dirwatch/dir_watch.h"

namespace android {
namespace dm {
namespace {

constexpr char kControlPath[] = "/dev/mapper/control";
constexpr size_t kInitialStatusBuffer = 16 * 1024;
constexpr size_t kMaxStatusBuffer = 4 * 1024 * 1024;

// An ioctl argument: the dm_ioctl header followed by `payload` bytes, kept
// 8-byte aligned as the kernel's structures need.
class IoctlBuffer {
 public:
  IoctlBuffer(const std::string& name, size_t payload)
      : words_((sizeof(dm_ioctl) + payload + 7) / 8, 0) {
    dm_ioctl* io = header();
    io->version[0] = DM_VERSION_MAJOR;
    io->version[1] = 0;
    io->version[2] = 0;
    io->data_size = static_cast<uint32_t>(words_.size() * 8);
    io->data_start = sizeof(dm_ioctl);
    std::strncpy(io->name, name.c_str(), sizeof(io->name) - 1);
  }

  dm_ioctl* header() { return reinterpret_cast<dm_ioctl*>(words_.data()); }
  const dm_ioctl* header() const { return reinterpret_cast<const dm_ioctl*>(words_.data()); }
  char* bytes() { return reinterpret_cast<char*>(words_.data()); }
  const char* bytes() const { return reinterpret_cast<const char*>(words_.data()); }
  size_t size() const { return words_.size() * 8; }

 private:
  std::vector<uint64_t> words_;
};

// The kernel takes names shorter than DM_NAME_LEN; longer ones would be cut
// and could address another device.
bool IsValidName(const std::string& name) {
  if (name.empty() || name.size() >= DM_NAME_LEN) {
    LOG(ERROR) << "Invalid device-mapper name: \"" << name << "\"";
    return false;
  }
  return true;
}

// A random (version 4) uuid in lowercase text.
std::string FreshUuid() {
  uint8_t b[16] = {};
  size_t got = 0;
  while (got < sizeof(b)) {
    ssize_t n = getrandom(b + got, sizeof(b) - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  b[6] = static_cast<uint8_t>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<uint8_t>((b[8] & 0x3f) | 0x80);
  char text[37];
  std::snprintf(text, sizeof(text),
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return text;
}

std::string NodePath(dev_t dev) { return "/dev/dm-" + std::to_string(minor(dev)); }

bool NodeIsDevice(const std::string& path, dev_t dev) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode) && st.st_rdev == dev;
}

// Waits up to `timeout` for `done`, which looks at the node `node`: the
// kernel makes and removes its own nodes with the device, so the first look
// mostly settles it; otherwise /dev's changes wake the wait.
bool WaitForNode(const std::string& node, const std::chrono::milliseconds& timeout,
                 const std::function<bool()>& done) {
  return dirwatch::WaitUntil(node.substr(0, node.rfind('/')), timeout, done);
}

}  // namespace

DeviceMapper& DeviceMapper::Instance() {
  static DeviceMapper instance;
  return instance;
}

DeviceMapper::DeviceMapper() {
  fd_ = open(kControlPath, O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) PLOG(ERROR) << "Failed to open device-mapper control node " << kControlPath;
}

DmDeviceState DeviceMapper::GetState(const std::string& name) const {
  if (!IsValidName(name)) return DmDeviceState::INVALID;
  IoctlBuffer io(name, 0);
  if (ioctl(fd_, DM_DEV_STATUS, io.header()) < 0) return DmDeviceState::INVALID;
  const uint32_t flags = io.header()->flags;
  if ((flags & DM_ACTIVE_PRESENT_FLAG) && !(flags & DM_SUSPEND_FLAG)) return DmDeviceState::ACTIVE;
  return DmDeviceState::SUSPENDED;
}

bool DeviceMapper::CreateDeviceWithFreshUuid(const std::string& name) {
  if (!IsValidName(name)) return false;
  IoctlBuffer io(name, 0);
  const std::string uuid = FreshUuid();
  std::strncpy(io.header()->uuid, uuid.c_str(), sizeof(io.header()->uuid) - 1);
  if (ioctl(fd_, DM_DEV_CREATE, io.header()) < 0) {
    PLOG(ERROR) << "DM_DEV_CREATE failed for " << name;
    return false;
  }
  return true;
}

bool DeviceMapper::CreateEmptyDevice(const std::string& name) {
  return CreateDeviceWithFreshUuid(name);
}

bool DeviceMapper::CreateDevice(const std::string& name, const DmTable& table, std::string* path,
                                const std::chrono::milliseconds& timeout_ms) {
  if (!CreateDeviceWithFreshUuid(name)) return false;
  if (!LoadTableAndActivate(name, table) || !WaitForDevice(name, timeout_ms, path)) {
    DeleteDevice(name);
    return false;
  }
  return true;
}

bool DeviceMapper::LoadTableAndActivate(const std::string& name, const DmTable& table) {
  if (!IsValidName(name)) return false;
  const std::string targets = table.Serialize();
  if (targets.empty()) {
    LOG(ERROR) << "Refusing to load an invalid table into " << name;
    return false;
  }
  IoctlBuffer load(name, targets.size());
  std::memcpy(load.bytes() + sizeof(dm_ioctl), targets.data(), targets.size());
  load.header()->target_count = static_cast<uint32_t>(table.num_targets());
  if (table.readonly()) load.header()->flags |= DM_READONLY_FLAG;
  if (ioctl(fd_, DM_TABLE_LOAD, load.header()) < 0) {
    PLOG(ERROR) << "DM_TABLE_LOAD failed for " << name;
    return false;
  }
  return ChangeState(name, DmDeviceState::ACTIVE);
}

bool DeviceMapper::ChangeState(const std::string& name, DmDeviceState state) {
  if (!IsValidName(name)) return false;
  if (state == DmDeviceState::INVALID) {
    LOG(ERROR) << "Cannot change " << name << " to the invalid state";
    return false;
  }
  // DM_DEV_SUSPEND without the suspend flag resumes, which also swaps a
  // loaded inactive table in.
  IoctlBuffer io(name, 0);
  if (state == DmDeviceState::SUSPENDED) io.header()->flags |= DM_SUSPEND_FLAG;
  if (ioctl(fd_, DM_DEV_SUSPEND, io.header()) < 0) {
    PLOG(ERROR) << (state == DmDeviceState::SUSPENDED ? "Suspending " : "Resuming ") << name
                << " failed";
    return false;
  }
  return true;
}

bool DeviceMapper::GetDeviceNumber(const std::string& name, dev_t* dev) const {
  if (!IsValidName(name)) return false;
  IoctlBuffer io(name, 0);
  if (ioctl(fd_, DM_DEV_STATUS, io.header()) < 0) return false;
  *dev = static_cast<dev_t>(io.header()->dev);
  return true;
}

bool DeviceMapper::GetDmDevicePathByName(const std::string& name, std::string* path) const {
  dev_t dev;
  if (!GetDeviceNumber(name, &dev)) return false;
  *path = NodePath(dev);
  return true;
}

bool DeviceMapper::WaitForDevice(const std::string& name,
                                 const std::chrono::milliseconds& timeout_ms, std::string* path) {
  dev_t dev;
  if (!GetDeviceNumber(name, &dev)) {
    PLOG(ERROR) << "No device-mapper device " << name;
    return false;
  }
  *path = NodePath(dev);
  if (timeout_ms.count() <= 0) return true;
  if (!WaitForNode(*path, timeout_ms, [&] { return NodeIsDevice(*path, dev); })) {
    LOG(ERROR) << "Timed out after " << timeout_ms.count() << "ms waiting for " << *path
               << " of " << name;
    return false;
  }
  return true;
}

bool DeviceMapper::DeleteDevice(const std::string& name,
                                const std::chrono::milliseconds& timeout_ms) {
  if (!IsValidName(name)) return false;
  dev_t dev = 0;
  const bool known = GetDeviceNumber(name, &dev);
  IoctlBuffer io(name, 0);
  if (ioctl(fd_, DM_DEV_REMOVE, io.header()) < 0) {
    PLOG(ERROR) << "DM_DEV_REMOVE failed for " << name;
    return false;
  }
  if (!known || timeout_ms.count() <= 0) return true;
  const std::string node = NodePath(dev);
  if (!WaitForNode(node, timeout_ms, [&] { return !NodeIsDevice(node, dev); })) {
    LOG(ERROR) << "Timed out after " << timeout_ms.count() << "ms waiting for " << node
               << " of " << name << " to go";
    return false;
  }
  return true;
}

bool DeviceMapper::DeleteDevice(const std::string& name) {
  return DeleteDevice(name, std::chrono::milliseconds(0));
}

bool DeviceMapper::QueryTable(const std::string& name, bool table_lines,
                              std::vector<TargetInfo>* table) const {
  if (!IsValidName(name)) return false;
  for (size_t payload = kInitialStatusBuffer; payload <= kMaxStatusBuffer; payload *= 2) {
    IoctlBuffer io(name, payload);
    if (table_lines) io.header()->flags |= DM_STATUS_TABLE_FLAG;
    if (ioctl(fd_, DM_TABLE_STATUS, io.header()) < 0) {
      PLOG(ERROR) << "DM_TABLE_STATUS failed for " << name;
      return false;
    }
    const dm_ioctl* out = io.header();
    if (out->flags & DM_BUFFER_FULL_FLAG) continue;

    // Each dm_target_spec is followed by its NUL-terminated text; `next` counts from
    // the start of the data area. Every offset is checked against what the
    // kernel says it filled in.
    table->clear();
    // Without a table the kernel leaves no data area at all.
    if (out->target_count == 0) return true;
    const size_t data_start = out->data_start;
    const size_t data_end = std::min<size_t>(out->data_size, io.size());
    if (data_start > data_end) return false;
    size_t offset = 0;
    for (uint32_t i = 0; i < out->target_count; ++i) {
      const size_t spec_at = data_start + offset;
      if (spec_at > data_end || data_end - spec_at < sizeof(dm_target_spec)) return false;
      dm_target_spec target;
      std::memcpy(&target, io.bytes() + spec_at, sizeof(target));
      const char* text = io.bytes() + spec_at + sizeof(target);
      const size_t text_room = data_end - spec_at - sizeof(target);
      TargetInfo info;
      info.spec = target;
      info.data.assign(text, strnlen(text, text_room));
      table->push_back(std::move(info));
      if (target.next <= offset && i + 1 < out->target_count) return false;
      offset = target.next;
    }
    return true;
  }
  LOG(ERROR) << "Table of " << name << " does not fit " << kMaxStatusBuffer << " bytes";
  return false;
}

bool DeviceMapper::GetTableInfo(const std::string& name, std::vector<TargetInfo>* table) const {
  return QueryTable(name, true, table);
}

bool DeviceMapper::GetTableStatus(const std::string& name, std::vector<TargetInfo>* table) const {
  return QueryTable(name, false, table);
}

std::optional<std::string> DeviceMapper::GetParentBlockDeviceByPath(const std::string& path) {
  static constexpr char kBlockPrefix[] = "/dev/block/";
  if (!android::base::StartsWith(path, kBlockPrefix)) {
    LOG(WARNING) << path << " is not a block device under " << kBlockPrefix;
    return std::nullopt;
  }
  const std::string name = path.substr(sizeof(kBlockPrefix) - 1);
  if (!android::base::StartsWith(name, "dm-")) return std::nullopt;

  const std::string slaves = "/sys/block/" + name + "/slaves";
  DIR* dir = opendir(slaves.c_str());
  if (dir == nullptr) return std::nullopt;
  std::vector<std::string> entries;
  while (dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    entries.emplace_back(entry->d_name);
  }
  closedir(dir);
  if (entries.size() != 1) return std::nullopt;
  return kBlockPrefix + entries[0];
}

}  // namespace dm
}  // namespace android
