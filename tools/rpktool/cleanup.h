#pragma once

// What the tool undoes when a signal ends it: the child process group that
// is running and the named temporary file that is pending. SIGKILL cannot
// be caught; against it children die through PR_SET_PDEATHSIG and outputs
// are unnamed files until they are complete (see OutputFile).

#include <sys/types.h>

#include <string>

namespace rpktool {

// Installs handlers for SIGINT, SIGTERM and SIGHUP that kill the running
// child's process group, remove the pending file and then end the process
// by the same signal.
void InstallSignalCleanup();

void SetPendingPath(const std::string& path);  // at most one at a time
void ClearPendingPath();
void SetRunningChild(pid_t process_group);
void ClearRunningChild();

}  // namespace rpktool
