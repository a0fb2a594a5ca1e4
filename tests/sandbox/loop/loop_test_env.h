#pragma once

// Helpers for tests against a kernel's loop driver (the host's, from inside
// the sandbox, or the virtual device's) and against fake sysfs trees. Loop
// devices are host kernel objects even when attached in the sandbox:
// everything here only inspects or detaches devices whose backing file
// carries the test's own token.

#include <android-base/logging.h>
#include <gtest/gtest.h>
#include <linux/loop.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "log_recorder.h"
#include "test_files.h"

namespace mend_test {

// Scratch file systems in the sandbox's own mount namespace. Each vanishes
// with the sandbox (loop-backed ones auto-clear their device then).
::testing::AssertionResult MountExt4(const std::string& dir);
::testing::AssertionResult MountSquashfs(const std::string& source_dir, const std::string& dir);
::testing::AssertionResult MountRamfs(const std::string& dir);
// A read-only overlay of `lower_dirs` (at least two) on `dir`.
::testing::AssertionResult MountOverlay(const std::vector<std::string>& lower_dirs,
                                        const std::string& dir);

// Replaces /dev with a tmpfs holding only null, zero, urandom and
// loop-control: no loop device node until a test makes one.
::testing::AssertionResult MountOwnDev();

// A block device node at `path` with the given number.
::testing::AssertionResult MakeBlockNode(const std::string& path, dev_t number);

// A token unique to this run, put into backing file names so that loop
// devices bound to them can be told from everyone else's.
std::string UniqueToken();

// `size` bytes in which every 4-byte word names its own offset (xor `seed`),
// so a misplaced region never compares equal.
std::string Pattern(size_t size, uint32_t seed = 0);


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

bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(2));

// Makes every later ioctl(`request`) of this process fail with `error`, as a
// kernel that lacks or refuses the request would. Cannot be undone.
::testing::AssertionResult FailIoctl(unsigned long request, int error);

// True when /sys is a plain directory tree rather than the kernel's sysfs.
bool SysIsFake();

// True in a process that tests/support/in_fresh_sandbox started. Code that
// attaches loop devices or writes sysfs checks it first: never on the host.
bool InSandbox();

}  // namespace mend_test
