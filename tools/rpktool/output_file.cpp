#include "output_file.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "cleanup.h"
#include "file_io.h"

namespace rpktool {

using android::base::Dirname;
using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;

namespace {

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A name next to `final_path` that does not exist yet.
std::string TempName(const std::string& final_path) {
  static std::mt19937_64 random(std::random_device{}());
  return final_path + ".tmp-" + std::to_string(random() % 1000000000);
}

mode_t CreationMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

Result<void> CheckOutputPath(const std::string& output, const std::vector<NamedInput>& inputs,
                             const std::string& tree) {
  std::string dir;
  if (!android::base::Realpath(Dirname(output), &dir)) {
    return ErrnoError() << "the directory of " << output << " cannot be used";
  }
  struct stat out;
  const bool exists = stat(output.c_str(), &out) == 0;
  if (exists && S_ISDIR(out.st_mode)) return Error() << output << " is a directory";
  for (const NamedInput& input : inputs) {
    struct stat in;
    if (exists && input.path != "-" && stat(input.path.c_str(), &in) == 0 && SameFile(in, out)) {
      return Error() << "the output " << output << " is the " << input.option << " file "
                     << input.path << "; refusing to overwrite an input";
    }
  }
  struct stat root;
  if (tree.empty() || stat(tree.c_str(), &root) != 0) return {};
  for (std::string at = dir;; at = Dirname(at)) {
    struct stat st;
    if (stat(at.c_str(), &st) == 0 && SameFile(st, root)) {
      return Error() << "the output " << output << " lies inside the tree " << tree
                     << ", so it would become part of the image";
    }
    if (at == "/") return {};
  }
}

Result<OutputFile> OutputFile::Create(const std::string& final_path) {
  const std::string dir = Dirname(final_path);
  unique_fd fd(
      TEMP_FAILURE_RETRY(open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, CreationMode())));
  if (fd >= 0) return OutputFile(std::move(fd), "", final_path);
  if (errno != EOPNOTSUPP && errno != EISDIR) {
    return ErrnoError() << "cannot create a file in " << dir;
  }
  // No unnamed files here: a named one, removed unless committed.
  const std::string temp_path = TempName(final_path);
  fd.reset(TEMP_FAILURE_RETRY(
      open(temp_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, CreationMode())));
  if (fd < 0) return ErrnoError() << "cannot create " << temp_path;
  SetPendingPath(temp_path);
  return OutputFile(std::move(fd), temp_path, final_path);
}

OutputFile::OutputFile(OutputFile&& other) noexcept
    : fd_(std::move(other.fd_)),
      temp_path_(std::move(other.temp_path_)),
      final_path_(std::move(other.final_path_)),
      done_(other.done_) {
  other.done_ = true;
}

OutputFile::~OutputFile() {
  if (done_ || temp_path_.empty()) return;
  unlink(temp_path_.c_str());
  ClearPendingPath();
}

std::string OutputFile::path_for_children() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_.get());
}

Result<void> OutputFile::Commit() {
  if (fsync(fd_.get()) != 0) return ErrnoError() << "cannot flush " << final_path_;
  if (temp_path_.empty()) {
    // Named under a temporary name first: linking cannot replace a file.
    const std::string self = "/proc/self/fd/" + std::to_string(fd_.get());
    for (int attempt = 0; temp_path_.empty(); ++attempt) {
      const std::string name = TempName(final_path_);
      if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        temp_path_ = name;
        SetPendingPath(name);
      } else if (errno != EEXIST || attempt > 100) {
        return ErrnoError() << "cannot name the new " << final_path_;
      }
    }
  }
  if (rename(temp_path_.c_str(), final_path_.c_str()) != 0) {
    return ErrnoError() << "cannot rename " << temp_path_ << " to " << final_path_;
  }
  done_ = true;
  ClearPendingPath();
  unique_fd dir(open(Dirname(final_path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir >= 0) fsync(dir.get());
  return {};
}

Result<void> WriteOutput(const std::string& path, const std::string& data) {
  auto file = OutputFile::Create(path);
  if (!file.ok()) return file.error();
  auto written = WriteAt(file->fd(), data.data(), data.size(), 0);
  if (!written.ok()) return Error() << path << ": " << written.error();
  return file->Commit();
}

}  // namespace rpktool
