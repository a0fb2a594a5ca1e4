#include "image_loop.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace mend_test {

std::unique_ptr<ImageLoop> ImageLoop::Attach(const std::string& file, uint64_t offset,
                                             uint64_t size) {
  const int backing = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (backing < 0) {
    fprintf(stderr, "ImageLoop: open %s: %s\n", file.c_str(), strerror(errno));
    return nullptr;
  }
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  std::unique_ptr<ImageLoop> loop;
  // Another process may take the free device between the two calls.
  for (int attempt = 0; control >= 0 && attempt < 5 && !loop; ++attempt) {
    const int index = ioctl(control, LOOP_CTL_GET_FREE);
    if (index < 0) break;
    const std::string path = "/dev/loop" + std::to_string(index);
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) continue;
    loop_config config = {};
    config.fd = static_cast<uint32_t>(backing);
    config.info.lo_offset = offset;
    config.info.lo_sizelimit = size;
    config.info.lo_flags = LO_FLAGS_READ_ONLY;
    struct stat st;
    if (ioctl(fd, LOOP_CONFIGURE, &config) == 0 && fstat(fd, &st) == 0) {
      loop.reset(new ImageLoop(fd, path, st.st_rdev));
    } else {
      fprintf(stderr, "ImageLoop: attach %s to %s: %s\n", file.c_str(), path.c_str(),
              strerror(errno));
      close(fd);
    }
  }
  if (control >= 0) close(control);
  close(backing);
  return loop;
}

ImageLoop::~ImageLoop() {
  // While a dm device still holds the loop device, the kernel detaches it on
  // the last close instead.
  ioctl(fd_, LOOP_CLR_FD, 0);
  close(fd_);
}

std::string ImageLoop::DeviceNumber() const {
  return std::to_string(major(dev_)) + ":" + std::to_string(minor(dev_));
}

}  // namespace mend_test
