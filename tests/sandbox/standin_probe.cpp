// Exercises the Linux property and reboot stand-ins from inside a sandbox,
// where the property store's fixed directory can be laid out per test.
#include <android-base/properties.h>
#include <cutils/android_reboot.h>
#include <cutils/properties.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

volatile sig_atomic_t manager_request = 0;

// As PID 1 of a PID namespace, stands for the service manager: runs the
// probe with the remaining arguments and reports the request it received.
int RunAsServiceManager(char** argv) {
  for (int sig : {SIGRTMIN + 4, SIGRTMIN + 5}) signal(sig, [](int s) { manager_request = s; });
  pid_t child = fork();
  if (child == 0) {
    execv("/proc/self/exe", argv);
    _exit(127);
  }
  int status;
  while (waitpid(child, &status, 0) == -1) {
  }
  printf("manager got %s\n", manager_request == 0 ? "nothing"
                             : manager_request == SIGRTMIN + 5 ? "reboot" : "poweroff");
  return 0;
}

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "manager" && argc > 2) return RunAsServiceManager(argv + 1);
  if (verb == "get" && (argc == 3 || argc == 4)) {
    char value[PROPERTY_VALUE_MAX];
    int len = property_get(argv[2], value, argc == 4 ? argv[3] : nullptr);
    printf("%d[%s]\n", len, value);
    return 0;
  }
  if (verb == "getbool" && argc == 4) {
    printf("%d\n", android::base::GetBoolProperty(argv[2], strcmp(argv[3], "1") == 0));
    return 0;
  }
  if (verb == "wait" && argc == 5) {
    bool ok = android::base::WaitForProperty(argv[2], argv[3],
                                             std::chrono::milliseconds(atoi(argv[4])));
    printf("%s\n", ok ? "reached" : "timeout");
    return 0;
  }
  if (verb == "reboot" && argc == 3) {
    printf("before\n");
    fflush(stdout);
    int rc = android_reboot(static_cast<unsigned>(strtoul(argv[2], nullptr, 0)), 0, nullptr);
    printf("returned %d\n", rc);
    return 0;
  }
  fprintf(stderr, "usage: standin_probe get KEY [DEFAULT] | getbool KEY 0|1 | wait KEY VALUE MS | reboot CMD"
          " | manager VERB...\n");
  return 2;
}
