#pragma once

// Outputs that never destroy what their user owns: an output may not be an
// input or lie inside the tree an image is made from, and it appears at its
// path only once complete. Until then it is an unnamed file in the output's
// directory (O_TMPFILE), which nothing can leave behind; where the
// filesystem has no unnamed files, a named temporary file that every exit
// path but SIGKILL removes.

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <string>
#include <vector>

namespace rpktool {

// A file the tool reads, named for messages ("--key").
struct NamedInput {
  std::string option;
  std::string path;
};

// Fails when `output` is, or resolves to (through symlinks, "..", hard
// links or bind mounts), one of `inputs`, or lies inside `tree` (when not
// empty), or when its directory does not exist.
android::base::Result<void> CheckOutputPath(const std::string& output,
                                            const std::vector<NamedInput>& inputs,
                                            const std::string& tree = "");

class OutputFile {
 public:
  static android::base::Result<OutputFile> Create(const std::string& final_path);
  OutputFile(OutputFile&& other) noexcept;
  OutputFile& operator=(OutputFile&&) = delete;
  OutputFile(const OutputFile&) = delete;
  ~OutputFile();

  int fd() const { return fd_.get(); }
  // A path by which a child process opens this same file.
  std::string path_for_children() const;
  // Flushes the data to disk and puts the file at its final path,
  // replacing what was there in one step.
  android::base::Result<void> Commit();

 private:
  OutputFile(android::base::unique_fd fd, std::string temp_path, std::string final_path)
      : fd_(std::move(fd)), temp_path_(std::move(temp_path)), final_path_(std::move(final_path)) {}

  android::base::unique_fd fd_;
  std::string temp_path_;  // empty for an unnamed file
  std::string final_path_;
  bool done_ = false;
};

// Writes `data` to `path` through an OutputFile.
android::base::Result<void> WriteOutput(const std::string& path, const std::string& data);

}  // namespace rpktool
