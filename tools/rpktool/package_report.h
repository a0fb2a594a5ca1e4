#pragma once

// Everything `info` shows about a package, as one JSON value, and its
// rendering as text.

#include <json/json.h>

#include <string>

#include "image_metadata.h"
#include "package_reader.h"

namespace rpktool {

Json::Value DescribePackage(const PackageFile& package, const ImageMetadata* metadata);
std::string RenderPackageText(const Json::Value& report);

// Key fields of a hashtree descriptor under the names info --json uses.
Json::Value DescribeHashtree(const HashtreeDescriptor& descriptor);

}  // namespace rpktool
