#include "report_text.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <algorithm>

#include "mend_paths.h"

namespace mendctl {
namespace {

using android::base::Join;
using android::base::StringPrintf;

std::string Fit(const std::string& cell, size_t width) {
  if (cell.size() <= width) return cell;
  if (width <= 3) return cell.substr(0, width);
  return cell.substr(0, width - 3) + "...";
}

std::string Report(const PackageStatus& package) {
  if (!package.repair_status) return "-";
  const char* name = StatusName(*package.repair_status);
  return std::to_string(*package.repair_status) + (name ? std::string(" ") + name : "");
}

std::string WhyNot(const std::optional<Verdict>& refusal) {
  if (!refusal) return "-";
  return std::string(RefusalName(refusal->refusal)) + ": " + Printable(refusal->reason);
}

std::string Optional(const std::optional<std::string>& text) {
  if (!text) return "-";
  return text->empty() ? "\"\"" : Printable(*text);
}

std::string StackText(const OverlayStack& stack) {
  std::vector<std::string> lower;
  for (const std::string& dir : stack.lower) lower.push_back(Printable(dir));
  return Join(lower, " : ");
}

}  // namespace

std::string Printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f) {
      out += StringPrintf("\\x%02x", c);
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string RenderTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows,
                        const std::vector<size_t>& caps) {
  std::vector<size_t> widths(header.size());
  size_t used = 0;
  for (size_t c = 0; c + 1 < header.size(); ++c) {
    widths[c] = header[c].size();
    for (const auto& row : rows) widths[c] = std::max(widths[c], row[c].size());
    widths[c] = std::min(widths[c], std::max(caps[c], header[c].size()));
    used += widths[c] + 2;
  }
  widths.back() = used < kTextWidth ? kTextWidth - used : 0;
  std::string out;
  // The last column wraps onto lines of its own rather than lose words.
  const size_t last = std::max<size_t>(widths.back(), 20);
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t c = 0; c + 1 < cells.size(); ++c) {
      std::string cell = Fit(cells[c], widths[c]);
      cell.resize(widths[c] + 2, ' ');
      text += cell;
    }
    std::string tail = cells.back();
    do {
      // Break after the last blank that fits, or inside a word too long.
      size_t cut = tail.size() <= last ? tail.size() : tail.rfind(' ', last);
      if (cut == std::string::npos || cut == 0) cut = std::min(last, tail.size());
      text += tail.substr(0, cut);
      out += text.substr(0, text.find_last_not_of(' ') + 1) + "\n";
      tail = tail.substr(std::min(tail.size(), tail[cut] == ' ' ? cut + 1 : cut));
      text = std::string(used, ' ');
    } while (!tail.empty());
  };
  line(header);
  for (const auto& row : rows) line(row);
  return out;
}

std::string StatusText(const StatusReport& report) {
  std::vector<std::vector<std::string>> rows;
  for (const PackageStatus& package : report.packages) {
    rows.push_back({Optional(package.name),
                    package.version_code ? std::to_string(*package.version_code) : "-",
                    package.mode.value_or("-"), Report(package), package.in_force ? "yes" : "no",
                    WhyNot(package.refusal)});
  }
  std::string out =
      RenderTable({"PACKAGE", "VERSION", "MODE", "LAST REPORT", "IN FORCE", "WHY NOT"}, rows,
                  {24, 10, 5, 30, 8, 0});
  if (report.packages.empty()) out += "(no packages)\n";
  std::vector<std::vector<std::string>> overlays;
  for (const OverlayStack& stack : report.overlays) {
    overlays.push_back({Printable(stack.path), StackText(stack)});
  }
  if (!overlays.empty()) {
    out += "\n" + RenderTable({"OVERLAY", "LOWER LAYERS, TOP FIRST"}, overlays, {30, 0});
  }
  return out;
}

std::string PackageDetailText(const PackageStatus& package) {
  const android::init::MendRepairSp* record = package.record;
  auto flag = [&](bool android::init::MendRepairSp::*member) {
    return record ? (record->*member ? "true" : "false") : "-";
  };
  std::vector<std::vector<std::string>> rows = {
      {"name", Optional(package.name)},
      {"file", Optional(package.file)},
      {"version_code", package.version_code ? std::to_string(*package.version_code) : "-"},
      {"task_id", package.task_id ? std::to_string(*package.task_id) : "-"},
      {"mode", package.mode.value_or("-")},
      {"last report", Report(package)},
      {"in force", package.in_force ? "yes" : "no"},
      {"refusal", package.refusal ? RefusalName(package.refusal->refusal) : "-"},
      {"reason", package.refusal ? Printable(package.refusal->reason) : "-"},
      {"is_repair_success", flag(&android::init::MendRepairSp::is_repair_success)},
      {"is_boot_success", flag(&android::init::MendRepairSp::is_boot_success)},
      {"boot_failed_count", record ? std::to_string(record->boot_failed_count) : "-"},
      {"trigger_rollback_count",
       package.trigger_rollback_count ? std::to_string(*package.trigger_rollback_count) : "-"},
      {"need_delete", flag(&android::init::MendRepairSp::need_delete)},
      {"need_cancel", flag(&android::init::MendRepairSp::need_cancel)},
      {"mounted", package.mounted ? "yes" : "no"},
      {"mount_point", package.name ? Printable(android::mend::kMountRoot + *package.name) : "-"},
      {"dm_device", package.dm_device.value_or("-")},
      {"loop_device", package.loop_device.value_or("-")},
      {"verity", package.verity.value_or("-")},
      {"overlaid", package.overlaid.empty() ? "-" : Printable(Join(package.overlaid, ", "))},
  };
  for (auto& row : rows) row[0] += ":";
  std::string table = RenderTable({"", ""}, rows, {24, 0});
  return table.substr(table.find('\n') + 1);
}

std::string PlanText(const Plan& plan) {
  std::string out;
  for (const PlannedRun& run : plan.runs) {
    out += run.async ? "asynchronous run (mend async):\n" : "synchronous run (mend):\n";
    std::vector<std::vector<std::string>> rows;
    for (const PlannedPackage& package : run.packages) {
      rows.push_back({"  " + Optional(package.name), Printable(package.file),
                      package.refusal ? "no" : "yes", WhyNot(package.refusal)});
    }
    out += rows.empty()
               ? "  (no packages)\n"
               : RenderTable({"  PACKAGE", "FILE", "SELECTED", "WHY NOT"}, rows, {26, 34, 8, 0});
    for (const OverlayStack& stack : run.stacks) {
      out += Fit("  overlay " + Printable(stack.path) + ": " + StackText(stack), kTextWidth) + "\n";
    }
  }
  if (!plan.shadowed.empty()) {
    std::vector<std::vector<std::string>> rows;
    for (const ShadowedFile& file : plan.shadowed) {
      rows.push_back({Printable(file.path), Printable(file.name), Printable(file.hides)});
    }
    out += "\n" + RenderTable({"SHADOWED FILE", "SHOWN FROM", "HIDES"}, rows, {50, 24, 0});
  }
  return out;
}

std::string CheckText(const std::vector<Problem>& problems) {
  if (problems.empty()) return "no problems found\n";
  std::vector<std::vector<std::string>> rows;
  for (const Problem& problem : problems) {
    rows.push_back({problem.kind, Optional(problem.name), Printable(problem.detail)});
  }
  return RenderTable({"PROBLEM", "NAME", "DETAIL"}, rows, {30, 24, 0});
}

}  // namespace mendctl
