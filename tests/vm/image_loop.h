#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace mend_test {

// A read-only loop device over a byte range of a file, detached when
// dropped. Test-side only: it attaches images for the dm-verity tests in
// the virtual device, independently of the daemon's own loop code.
class ImageLoop {
 public:
  // Attaches [offset, offset + size) of `file`; nullptr (with the reason on
  // stderr) when that fails.
  static std::unique_ptr<ImageLoop> Attach(const std::string& file, uint64_t offset,
                                           uint64_t size);
  ~ImageLoop();
  ImageLoop(const ImageLoop&) = delete;
  ImageLoop& operator=(const ImageLoop&) = delete;

  // The kernel's node, /dev/loopN.
  const std::string& path() const { return path_; }
  // "major:minor", as the kernel prints devices in tables.
  std::string DeviceNumber() const;

 private:
  ImageLoop(int fd, std::string path, dev_t dev) : fd_(fd), path_(std::move(path)), dev_(dev) {}

  int fd_;
  std::string path_;
  dev_t dev_;
};

}  // namespace mend_test
