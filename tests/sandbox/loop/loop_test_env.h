#pragma once

// Helpers for tests that run inside the sandbox against the host kernel's
// loop driver and against fake sysfs trees. Loop devices are host kernel
// objects even when attached in the sandbox: everything here only inspects
// or detaches devices whose backing file carries the test's own token.

#include <android-base/logging.h>
#include <gtest/gtest.h>
#include <linux/loop.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fake_writes.h"
#include "log_recorder.h"

namespace mend_test {

// Runs a program (PATH lookup) and reports its exit status; its output goes
// to the test's stderr.
int RunProgram(const std::vector<std::string>& argv);

// Scratch file systems in the sandbox's own mount namespace. Each vanishes
// with the sandbox (loop-backed ones auto-clear their device then).
// `image`, when given, receives the path of the ext4 image file.
::testing::AssertionResult MountExt4(const std::string& dir, std::string* image = nullptr);
::testing::AssertionResult MountSquashfs(const std::string& source_dir, const std::string& dir);
::testing::AssertionResult MountErofs(const std::string& source_dir, const std::string& dir);
::testing::AssertionResult MountRamfs(const std::string& dir);
// A read-only overlay of `lower_dirs` (at least two) on `dir`.
::testing::AssertionResult MountOverlay(const std::vector<std::string>& lower_dirs,
                                        const std::string& dir);

// Replaces /dev with a tmpfs holding null, zero, urandom and
// loop-control; with `loop_nodes`, also /dev/loopN for every loop device
// that exists now, and with `block_links` the same nodes under /dev/block.
::testing::AssertionResult MountOwnDev(bool loop_nodes, bool block_links);

// A block device node at `path` with the given number.
::testing::AssertionResult MakeBlockNode(const std::string& path, dev_t number);

// A token unique to this run, put into backing file names so that loop
// devices bound to them can be told from everyone else's.
std::string UniqueToken();

// `size` bytes in which every 4-byte word names its own offset (xor `seed`),
// so a misplaced region never compares equal.
std::string Pattern(size_t size, uint32_t seed = 0);

void WriteFileOrDie(const std::string& path, const std::string& content);
std::string ReadFileOrEmpty(const std::string& path);
// Creates `path` with its parent directories and writes `content`.
void WriteTreeFile(const std::string& path, const std::string& content);

// Names ("loop3") of the loop devices whose backing file path contains `token`.
std::vector<std::string> LoopDevicesBackedBy(const std::string& token);

// Detaches loop device `name` ("loop3"); only for devices a test attached.
void DetachLoopDevice(const std::string& name);

std::optional<loop_info64> LoopStatus(const std::string& device_path);
// `size` bytes read from the start of a block device (empty on error).
std::string ReadDevice(const std::string& device_path, size_t size);
uint64_t DeviceSize(const std::string& device_path);
// A file under /sys/block/<device>/, trimmed ("" when unreadable).
std::string BlockAttribute(const std::string& device_path, const std::string& relative);

// The loop device ("loop3") whose backing file is exactly `path`.
std::optional<std::string> LoopDeviceOf(const std::string& path);

bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(2));

// Makes every later ioctl(`request`) of this process fail with `error`, as a
// kernel that lacks or refuses the request would. Cannot be undone.
::testing::AssertionResult FailIoctl(unsigned long request, int error);

// True when /sys is a plain directory tree rather than the kernel's sysfs.
bool SysIsFake();

}  // namespace mend_test
