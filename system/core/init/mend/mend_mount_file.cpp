#include "mend_mount_file.h"

#include <android-base/result.h>

#include <iomanip>
#include <sstream>

namespace android {
namespace rpk {

using android::base::Error;
using android::base::Result;

std::string BytesToHex(const uint8_t* bytes, size_t length) {
  std::ostringstream out;
  out << std::hex << std::setfill('0');
  for (size_t i = 0; i < length; ++i) {
    out << std::setw(2) << static_cast<unsigned>(bytes[i]);
  }
  return out.str();
}

// Placeholder until package verification lands.
Result<RpkFile> RpkFile::Open(const std::string& path) {
  return Error() << "Failed to open package " << path << ": verification not built";
}

Result<RpkVerityData> RpkFile::VerifyRpkVerity(const std::string&) const {
  return Error() << "verification not built";
}

}  // namespace rpk
}  // namespace android
