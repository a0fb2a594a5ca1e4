#include <cutils/android_reboot.h>

#include <sys/reboot.h>
#include <unistd.h>

extern "C" int android_reboot(unsigned cmd, int /*flags*/, const char* /*arg*/) {
  int how;
  switch (cmd) {
    case ANDROID_RB_RESTART:
    case ANDROID_RB_RESTART2:
      how = RB_AUTOBOOT;
      break;
    case ANDROID_RB_POWEROFF:
    case ANDROID_RB_THERMOFF:
      how = RB_POWER_OFF;
      break;
    default:
      return -1;
  }
  sync();
  return reboot(how) == 0 ? 0 : -1;
}
