#include "test_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace mend_test {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  fprintf(stderr, "test support: %s\n", what.c_str());
  abort();
}

}  // namespace

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) Fail("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string ReadFileOrEmpty(const std::string& path) {
  std::string content;
  android::base::ReadFileToString(path, &content);
  return content;
}

void WriteWholeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) Fail("cannot write " + path);
  out << content;
}

void WriteTreeFile(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  WriteWholeFile(path, content);
}

void FlipByte(const std::string& path, uint64_t offset) {
  android::base::unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
  uint8_t byte = 0;
  if (fd.get() == -1 || pread(fd.get(), &byte, 1, offset) != 1) Fail("cannot read " + path);
  byte ^= 0xff;
  if (pwrite(fd.get(), &byte, 1, offset) != 1) Fail("cannot write " + path);
}

TempDir::TempDir() : path_(std::filesystem::canonical(dir_.path).string()) {}

}  // namespace mend_test
