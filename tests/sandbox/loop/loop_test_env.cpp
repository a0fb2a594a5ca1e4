#include "loop_test_env.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include "run_program.h"

namespace fs = std::filesystem;
using ::testing::AssertionFailure;
using ::testing::AssertionResult;
using ::testing::AssertionSuccess;

namespace mend_test {
namespace {

AssertionResult RunOrFail(const std::vector<std::string>& argv) {
  const ProgramRun run = RunProgram(argv);
  if (run.exit_code == 0) return AssertionSuccess();
  return AssertionFailure() << android::base::Join(argv, ' ') << " exited with " << run.exit_code
                            << ":\n" << run.out;
}

std::string ScratchImage(const char* kind) {
  return "/tmp/" + std::string(kind) + "-" + UniqueToken() + ".img";
}

AssertionResult MakeDirs(const std::string& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  if (error) return AssertionFailure() << "cannot create " << dir << ": " << error.message();
  return AssertionSuccess();
}

AssertionResult MakeNode(const std::string& path, mode_t type, dev_t number) {
  if (mknod(path.c_str(), type | 0600, number) == 0) return AssertionSuccess();
  return AssertionFailure() << "mknod " << path << ": " << strerror(errno);
}

}  // namespace

AssertionResult MountExt4(const std::string& dir) {
  const std::string image = ScratchImage("ext4");
  if (auto made = MakeDirs(dir); !made) return made;
  WriteWholeFile(image, "");  // mke2fs is quiet about an image that exists
  if (auto made = RunOrFail({"mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", image, "16M"});
      !made) {
    return made;
  }
  return RunOrFail({"mount", "-t", "ext4", "-o", "loop", image, dir});
}

AssertionResult MountSquashfs(const std::string& source_dir, const std::string& dir) {
  const std::string image = ScratchImage("squashfs");
  if (auto made = MakeDirs(dir); !made) return made;
  if (auto made =
          RunOrFail({"mksquashfs", source_dir, image, "-quiet", "-no-progress", "-noappend"});
      !made) {
    return made;
  }
  return RunOrFail({"mount", "-t", "squashfs", "-o", "loop,ro", image, dir});
}

AssertionResult MountRamfs(const std::string& dir) {
  if (auto made = MakeDirs(dir); !made) return made;
  if (mount("ramfs", dir.c_str(), "ramfs", 0, nullptr) == 0) return AssertionSuccess();
  return AssertionFailure() << "mount ramfs on " << dir << ": " << strerror(errno);
}

AssertionResult MountOverlay(const std::vector<std::string>& lower_dirs, const std::string& dir) {
  if (auto made = MakeDirs(dir); !made) return made;
  const std::string options = "lowerdir=" + android::base::Join(lower_dirs, ':');
  if (mount("overlay", dir.c_str(), "overlay", MS_RDONLY, options.c_str()) == 0) {
    return AssertionSuccess();
  }
  return AssertionFailure() << "mount overlay " << options << ": " << strerror(errno);
}

AssertionResult MountOwnDev() {
  struct stat control;
  if (stat("/dev/loop-control", &control) == -1) {
    return AssertionFailure() << "no /dev/loop-control: " << strerror(errno);
  }
  if (mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755") == -1) {
    return AssertionFailure() << "mount tmpfs on /dev: " << strerror(errno);
  }
  for (auto [name, number] : {std::pair{"null", makedev(1, 3)}, std::pair{"zero", makedev(1, 5)},
                              std::pair{"urandom", makedev(1, 9)}}) {
    if (auto made = MakeNode(std::string("/dev/") + name, S_IFCHR, number); !made) return made;
  }
  return MakeNode("/dev/loop-control", S_IFCHR, control.st_rdev);
}

AssertionResult MakeBlockNode(const std::string& path, dev_t number) {
  if (auto made = MakeDirs(fs::path(path).parent_path()); !made) return made;
  return MakeNode(path, S_IFBLK, number);
}

std::string UniqueToken() {
  static const std::string token = [] {
    std::random_device random;
    return "t" + std::to_string(random()) + std::to_string(random());
  }();
  // Ends in a separator, so that no token is a prefix of another.
  static std::atomic<int> counter{0};
  return token + "-" + std::to_string(counter++) + "-";
}

std::string Pattern(size_t size, uint32_t seed) {
  std::string data(size, '\0');
  for (size_t offset = 0; offset + 4 <= size; offset += 4) {
    const uint32_t word = static_cast<uint32_t>(offset) ^ seed;
    memcpy(&data[offset], &word, sizeof(word));
  }
  return data;
}

std::vector<std::string> LoopDevicesBackedBy(const std::string& token) {
  std::vector<std::string> devices;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/sys/block", error)) {
    const std::string name = entry.path().filename();
    if (!android::base::StartsWith(name, "loop")) continue;
    const std::string backing = ReadFileOrEmpty(entry.path().string() + "/loop/backing_file");
    if (backing.find(token) != std::string::npos) devices.push_back(name);
  }
  return devices;
}

void DetachLoopDevice(const std::string& name) {
  for (const std::string& path : {"/dev/block/" + name, "/dev/" + name}) {
    android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() != -1) {
      ioctl(fd.get(), LOOP_CLR_FD, 0);
      return;
    }
  }
}

std::optional<loop_info64> LoopStatus(const std::string& device_path) {
  android::base::unique_fd fd(open(device_path.c_str(), O_RDONLY | O_CLOEXEC));
  loop_info64 info = {};
  if (fd.get() == -1 || ioctl(fd.get(), LOOP_GET_STATUS64, &info) == -1) return std::nullopt;
  return info;
}

std::string ReadDevice(const std::string& device_path, size_t size) {
  android::base::unique_fd fd(open(device_path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string data(size, '\0');
  if (fd.get() == -1 || !android::base::ReadFully(fd.get(), data.data(), size)) return {};
  return data;
}

uint64_t DeviceSize(const std::string& device_path) {
  android::base::unique_fd fd(open(device_path.c_str(), O_RDONLY | O_CLOEXEC));
  uint64_t size = 0;
  if (fd.get() == -1 || ioctl(fd.get(), BLKGETSIZE64, &size) == -1) return 0;
  return size;
}

std::string BlockAttribute(const std::string& device_path, const std::string& relative) {
  return android::base::Trim(
      ReadFileOrEmpty("/sys/block/" + android::base::Basename(device_path) + "/" + relative));
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

AssertionResult FailIoctl(unsigned long request, int error) {
#if defined(__x86_64__)
  constexpr uint32_t kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
  constexpr uint32_t kArch = AUDIT_ARCH_AARCH64;
#else
  return AssertionFailure() << "no seccomp architecture for this build";
#endif
  // The request is compared on its low 32 bits (all loop and block requests
  // fit there); other system calls and other requests pass.
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_ioctl, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(request), 0, 1),
      BPF_STMT(BPF_RET | BPF_K,
               SECCOMP_RET_ERRNO | (static_cast<uint32_t>(error) & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == -1 ||
      syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program) != 0) {
    return AssertionFailure() << "seccomp: " << strerror(errno);
  }
  return AssertionSuccess();
}

bool SysIsFake() {
  struct statfs sys;
  return statfs("/sys", &sys) == 0 && static_cast<uint32_t>(sys.f_type) != SYSFS_MAGIC;
}

bool InSandbox() {
  // scripts/sandbox sets the variable. It alone could leak into a host
  // shell; PID 1 being the sandbox's own init makes sure.
  const char* inside = getenv("MEND_SANDBOX");
  return inside != nullptr && std::string(inside) == "1" &&
         android::base::Trim(ReadFileOrEmpty("/proc/1/comm")) == "bwrap";
}

}  // namespace mend_test
