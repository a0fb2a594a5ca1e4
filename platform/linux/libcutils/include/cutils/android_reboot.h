#pragma once

#include <sys/cdefs.h>

__BEGIN_DECLS

#define ANDROID_RB_RESTART 0xDEAD0001U
#define ANDROID_RB_POWEROFF 0xDEAD0002U
#define ANDROID_RB_RESTART2 0xDEAD0003U
#define ANDROID_RB_THERMOFF 0xDEAD0004U

#define ANDROID_RB_PROPERTY "sys.powerctl"

// Linux build: when a service manager runs, asks it for a clean restart (or
// power-off) and returns, as the device's call returns before init acts on
// it. Without one, syncs the file systems and asks the kernel directly;
// inside a PID namespace the kernel then ends the namespace instead. Returns
// -1 when the request is unknown or refused.
int android_reboot(unsigned cmd, int flags, const char* arg);

__END_DECLS
