#pragma once

#include <functional>
#include <string>

#include "mend_paths.h"

namespace android {
namespace init {

// Calls `on_line` for every line of `path` (cut at "\n"; a "\r" stays).
// False when the file cannot be opened.
bool forEachLine(const std::string& path, const std::function<void(const std::string&)>& on_line);

}  // namespace init
}  // namespace android
