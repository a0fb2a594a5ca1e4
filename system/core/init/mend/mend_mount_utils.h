#pragma once

#include <android-base/chrono_utils.h>
#include <android-base/logging.h>
#include <android-base/result.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <string>

namespace android {
namespace rpk {

// Polls every 5 ms until `path` exists or `timeout` has passed.
template <typename Duration>
android::base::Result<void> WaitForPath(const std::string& path, const Duration& timeout) {
  android::base::Timer t;
  bool slept = false;
  while (t.duration() < timeout) {
    struct stat sb;
    if (stat(path.c_str(), &sb) != -1) {
      if (slept) {
        LOG(INFO) << "wait for '" << path << "' took " << t;
      }
      return {};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    slept = true;
  }
  return android::base::ErrnoError() << "wait for '" << path << "' timed out and took " << t;
}

}  // namespace rpk
}  // namespace android
