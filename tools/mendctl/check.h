#pragma once

// Inconsistencies between the files, the packages and the kernel's mounts
// and devices, one per problem.

#include <string>
#include <vector>

#include "device_root.h"
#include "snapshot.h"
#include "status.h"

namespace mendctl {

struct Problem {
  std::string kind;
  std::string name;  // the package, record, mount point or device concerned
  std::string detail;
};

std::vector<Problem> FindProblems(const Snapshot& snapshot, const StatusReport& status);

// Re-hashes, in user space, the image region under every active verity
// device of ours against its live table. Devices that cannot be checked are
// reported in `errors`.
std::vector<Problem> VerifyDevices(const Snapshot& snapshot, const DeviceRoot& root,
                                   std::vector<std::string>* errors);

}  // namespace mendctl
