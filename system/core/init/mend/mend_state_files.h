#pragma once

#include <functional>
#include <string>

namespace android {
namespace init {

inline constexpr const char kSharedPrefsFile[] = "/data/rvx/files/shared_prefs.cfg";
inline constexpr const char kAppMsgFile[] = "/data/rvx/msgs/app.msg";
inline constexpr const char kNativeMsgFile[] = "/data/rvx/msgs/native.msg";

// Calls `on_line` for every line of `path` (cut at "\n"; a "\r" stays).
// False when the file cannot be opened.
bool forEachLine(const std::string& path, const std::function<void(const std::string&)>& on_line);

}  // namespace init
}  // namespace android
