#include <cutils/android_reboot.h>

#include <signal.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A running service manager shows itself by this directory.
constexpr char kServiceManagerDir[] = "/run/systemd/system/";

bool ServiceManagerRuns() {
  struct stat st;
  return stat(kServiceManagerDir, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

extern "C" int android_reboot(unsigned cmd, int /*flags*/, const char* /*arg*/) {
  // The service manager's own requests: SIGRTMIN+5 starts reboot.target,
  // SIGRTMIN+4 poweroff.target.
  int manager_signal;
  int how;
  switch (cmd) {
    case ANDROID_RB_RESTART:
    case ANDROID_RB_RESTART2:
      manager_signal = SIGRTMIN + 5;
      how = RB_AUTOBOOT;
      break;
    case ANDROID_RB_POWEROFF:
    case ANDROID_RB_THERMOFF:
      manager_signal = SIGRTMIN + 4;
      how = RB_POWER_OFF;
      break;
    default:
      return -1;
  }
  // The manager stops the services and unmounts the file systems before it
  // restarts, and does so after this call returned, as init does on a
  // device. A refused request is reported, never turned into a hard reboot
  // under a running system.
  if (ServiceManagerRuns()) return kill(1, manager_signal) == 0 ? 0 : -1;
  sync();
  return reboot(how) == 0 ? 0 : -1;
}
