#pragma once

#include <string>

namespace mendctl {

// Where the device's files are read from: "/" on a device; a directory laid
// out like one in the tests. Every path the tool opens goes through At(), so
// that this is the only place device paths become file paths. The kernel is
// asked directly (device-mapper) only on the real root.
class DeviceRoot {
 public:
  explicit DeviceRoot(std::string prefix = "") : prefix_(std::move(prefix)) {}

  // The file path of `device_path` (an absolute path on the device).
  std::string At(const std::string& device_path) const { return prefix_ + device_path; }
  bool IsRealRoot() const { return prefix_.empty(); }

 private:
  std::string prefix_;
};

}  // namespace mendctl
