#pragma once

// The readable form of the three verbs: tables within 100 columns, with the
// control characters of names and texts from the files escaped.

#include <string>
#include <vector>

#include "check.h"
#include "plan.h"
#include "status.h"

namespace mendctl {

inline constexpr size_t kTextWidth = 100;

// `text` with backslashes and control characters written as escapes (\n, \t,
// \x1b, ...), so that a name from a file cannot move the cursor or forge a
// line.
std::string Printable(const std::string& text);

// Rows of cells under a header, each column as wide as its widest cell up to
// its cap, a cell that does not fit ending in "..."; the last column takes
// what is left of kTextWidth and wraps.
std::string RenderTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows,
                        const std::vector<size_t>& caps);

std::string StatusText(const StatusReport& report);
// Every field of one package, a line each.
std::string PackageDetailText(const PackageStatus& package);
std::string PlanText(const Plan& plan);
std::string CheckText(const std::vector<Problem>& problems);

}  // namespace mendctl
