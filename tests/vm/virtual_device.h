#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "sandbox_root.h"

namespace mend_test {

// How one boot of the virtual device ended.
struct VmRun {
  std::string end;        // "exited N", "rebooted", "powered-off", "panic", "timeout", "no-boot"
  bool finished = false;  // the command returned
  int exit_code = -1;     // its status (128 + N when killed by signal N); -1 if not finished
  bool rebooted = false;  // the guest rebooted (or powered off) while the command ran
  bool timed_out = false;
  std::string output;     // the command's stdout and stderr, interleaved
};

// A virtual test device (a QEMU guest with the kernel's loop, dm-verity, ext4
// and overlayfs drivers) laid out like a SandboxRoot: the test fills root()
// with /data, /system, /mnt and properties, adds the programs to run, boots
// it once per Run() and reads back the final /data from root(). Successive
// runs keep /data, like reboots of one device.
class VirtualDevice {
 public:
  VirtualDevice() = default;
  VirtualDevice(const VirtualDevice&) = delete;
  VirtualDevice& operator=(const VirtualDevice&) = delete;

  SandboxRoot& root() { return root_; }

  // A program, copied to its own absolute path with its shared libraries.
  void AddBinary(const std::string& host_path);

  // Boots the device and runs `argv` (by absolute path) as root.
  VmRun Run(const std::vector<std::string>& argv,
            std::chrono::seconds timeout = std::chrono::seconds(300));

 private:
  SandboxRoot root_;
  std::vector<std::string> options_;
};

// Lays `device` out like a phone that takes repair packages: the daemon's
// directories, stock files in /system/lib64 and /system/app, the reference
// key trusted, the daemon switched on, running build BUILD.A.002.
void LayOutRepairDevice(VirtualDevice* device);

}  // namespace mend_test
