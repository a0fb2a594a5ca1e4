// Exercises the Linux property and reboot stand-ins from inside a sandbox,
// where the property store's fixed directory can be laid out per test.
#include <android-base/properties.h>
#include <cutils/android_reboot.h>
#include <cutils/properties.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
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
  fprintf(stderr, "usage: standin_probe get KEY [DEFAULT] | getbool KEY 0|1 | wait KEY VALUE MS | reboot CMD\n");
  return 2;
}
