#include "cleanup.h"

#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace rpktool {
namespace {

// Read by the signal handler, so plain storage written before use.
char g_pending_path[PATH_MAX];
volatile sig_atomic_t g_child_group = 0;

void CleanUpAndDie(int signal_number) {
  if (g_child_group > 0) kill(-g_child_group, SIGKILL);
  if (g_pending_path[0] != '\0') unlink(g_pending_path);
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

}  // namespace

void InstallSignalCleanup() {
  struct sigaction action = {};
  action.sa_handler = CleanUpAndDie;
  for (int signal_number : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal_number, &action, nullptr);
}

void SetPendingPath(const std::string& path) {
  if (path.size() < sizeof(g_pending_path)) memcpy(g_pending_path, path.c_str(), path.size() + 1);
}

void ClearPendingPath() { g_pending_path[0] = '\0'; }
void SetRunningChild(pid_t process_group) { g_child_group = process_group; }
void ClearRunningChild() { g_child_group = 0; }

}  // namespace rpktool
