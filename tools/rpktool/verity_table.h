#pragma once

// The dm-verity table line the daemon loads for a hashtree descriptor, with
// the data and hash devices given by the caller (the daemon uses one loop
// device for both).

#include <string>

#include "avb_structs.h"

namespace rpktool {

// Trial pass: "... 1 ignore_zero_blocks"; with `restart_on_corruption`
// (the real pass): "... 2 ignore_zero_blocks restart_on_corruption".
std::string VerityTableLine(const HashtreeDescriptor& descriptor, const std::string& device,
                            bool restart_on_corruption);

}  // namespace rpktool
