#include "mend_state_files.h"

#include <fstream>

namespace android {
namespace init {

bool forEachLine(const std::string& path, const std::function<void(const std::string&)>& on_line) {
  std::ifstream in(path);
  if (!in.is_open()) return false;
  std::string line;
  while (std::getline(in, line)) {
    on_line(line);
  }
  return true;
}

}  // namespace init
}  // namespace android
