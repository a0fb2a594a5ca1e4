#include "sysprop/property_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace sysprop {
namespace {

// Property names are dotted identifiers; anything that could leave the
// directory is refused rather than looked up.
bool IsValidName(const std::string& name) {
  if (name.empty() || name == "." || name == "..") return false;
  return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

std::string PathOf(const std::string& name) { return PropertyDirectory() + "/" + name; }

}  // namespace

const std::string& PropertyDirectory() {
  static const std::string dir = MEND_PROPERTY_DIR;
  return dir;
}

std::optional<std::string> ReadProperty(const std::string& name) {
  if (!IsValidName(name)) return std::nullopt;
  int fd = open(PathOf(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return std::nullopt;
  std::string value;
  char buf[256];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    value.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (!value.empty() && value.back() == '\n') value.pop_back();
  if (value.empty()) return std::nullopt;
  return value;
}

bool WriteProperty(const std::string& name, const std::string& value) {
  if (!IsValidName(name)) return false;
  // Write a sibling file and rename it, so that a reader never sees half a value.
  const std::string path = PathOf(name);
  const std::string tmp = path + ".tmp." + std::to_string(getpid());
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd == -1) return false;
  const std::string content = value + "\n";
  bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  ok = (close(fd) == 0) && ok;
  if (ok && rename(tmp.c_str(), path.c_str()) == 0) return true;
  unlink(tmp.c_str());
  return false;
}

}  // namespace sysprop
