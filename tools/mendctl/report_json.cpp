#include "report_json.h"

#include "mend_paths.h"

namespace mendctl {
namespace {

template <typename T>
Json::Value OrNull(const std::optional<T>& value) {
  return value ? Json::Value(*value) : Json::Value();
}
Json::Value OrNull(const std::optional<int64_t>& value) {
  return value ? Json::Value(Json::Int64(*value)) : Json::Value();
}

Json::Value List(const std::vector<std::string>& items) {
  Json::Value list(Json::arrayValue);
  for (const std::string& item : items) list.append(item);
  return list;
}

void PutRefusal(const std::optional<Verdict>& refusal, Json::Value* out) {
  (*out)["refusal"] = refusal ? Json::Value(RefusalName(refusal->refusal)) : Json::Value();
  (*out)["reason"] = refusal ? Json::Value(refusal->reason) : Json::Value();
}

Json::Value StacksJson(const std::vector<OverlayStack>& stacks) {
  Json::Value list(Json::arrayValue);
  for (const OverlayStack& stack : stacks) {
    Json::Value entry;
    entry["path"] = stack.path;
    entry["lower"] = List(stack.lower);
    list.append(entry);
  }
  return list;
}

Json::Value PackageJson(const PackageStatus& package) {
  Json::Value out;
  out["name"] = OrNull(package.name);
  out["version_code"] = OrNull(package.version_code);
  out["task_id"] = OrNull(package.task_id);
  out["file"] = OrNull(package.file);
  out["mode"] = OrNull(package.mode);
  out["repair_status"] = OrNull(package.repair_status);
  const char* status_name = package.repair_status ? StatusName(*package.repair_status) : nullptr;
  out["status_name"] = status_name ? Json::Value(status_name) : Json::Value();
  out["in_force"] = package.in_force;
  PutRefusal(package.refusal, &out);
  const android::init::MendRepairSp* record = package.record;
  out["is_repair_success"] = record ? Json::Value(record->is_repair_success) : Json::Value();
  out["is_boot_success"] = record ? Json::Value(record->is_boot_success) : Json::Value();
  out["boot_failed_count"] = record ? Json::Value(record->boot_failed_count) : Json::Value();
  out["trigger_rollback_count"] = OrNull(package.trigger_rollback_count);
  out["need_delete"] = record ? Json::Value(record->need_delete) : Json::Value();
  out["need_cancel"] = record ? Json::Value(record->need_cancel) : Json::Value();
  out["mounted"] = package.mounted;
  out["mount_point"] =
      package.name ? Json::Value(android::mend::kMountRoot + *package.name) : Json::Value();
  out["dm_device"] = OrNull(package.dm_device);
  out["loop_device"] = OrNull(package.loop_device);
  out["verity"] = OrNull(package.verity);
  out["overlaid"] = List(package.overlaid);
  return out;
}

}  // namespace

Json::Value StatusJson(const StatusReport& report) {
  Json::Value out;
  out["packages"] = Json::Value(Json::arrayValue);
  for (const PackageStatus& package : report.packages) out["packages"].append(PackageJson(package));
  out["overlays"] = StacksJson(report.overlays);
  return out;
}

Json::Value PlanJson(const Plan& plan) {
  Json::Value out;
  out["runs"] = Json::Value(Json::arrayValue);
  for (const PlannedRun& run : plan.runs) {
    Json::Value entry;
    entry["mode"] = run.async ? "async" : "sync";
    entry["packages"] = Json::Value(Json::arrayValue);
    for (const PlannedPackage& package : run.packages) {
      Json::Value item;
      item["name"] = OrNull(package.name);
      item["file"] = package.file;
      item["selected"] = !package.refusal;
      PutRefusal(package.refusal, &item);
      entry["packages"].append(item);
    }
    entry["stacks"] = StacksJson(run.stacks);
    out["runs"].append(entry);
  }
  out["shadowed"] = Json::Value(Json::arrayValue);
  for (const ShadowedFile& file : plan.shadowed) {
    Json::Value item;
    item["path"] = file.path;
    item["name"] = file.name;
    item["file"] = file.file;
    item["hides"] = file.hides;
    out["shadowed"].append(item);
  }
  return out;
}

Json::Value CheckJson(const std::vector<Problem>& problems) {
  Json::Value out;
  out["problems"] = Json::Value(Json::arrayValue);
  for (const Problem& problem : problems) {
    Json::Value item;
    item["kind"] = problem.kind;
    item["name"] = problem.name;
    item["detail"] = problem.detail;
    out["problems"].append(item);
  }
  return out;
}

std::string RenderJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

}  // namespace mendctl
