#pragma once

#include <chrono>
#include <functional>
#include <string>

// Waiting for something to show up in, or go from, a directory (a property
// in the property store, a device node in /dev) without polling it.
namespace dirwatch {

// Waits until `done` returns true or `timeout` has passed, and returns its
// last answer. `done` is asked at once, again whenever an entry of `dir` is
// created, removed, renamed or written, and once more at the end. Where `dir`
// cannot be watched (it does not exist yet, or inotify is unavailable) it is
// asked every 20 ms instead. A timeout of milliseconds::max() has no limit.
bool WaitUntil(const std::string& dir, std::chrono::milliseconds timeout,
               const std::function<bool()>& done);

}  // namespace dirwatch
