#pragma once

// The JSON documents of the three verbs (field names are a stable contract,
// documented in docs/mendctl.md).

#include <json/json.h>

#include <vector>

#include "check.h"
#include "plan.h"
#include "status.h"

namespace mendctl {

Json::Value StatusJson(const StatusReport& report);
Json::Value PlanJson(const Plan& plan);
Json::Value CheckJson(const std::vector<Problem>& problems);

// Indented JSON with strings carried byte for byte, and a final newline.
std::string RenderJson(const Json::Value& value);

}  // namespace mendctl
