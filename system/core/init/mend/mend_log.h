#pragma once

#include <log/log.h>

// Control-side log lines: INFO priority under the daemon's tag. The format
// strings are the daemon's fixed texts and are kept letter for letter.
#define MEND_LOG_TAG "mend_log"
#define MEND_LOG(...) __android_log_print(ANDROID_LOG_INFO, MEND_LOG_TAG, __VA_ARGS__)
